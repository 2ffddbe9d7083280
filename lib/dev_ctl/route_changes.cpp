// Changing gateway routes: the kernel first, then the interface's stanza of the interfaces file.

#include <net/if.h>
#include <net/route.h>
#include <sys/ioctl.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "lib/address.h"
#include "lib/codes.h"
#include "lib/dev_ctl/interfaces_file.h"
#include "lib/dev_ctl/routes.h"
#include "lib/dev_ctl/socket.h"
#include "lib/shell.h"
#include "lib/text.h"

namespace {

constexpr int MAX_GATEWAY_ROUTES = 64;
constexpr uint32_t GATEWAY_ROUTE = RTF_UP | RTF_GATEWAY;
constexpr const char *INDENT = "     ";

in_addr_t Destination(const RouteEntry &route) {
  return route.destination.sin_addr.s_addr;
}

in_addr_t Gateway(const RouteEntry &route) {
  return route.gateway.sin_addr.s_addr;
}

in_addr_t Mask(const RouteEntry &route) {
  return route.mask.sin_addr.s_addr;
}

bool IsDefault(const RouteEntry &route) {
  return Destination(route) == 0;
}

bool IsGatewayRoute(const RouteEntry &route) {
  return (route.flags & GATEWAY_ROUTE) == GATEWAY_ROUTE;
}

// A default gateway by itself, as the route that it makes.
RouteEntry DefaultRoute(in_addr_t gateway) {
  RouteEntry route = {};
  route.destination = SocketAddress({});
  route.mask = SocketAddress({});
  route.gateway = SocketAddress({gateway});
  return route;
}

// What a request takes from the route; `metric` is the kernel's plus 1, or 0 for none.
struct RouteRequest {
  char device[IFNAMSIZ];
  RouteEntry route;
  uint32_t flags;
  int32_t metric;
};

// 0, or the errno of the refusal.
int SendRequest(int sock, unsigned long operation, RouteRequest request) {
  rtentry entry = {};
  if (request.metric < 0 || request.metric > std::numeric_limits<short>::max()) return EINVAL;
  entry.rt_dev = request.device;
  entry.rt_dst = FromInet(SocketAddress(request.route.destination.sin_addr));
  entry.rt_gateway = FromInet(SocketAddress(request.route.gateway.sin_addr));
  entry.rt_genmask = FromInet(SocketAddress(request.route.mask.sin_addr));
  entry.rt_flags = static_cast<unsigned short>(request.flags);
  entry.rt_metric = static_cast<short>(request.metric);
  return ioctl(sock, operation, &entry) == 0 ? 0 : errno;
}

// As SendRequest, over a socket of its own.
int SendRequest(unsigned long operation, const RouteRequest &request) {
  const Descriptor sock = OpenInetSocket();
  return !sock.IsOpen() ? errno : SendRequest(sock.Get(), operation, request);
}

// The request that adds the route; a name that is too long becomes none, which the kernel refuses.
RouteRequest AddRequest(const char *interface, const RouteEntry &route, int32_t metric) {
  RouteRequest request = {};
  CopyToField(request.device, sizeof(request.device), interface);
  request.route = route;
  request.flags = GATEWAY_ROUTE;
  request.metric = metric;
  return request;
}

RouteListPtr KernelTable() {
  RouteEntry *list = nullptr;
  libbh_GetRouteTable(&list);
  return RouteListPtr(list);
}

// 0 when the route can be added to those there are.
int32_t CheckAgainstTable(const RouteEntry &route) {
  const RouteListPtr table = KernelTable();
  int gateway_routes = 0;
  for (const RouteEntry *each = table.get(); each != nullptr; each = each->next) {
    if (!IsGatewayRoute(*each)) continue;
    ++gateway_routes;
    if (Destination(*each) == Destination(route) && Mask(*each) == Mask(route) &&
        Gateway(*each) == Gateway(route))
      return ROUTE_EXISTS;
  }
  return gateway_routes > MAX_GATEWAY_ROUTES ? TOO_MANY_ROUTES : 0;
}

int32_t CheckNewRoute(const char *interface, const RouteEntry &route) {
  if (!IsDefault(route) && (Destination(route) & Mask(route)) != Destination(route))
    return BAD_DESTINATION;
  IfInfo record = {};
  if (!CopyToField(record.name, sizeof(record.name), interface) || libbh_GetIfInfo(&record, 1) != 0)
    return BAD_ROUTE_INTERFACE;
  const in_addr_t netmask = record.netmask.sin_addr.s_addr;
  if ((record.addr.sin_addr.s_addr & netmask) != (Gateway(route) & netmask))
    return BAD_ROUTE_INTERFACE;
  return CheckAgainstTable(route);
}

// The line's part behind "up route add" or "down route del".
std::string RouteWords(const RouteEntry &route) {
  const std::string gateway = Dotted(route.gateway.sin_addr);
  if (IsDefault(route)) return FormatText(" default gw %s\n", gateway.c_str());
  std::string words = FormatText(" -net %s", Dotted(route.destination.sin_addr).c_str());
  words += FormatText(" netmask %s", Dotted(route.mask.sin_addr).c_str());
  words += FormatText(" gw %s", gateway.c_str());
  if (route.metric != 0) words += FormatText(" metric %d ", route.metric - 1);
  return words + "\n";
}

int32_t AddLines(const char *interface, const RouteEntry &route) {
  InterfacesText text;
  const int32_t result = SplitInterfacesFile(interface, text);
  if (result < 0) return result;
  const std::string words = RouteWords(route);
  text.own += FormatText("%sup route add%s", INDENT, words.c_str());
  text.own += FormatText("%sdown route del%s", INDENT, words.c_str());
  return WriteInterfacesFile(text);
}

// Lines that mention both texts; an empty one is mentioned everywhere.
struct LineKey {
  std::string first;
  std::string second;
};

bool ContainsAny(std::string_view line, const std::vector<LineKey> &keys) {
  return std::any_of(keys.begin(), keys.end(), [line](const LineKey &key) {
    return Contains(line, key.first) && Contains(line, key.second);
  });
}

// Takes the lines of any key out of the interface's stanza. 0 also when the file cannot be read,
// else -10000 - errno.
int32_t RemoveLines(const char *interface, const std::vector<LineKey> &keys) {
  InterfacesText text;
  if (SplitInterfacesFile(interface, text) < 0) return 0;
  const std::string own = std::exchange(text.own, "");
  std::string_view left = own;
  while (!left.empty()) {
    const std::string_view line = NextChunk(left, left.npos);
    if (!ContainsAny(FrontOf(line), keys)) text.own.append(line);
  }
  return WriteInterfacesFile(text);
}

LineKey DeletedLines(const RouteEntry &route) {
  if (IsDefault(route)) return {"default gw", ""};
  return {Dotted(route.destination.sin_addr), Dotted(route.gateway.sin_addr)};
}

// The first gateway route to the destination, through the gateway unless that is 0.
const RouteEntry *FindRoute(const RouteEntry *table, const RouteEntry &route) {
  for (const RouteEntry *each = table; each != nullptr; each = each->next) {
    if (IsGatewayRoute(*each) && Destination(*each) == Destination(route) &&
        (Gateway(route) == 0 || Gateway(*each) == Gateway(route)))
      return each;
  }
  return nullptr;
}

int32_t CheckGateway(in_addr_t gateway, in_addr_t address, in_addr_t netmask) {
  if ((address & netmask) != (gateway & netmask)) return GATEWAY_OUT_OF_REACH;
  if ((gateway & netmask) == gateway || (gateway | ~netmask) == gateway) return BAD_ADDRESS;
  return 0;
}

struct Subnet {
  in_addr_t network;
  in_addr_t netmask;
};

bool ReadSubnet(int sock, const char *interface, Subnet &subnet) {
  ifreq address = RequestFor(interface);
  ifreq netmask = address;
  if (ioctl(sock, SIOCGIFADDR, &address) != 0 || ioctl(sock, SIOCGIFNETMASK, &netmask) != 0)
    return false;
  subnet.netmask = ToInet(netmask.ifr_netmask).sin_addr.s_addr;
  subnet.network = ToInet(address.ifr_addr).sin_addr.s_addr & subnet.netmask;
  return true;
}

void ReapplyRoute(int sock, const char *interface, const RouteEntry &route) {
  const bool has_kernel_form = route.metric < std::numeric_limits<int32_t>::max();
  const int32_t metric = has_kernel_form ? route.metric + 1 : route.metric;
  const int error = SendRequest(sock, SIOCADDRT, AddRequest(interface, route, metric));
  if (error != 0) syslog(LOG_NOTICE, "fail to add gateway: %s\n", strerror(error));
}

bool IsReachable(const RouteEntry &route, const Subnet &subnet) {
  return (Gateway(route) & subnet.netmask) == subnet.network;
}

// A network route whose line could not be understood has no destination either; its key would take
// the default route's lines.
bool IsNamedByLine(const RouteEntry &route) {
  return !IsDefault(route) || (Mask(route) == 0 && Gateway(route) != 0);
}

std::vector<LineKey> UnreachableLines(const RouteEntry *routes, const Subnet &subnet) {
  std::vector<LineKey> keys;
  for (const RouteEntry *route = routes; route != nullptr; route = route->next) {
    if (IsReachable(*route, subnet) || !IsNamedByLine(*route)) continue;
    if (IsDefault(*route))
      keys.push_back({"default", ""});
    else  // an address line may begin with the same digits
      keys.push_back({Dotted(route->destination.sin_addr), "route"});
  }
  return keys;
}

}  // namespace

