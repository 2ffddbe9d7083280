/* A program of another make: plain C11, linked with the library and nothing else. */

#include <libbh.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

static int same(const char *a, const char *b) {
  return a != NULL && strcmp(a, b) == 0;
}

/* A function of the program's own, by whatever name, is none of the library's business. */
static int printed = 0;

int DebugPrint(const char *format, ...);
int DebugPrint(const char *format, ...) {
  (void)format;
  return ++printed;
}

int main(int argc, char **argv) {
  if (argc != 2 || libbh_SetConfigValue(argv[1], "wg", "say \"hello\"") != 0) return 1;
  char *value = libbh_GetConfigValue(argv[1], "wg");
  if (!same(value, "say \"hello\"")) return 2;
  free(value);

  struct in_addr address;
  struct sockaddr_in gateway;
  if (libbh_ParseDottedQuad("192.168.40.2\n", &address) != 0) return 3;
  if (ntohl(address.s_addr) != 0xC0A82802) return 4;
  if (libbh_ParseHexAddr("C0A80101", &gateway) != 8 || gateway.sin_addr.s_addr != 0xC0A80101)
    return 5;

  /* The clock that the library sets is this program's too, however wide its times are. */
  const struct DateTime date = {2030, 1, 2, 3, 4, 5};
  if (libbh_SetDateAndTime(0, &date) != 0 || time(NULL) / 60 != 1893553445 / 60) return 9;

  /* Trace lines have nowhere to go here: the address is refused all the same. */
  struct IfInfo record;
  memset(&record, 0, sizeof(record));
  strcpy(record.name, "eth0");
  if (libbh_GetIfInfo(&record, 1) != 0 || record.addr.sin_addr.s_addr != address.s_addr) return 6;
  record.addr.sin_addr.s_addr = htonl(0xC0A801FF);
  record.netmask.sin_addr.s_addr = htonl(0xFFFF0000);
  if (libbh_SetIfInfo(1, &record) != -20000 || libbh_lock() != 0) return 7;
  if (libbh_SetIfInfo(1, &record) != -430 || libbh_unlock() != 0) return 8;
  return printed == 0 ? 0 : 9;
}
