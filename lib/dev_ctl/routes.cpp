// The kernel's routing table, and the routes that the interfaces file sets up.

#include "lib/dev_ctl/routes.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include "lib/address.h"
#include "lib/dev_ctl/interfaces_file.h"
#include "lib/dev_ctl/socket.h"
#include "lib/text.h"

namespace {

constexpr const char *ROUTE_TABLE = "/proc/net/route";
constexpr int MAX_TABLE_HEADER = 510;
constexpr int MAX_TABLE_LINE = 1023;
constexpr size_t MAX_ROUTE_LINE = 127;
constexpr size_t MAX_ADDRESS = 15;

// Room for what "%16s" and "%128s" store.
constexpr size_t NAME_CAPACITY = 16 + 1;
constexpr size_t ADDRESS_CAPACITY = 128 + 1;

// Appends zeroed entries to a list.
struct RouteListBuilder {
  RouteListPtr first;
  RouteEntry *last = nullptr;
};

// The new last entry, or null when there is no memory.
RouteEntry *Append(RouteListBuilder &list) {
  auto *entry = static_cast<RouteEntry *>(calloc(1, sizeof(RouteEntry)));
  if (entry == nullptr) return nullptr;
  if (list.last == nullptr)
    list.first.reset(entry);
  else
    list.last->next = entry;
  list.last = entry;
  return entry;
}

// Takes the next column's title off a table's header.
std::string_view NextTitle(std::string_view &header) {
  constexpr std::string_view GAPS = "| \t\n\v\f\r";
  constexpr std::string_view ENDS = "| \t\n";
  header.remove_prefix(std::min(header.find_first_not_of(GAPS), header.size()));
  const std::string_view title = header.substr(0, header.find_first_of(ENDS));
  header.remove_prefix(title.size());
  return title;
}

struct TableColumn {
  const char *title;
  const char *conversion;
};

std::vector<TableColumn> TakeColumns(const char *title, va_list rest) {
  std::vector<TableColumn> columns;
  for (const char *each = title; each != nullptr; each = va_arg(rest, const char *))
    columns.push_back({each, va_arg(rest, const char *)});
  return columns;
}

// The format that reads the wanted columns and skips the others up to the last of them. Returns how
// many the header has.
size_t MakeScanFormat(std::string_view header, const std::vector<TableColumn> &wanted,
                      std::string &format) {
  size_t found = 0;
  for (const TableColumn &column : wanted) {
    std::string_view title = NextTitle(header);
    for (; !title.empty() && title != column.title; title = NextTitle(header))
      format += "%*s ";
    if (title.empty()) break;
    format += column.conversion;
    if (++found < wanted.size()) format += ' ';
  }
  return found;
}

// The values of a line of the routing table, as they are printed.
struct TableValues {
  char name[NAME_CAPACITY];
  char destination[ADDRESS_CAPACITY];
  char gateway[ADDRESS_CAPACITY];
  char mask[ADDRESS_CAPACITY];
  unsigned int flags;
  int ref_count, use, metric, mtu, window, irtt;
};

TableValues ScanTableLine(const char *line, const char *format) {
  TableValues values = {};
  values.metric = -1;  // a line that ends before it has no metric
  sscanf(line, format, values.name, values.destination, values.gateway, &values.flags,
         &values.ref_count, &values.use, &values.metric, values.mask, &values.mtu, &values.window,
         &values.irtt);
  return values;
}

void FillFromTable(const TableValues &values, RouteEntry &route) {
  CopyToField(route.name, sizeof(route.name), values.name);
  libbh_ParseHexAddr(values.destination, &route.destination);
  libbh_ParseHexAddr(values.gateway, &route.gateway);
  libbh_ParseHexAddr(values.mask, &route.mask);
  route.flags = values.flags;
  route.metric =
      values.metric == std::numeric_limits<int>::max() ? values.metric : values.metric + 1;
  route.ref_count = values.ref_count;
  route.use = values.use;
  route.mtu = values.mtu;
  route.window = values.window;
  route.irtt = values.irtt;
}

bool SameRoute(const RouteEntry &a, const RouteEntry &b) {
  return a.destination.sin_addr.s_addr == b.destination.sin_addr.s_addr &&
         a.gateway.sin_addr.s_addr == b.gateway.sin_addr.s_addr && strcmp(a.name, b.name) == 0;
}

void MarkConfiguredOn(const char *interface, RouteEntry *table) {
  RouteEntry *list = nullptr;
  libbh_GetConfiguredRoutes(&list, interface);
  const RouteListPtr configured(list);
  for (const RouteEntry *route = list; route != nullptr; route = route->next) {
    for (RouteEntry *entry = table; entry != nullptr; entry = entry->next) {
      if (SameRoute(*route, *entry)) entry->flags |= ROUTE_CONFIGURED;
    }
  }
}

void MarkConfigured(RouteEntry *table) {
  IfListEntry *const interfaces = libbh_GetIfList(AF_INET, 0);
  const char *last = "";
  for (const IfListEntry *each = interfaces; each != nullptr; each = each->next) {
    // One that has many addresses comes many times in a row.
    if (strcmp(each->name, last) != 0 && strcmp(each->name, "lo") != 0)
      MarkConfiguredOn(each->name, table);
    last = each->name;
  }
  libbh_FreeIfList(interfaces);
}

// A route line of the interfaces file; an address that is not given is empty.
struct RouteTexts {
  char destination[MAX_ADDRESS + 2];  // one more than fits, to show what is too long
  char mask[MAX_ADDRESS + 2];
  char gateway[MAX_ADDRESS + 2];
  char metric[NUMBER_CAPACITY];
};

bool Fits(const char *address) {
  return strlen(address) <= MAX_ADDRESS;
}

// False for a line that sets up no route.
bool ScanRouteLine(std::string_view line, RouteTexts &texts) {
  texts = {};
  line = SkipSpaces(line);
  const size_t start = line.find("route");
  if (!line.starts_with("up") || start == line.npos) return false;
  const std::string route(line.substr(start));
  if (Contains(route, "-net")) {
    sscanf(route.c_str(), "route add -net %16s netmask %16s gw %16s metric %31[0-9+-]",
           texts.destination, texts.mask, texts.gateway, texts.metric);
  } else if (Contains(route, "default")) {
    sscanf(route.c_str(), "route add default gw %16s", texts.gateway);
  } else {
    return false;
  }
  return Fits(texts.destination) && Fits(texts.mask) && Fits(texts.gateway);
}

sockaddr_in ToAddress(const char *text) {
  sockaddr_in address = SocketAddress({});
  if (inet_aton(text, &address.sin_addr) == 0) address.sin_addr.s_addr = 0;
  return address;
}

void FillFromFile(const char *interface, const RouteTexts &texts, RouteEntry &route) {
  CopyToField(route.name, sizeof(route.name), interface);
  route.destination = ToAddress(texts.destination);
  route.mask = ToAddress(texts.mask);
  route.gateway = ToAddress(texts.gateway);
  route.metric = ToNumber(texts.metric);
}

}  // namespace