int32_t libbh_AddRoute(const char *interface, int32_t check_only, const RouteEntry *route) {
  if (libbh_checklock() != 0) return NOT_LOCKED;
  if (interface == nullptr || route == nullptr) return libbh_SysError(EINVAL);
  const int32_t refused = CheckNewRoute(interface, *route);
  if (refused != 0 || check_only != 0) return refused;
  const int error = SendRequest(SIOCADDRT, AddRequest(interface, *route, route->metric));
  return error == 0 ? AddLines(interface, *route) : libbh_SysError(error);
}

int32_t libbh_DelRoute(int32_t check_only, const RouteEntry *route) {
  if (libbh_checklock() != 0) return NOT_LOCKED;
  if (route == nullptr) return libbh_SysError(EINVAL);
  const RouteListPtr table = KernelTable();
  const RouteEntry *const found = FindRoute(table.get(), *route);
  if (found == nullptr) return NO_SUCH_ROUTE;
  if (check_only != 0) return 0;
  RouteRequest request = AddRequest(found->name, *found, 0);
  request.flags = found->flags;
  const int error = SendRequest(SIOCDELRT, request);
  if (error != 0) return libbh_SysError(error);
  return (found->flags & ROUTE_CONFIGURED) != 0 ? RemoveLines(found->name, {DeletedLines(*found)})
                                                : 0;
}

