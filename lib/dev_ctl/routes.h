// Route lists while they are built, and what they are called in the interfaces file.

#ifndef BH_LIB_DEV_CTL_ROUTES_H_
#define BH_LIB_DEV_CTL_ROUTES_H_

#include <cstdint>
#include <memory>

#include "lib/libbh.h"

// Set in a kernel route's flags when it is configured in the interfaces file (RTF_STATIC).
constexpr uint32_t ROUTE_CONFIGURED = 0x0400;

struct RouteListRelease {
  void operator()(RouteEntry *list) const {
    libbh_FreeRouteList(list);
  }
};
using RouteListPtr = std::unique_ptr<RouteEntry, RouteListRelease>;

#endif  // BH_LIB_DEV_CTL_ROUTES_H_