char *libbh_BuildScanFormat(const char *file_name, int32_t more, FILE *stream, const char *title,
                            ...) {
  char line[MAX_TABLE_HEADER + 1];
  if (stream == nullptr || fgets(line, sizeof(line), stream) == nullptr) return nullptr;
  va_list columns;
  va_start(columns, title);
  const std::vector<TableColumn> wanted = TakeColumns(title, columns);
  va_end(columns);
  std::string format;
  const size_t found = MakeScanFormat(line, wanted, format);
  if (found < wanted.size() && more == 0) {
    fprintf(stderr, "warning: %s does not contain required field %s\n", file_name,
            wanted[found].title);
    return nullptr;
  }
  return HeapCopy(format);
}

int32_t libbh_ParseHexAddr(const char *text, sockaddr_in *address) {
  constexpr int DIGITS = 8;
  if (address == nullptr) return -1;
  *address = SocketAddress({});
  if (text == nullptr || strspn(text, "0123456789ABCDEFabcdef") < DIGITS) return -1;
  const std::string digits(text, DIGITS);
  address->sin_addr.s_addr = static_cast<in_addr_t>(strtoul(digits.c_str(), nullptr, 16));
  return DIGITS;
}

int32_t libbh_GetRouteTable(RouteEntry **list) {
  if (list == nullptr) return libbh_SysError(EINVAL);
  *list = nullptr;
  const FilePtr file(fopen(ROUTE_TABLE, "re"));
  if (!file) return libbh_SysError(errno);
  const HeapText format(libbh_BuildScanFormat(
      ROUTE_TABLE, 0, file.get(), "Iface", "%16s", "Destination", "%128s", "Gateway", "%128s",
      "Flags", "%X", "RefCnt", "%d", "Use", "%d", "Metric", "%d", "Mask", "%128s", "MTU", "%d",
      "Window", "%d", "IRTT", "%d", nullptr));
  if (!format) return -1;
  RouteListBuilder table;
  char line[MAX_TABLE_LINE + 1];
  while (fgets(line, sizeof(line), file.get()) != nullptr) {
    RouteEntry *const route = Append(table);
    if (route == nullptr) return -1;
    FillFromTable(ScanTableLine(line, format.get()), *route);
  }
  MarkConfigured(table.first.get());
  *list = table.first.release();
  return 0;
}

int32_t libbh_GetConfiguredRoutes(RouteEntry **list, const char *interface) {
  if (list == nullptr) return libbh_SysError(EINVAL);
  *list = nullptr;
  InterfacesText text;
  SplitInterfacesFile(interface, text);  // without a file there are no routes
  RouteListBuilder routes;
  std::string_view left = text.own;
  while (!left.empty()) {
    RouteTexts texts = {};
    if (!ScanRouteLine(NextChunk(left, MAX_ROUTE_LINE), texts)) continue;
    RouteEntry *const route = Append(routes);
    if (route == nullptr) break;
    FillFromFile(interface, texts, *route);
  }
  *list = routes.first.release();
  return 0;
}

int32_t libbh_FreeRouteList(RouteEntry *list) {
  while (list != nullptr) {
    RouteEntry *const next = list->next;
    free(list);
    list = next;
  }
  return 0;
}