int32_t libbh_SetDefaultGateway(const char *interface, int32_t check_only,
                                const in_addr_t *gateway) {
  if (libbh_checklock() != 0) return NOT_LOCKED;
  if (gateway == nullptr) return libbh_SysError(EINVAL);
  const RouteEntry any_default = DefaultRoute(0);
  if (*gateway == 0) {
    if (check_only == 0) libbh_DelRoute(0, &any_default);
    return 0;
  }
  IfInfo record = {};
  if (CopyToField(record.name, sizeof(record.name), interface)) libbh_GetIfInfo(&record, 1);
  const in_addr_t netmask = record.netmask.sin_addr.s_addr;
  const int32_t refused = CheckGateway(*gateway, record.addr.sin_addr.s_addr, netmask);
  if (refused != 0 || check_only != 0) return refused;
  const RouteEntry route = DefaultRoute(*gateway);
  libbh_DelRoute(0, &any_default);
  libbh_AddRoute(interface, 0, &route);
  return 0;
}

void libbh_ReapplyRoutes(const char *interface) {
  const Descriptor sock = OpenInetSocket();
  Subnet subnet = {};
  if (!sock.IsOpen() || !ReadSubnet(sock.Get(), interface, subnet)) return;
  RouteEntry *list = nullptr;
  libbh_GetConfiguredRoutes(&list, interface);
  const RouteListPtr routes(list);
  std::vector<LineKey> unreachable = UnreachableLines(list, subnet);
  for (const RouteEntry *route = list; route != nullptr; route = route->next) {
    if (IsReachable(*route, subnet)) {
      ReapplyRoute(sock.Get(), interface, *route);
    } else if (!unreachable.empty()) {  // all of them at the first
      if (RemoveLines(interface, unreachable) != 0) return;
      unreachable.clear();
    }
  }
}
