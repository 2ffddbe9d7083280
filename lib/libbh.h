/* The appliance's settings library.
 *
 * Results are signed 32-bit numbers: 0 done, negative refused or failed; a failed system call is
 * -10000 - errno, a null argument where one is needed -10000 - EINVAL. Numbers are in host order;
 * IPv4 addresses are in network order. Blocks that a function hands out come from malloc and are
 * released by the caller with free(), lists with their own function. Nothing is cached between
 * calls.
 *
 * A function that has a result for missing memory says so. Where memory for the library's own texts
 * is missing (files, tables, command lines, names), the process ends by abort(); a C++ program's
 * new_handler is asked first.
 *
 * Setters that name -20000 return it, with nothing read or written, unless libbh_checklock() is 0.
 * No other setter looks at the configuration lock.
 *
 * A status as system() returns it is -1 while the caller ignores SIGCHLD, although the command ran.
 * No other result depends on that.
 *
 * Names that begin with libbh_ are the library's own: programs define none. Its trace goes to the
 * weak libbh_debug_print, which only the daemon defines. The library is not thread-safe. */

#ifndef BH_LIB_LIBBH_H_
#define BH_LIB_LIBBH_H_

#include <netinet/in.h>
#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- settings files of key="value" lines ----
 *
 * A value comes back as it was set, but for these:
 * - Backslashes: of those in a row a quarter comes back, rounded down; rounded up right before a
 *   double quote.
 * - A line end: the value ends before it, and the rest becomes a line of its own. If the file was
 *   missing, the value comes back with a double quote in front, unless it has another one.
 * - In a file that was there, leading blanks are lost. Of a value with several double quotes comes
 *   back what stands between the first and the last. Otherwise a line that ends with CRLF gives
 *   back the carriage return, too.
 * - A key of more than 62 characters, with an equals sign or a line end in it, a # in front or a
 *   blank at either end is never found, so NULL comes back. */

/* The value of the first line of the file that defines `key`, without its quotes and two levels of
 * backslashes. NULL when the file cannot be read, no line defines the key, or there is no memory
 * for the value; "" for a key without a value. The caller frees it. */
char *libbh_GetConfigValue(const char *path, const char *key);

/* Writes `value` into every line that defines `key`, in place, and adds no key. A missing file is
 * created with the one line; if that fails, no file is left. Callers hold the configuration lock
 * where others write too. 0; -1 without memory; -10000 - EMSGSIZE when a line of an old file would
 * exceed 255 bytes with its end; -10000 - errno. When the value does not fit, or the file cannot be
 * read or opened for writing, it is untouched. */
int32_t libbh_SetConfigValue(const char *path, const char *key, const char *value);

/* The result that stands for the errno `error`: -10000 - error. */
int32_t libbh_SysError(int error);

/* The default setting number `index`, 0 to 14; NULL from 15 on. A constant: not to be freed. */
const char *libbh_GetDefaultValue(uint32_t index);

/* `buffer` (from malloc, or NULL for none) grown by `text` (NULL counts as ""). Returns the block
 * to use and to free instead of `buffer`; NULL without memory, `buffer` is still the caller's then.
 */
char *libbh_AppendString(char *buffer, const char *text);

/* ---- product identity ----
 *
 * `buffer` is the caller's, `size` is its bytes with room for the NUL. A text that does not fit is
 * never cut: the result is then, where nothing else is said, minus the bytes that it needs. A null
 * buffer is one that nothing fits. */

/* The product's name, "Brackenhold" where none is set. 0, or -65 with nothing written when `size`
 * is below 12 or the name does not fit. */
int32_t libbh_GetProductName(char *buffer, int32_t size);

/* The product's series, "Brackenhold" where none is set. 0, or minus the bytes needed. */
int32_t libbh_GetSeries(char *buffer, int32_t size);

/* The version, major * 256 + minor (2.37 is 0x0225), of the running system, of the installed
 * release, or out of `file`; 0 where none is set, minor 0 where the text has no dot. Returns 0, or
 * -10000 - EINVAL for a null `out`. */
int32_t libbh_GetVersion(uint16_t *out);
int32_t libbh_GetReleaseVersion(uint16_t *out);
int32_t libbh_ReadVersion(const char *file, uint16_t *out);

/* The sub-version's text, from the same three places. 0, also when none is set: the text is empty
 * then, and a null buffer or size 0 gets nothing. Minus the bytes needed, with an empty text in the
 * buffer, when it does not fit. */
int32_t libbh_GetSubVersion(char *buffer, int32_t size);
int32_t libbh_GetReleaseSubVersion(char *buffer, int32_t size);
int32_t libbh_ReadSubVersion(const char *file, char *buffer, int32_t size);

/* The build date's text, from the same three places. 0; -10000 where none is set; minus the bytes
 * needed when it does not fit, which a null buffer asks for. The buffer is untouched unless 0. */
int32_t libbh_GetBuildDate(char *buffer, int32_t size);
int32_t libbh_GetReleaseBuildDate(char *buffer, int32_t size);
int32_t libbh_ReadBuildDate(const char *file, char *buffer, int32_t size);

/* The low 16 bits of the hardware's number; 0 where none is set. */
int32_t libbh_GetHwId(void);

/* The product's number; 0 where none is set. */
int32_t libbh_GetProductId(void);

/* Which system runs: 0 unknown, 1 the normal system, 2 the emergency system. */
int32_t libbh_GetProductState(void);

/* The power timer's mode: 0 unknown or no timer file, 1 off, 2 sleep, 3 backup (or a timer file
 * shorter than 8 bytes). */
int32_t libbh_GetTimerStatus(void);

/* ---- power, configuration, files ---- */

/* Say so in the log, through a child that they do not wait for, write out all files and run the
 * shutdown script. Return 0. */
int32_t libbh_Reboot(void);
int32_t libbh_Shutdown(void);

/* Run the scripts that keep the configuration in flash and bring it back. Their status, as system()
 * returns it. */
int32_t libbh_SaveConfig(void);
int32_t libbh_LoadConfig(void);

/* The Internet checksum (RFC 1071) of the file; 0xFFFF for one that cannot be read, is empty or has
 * 2 GiB or more. */
uint16_t libbh_FileChksum(const char *path);

/* Mounts the device, in the place of what is mounted there. 0 or -1, after three attempts. */
int32_t libbh_Mount(const char *device, const char *directory, const char *fstype);

/* ---- configuration lock ----
 *
 * One lock for the whole system, held by a process and given back by the kernel when it ends. It
 * has a main level, and an inherited level that only a child of the main level's holder can take.
 * It is not re-entrant. */

/* Takes a level without waiting for another holder. 0; -1 when the key file or the owner record
 * cannot be had; -2 when the semaphores cannot be opened, or another process has made them and not
 * yet used them (after a second's wait); -3 when it is held. Ends the process with status 0 when
 * the system has no semaphores to give. */
int32_t libbh_lock(void);

/* Releases all that the calling process holds; may be called by a signal handler. 0, also when it
 * held nothing; -1 when there is no lock in the system, and when the owner record cannot be
 * attached: the levels that the kernel knows to be the caller's are released all the same. */
int32_t libbh_unlock(void);

/* 0 when the calling process holds a level, or when the key file is there and the semaphores are
 * not; else 1. */
int32_t libbh_checklock(void);

/* Waits that many seconds, or until a signal is handled. The result of select(): 0, or -1. */
int32_t libbh_sleep(int32_t seconds);

/* ---- the interfaces file, /etc/network/interfaces ----
 *
 * A line of more than 255 characters is judged by its first 255, and kept or dropped whole. */

/* Splits the file's text: `own` gets the lines of the stanzas of interface `name` without blank and
 * comment lines, `rest` all others, in their order. A name also selects stanzas that merely contain
 * it. Texts end with a newline, and are null when they have no line; NUL bytes are left out. The
 * caller frees both. 0; with both null -1 without memory, or -10000 - errno. */
int32_t libbh_SplitInterfaces(const char *name, char **own, char **rest);

/* Takes the next line off the text at `*cursor` into `buffer` (`size` bytes, all cleared first),
 * with its newline; of one that is too long the first size - 1 characters. Returns the characters
 * taken without the newline: 0 at the end, for a last line that has none, and for an empty line. */
int32_t libbh_ReadLine(const char **cursor, char *buffer, int32_t size);

struct DhcpLease {
  int32_t valid;                                     /* 1: read for an interface in DHCP mode */
  struct sockaddr_in server_id, gateway, dns1, dns2; /* only the addresses; 0 where there is none */
  int32_t lease_time, get_time;                      /* as the DHCP client wrote them */
  char domain[68];                                   /* at most 64 characters */
};

struct TxCounters {
  uint32_t bytes, packets, errors, dropped, fifo_errors, compressed, collisions, carrier_errors;
};

struct RxCounters {
  uint32_t bytes, packets, errors, dropped, fifo_errors, compressed, frame_errors, multicast;
};

struct IfInfo {
  char name[16];
  uint8_t hw_addr[8]; /* the MAC address in the first 6 */
  struct sockaddr_in addr, peer_addr, netmask;
  struct TxCounters tx; /* low 32 bits of the kernel's counters */
  struct RxCounters rx;
  int32_t mode; /* 0 static, 1 DHCP */
  int32_t mtu;
  struct DhcpLease lease;
};

/* Writes the stanza of the record's interface anew, for its mode and addresses, at the end of the
 * file; "up" and "down" lines of the old one are kept. Does not look at the lock. 0, or
 * -10000 - errno; what a full disk cuts off is not reported. */
int32_t libbh_WriteIfStanza(const struct IfInfo *record);

/* ---- network interfaces ---- */

/* Fills the record of the interface that it names; the caller has zeroed the other fields. Bit 0x2
 * of `flags` asks for the counters too, of the first interface whose name contains this one; bit
 * 0x1, which callers set by custom, means nothing. An interface that is down or has no IPv4 address
 * gets its hardware address and DHCP state only. 0; -10006 when there is no such interface or no
 * counters; -10000 - errno. */
int32_t libbh_GetIfInfo(struct IfInfo *record, uint32_t flags);

/* Checks the record and, unless `check_only`, makes it the interface's configuration, in the file
 * and at once. Where no DHCP client starts, the record's addresses become a static configuration.
 * Can take as long as the DHCP client, or 10 seconds. 0; -20000; -413 for another mode; -430 for a
 * static address that no host can have; -10000 - errno. */
int32_t libbh_SetIfInfo(int32_t check_only, const struct IfInfo *record);

/* Changes the interface at once and in no file, by texts that the shell gets as they are; `netmask`
 * may be null. Does not look at the lock. The status of the command, as system() returns it. */
int32_t libbh_SetIfconfig(const char *interface, const char *address, const char *netmask);

struct IfListEntry {
  char name[16];
  uint8_t hw_addr[8];
  uint16_t hw_addr_len;                                  /* 6 */
  uint16_t flags;                                        /* IFF_... */
  uint16_t alias;                                        /* 1 */
  struct sockaddr_in *addr, *broadcast, *peer, *netmask; /* broadcast and peer may be null */
  struct IfListEntry *next;
  int32_t mtu; /* 0 when unknown */
};

/* The addresses of `family` (AF_INET) of the interfaces that are up, one entry each; those of alias
 * interfaces ("eth0:1") under the interface's own name, if wanted. Null when there is none, the
 * kernel cannot be asked, or there is no memory. Released with libbh_FreeIfList, which takes null
 * too. */
struct IfListEntry *libbh_GetIfList(int32_t family, int32_t with_aliases);
void libbh_FreeIfList(struct IfListEntry *list);

/* 1 when the kernel has the interface, up or not, or one whose name ends with `name`; else 0. */
int32_t libbh_IfExists(const char *name);

/* Stores a AND b (operation 0) or a OR NOT b (operation 1). 0, or -1 for another operation. */
int32_t libbh_AddrOp(int32_t operation, in_addr_t a, in_addr_t b, in_addr_t *result);

/* Fills the 6 bytes at `mac_out` with the hardware address of the interface `name`, in the order in
 * which they go over the wire; with zeros when there is no such interface. Returns 0. */
int32_t libbh_GetMacAddress(const char *name, uint8_t *mac_out);

/* ---- DHCP ---- */

/* 0 when the pid file of the interface's DHCP client exists, which the caller need not be able to
 * read; else -1. */
int32_t libbh_IsDhcpcdRunning(const char *interface);

/* Tells the interface's DHCP client to end, and does not wait for it. Does not look at the lock. 0;
 * -425 when none runs; -1 for a name of no or more than 15 characters. */
int32_t libbh_StopDhcpClient(const char *interface);

/* 1 when the pid file of the appliance's own DHCP server exists, readable or not; else 0. */
int32_t libbh_GetDHCPServerMode(void);

/* The appliance's DHCP server cannot be set up from here: does nothing. -399. */
int32_t libbh_SetDHCPServerMode(int32_t mode, int32_t restart, const struct IfInfo *record);

/* Clears the lease and fills it with what the interface's DHCP client noted last; `valid` stays 0.
 * 0, or -10000 - errno. */
int32_t libbh_ReadDhcpLease(const char *interface, struct DhcpLease *lease);

/* Reads an address of four decimal octets up to the text's end or a newline, strictly. 0, or -1
 * with the address 0. */
int32_t libbh_ParseDottedQuad(const char *text, struct in_addr *address);

/* ---- routes ---- */

struct RouteEntry {
  char name[16]; /* interface */
  struct sockaddr_in destination, gateway, mask;
  uint32_t flags; /* the kernel's RTF_..., and 0x0400 for one that is in the interfaces file */
  int32_t metric; /* kernel's and requests: the metric plus 1; from the file: as written */
  int32_t ref_count, use, mtu, window, irtt;
  struct RouteEntry *next;
};

/* The kernel's routing table, in its order, with the configured routes marked. 0; -1 when the table
 * lacks a column or there is no memory; -10000 - errno. The list is released with
 * libbh_FreeRouteList, whatever the result. */
int32_t libbh_GetRouteTable(struct RouteEntry **list);

/* The routes that the interface's stanza sets up, in its order; none without file or stanza. Lines
 * with an address of more than 15 characters are passed over; those of more than 127 characters are
 * read as several lines. Returns 0, also when the list ends early for want of memory. */
int32_t libbh_GetConfiguredRoutes(struct RouteEntry **list, const char *interface);

/* Takes null too. Returns 0. */
int32_t libbh_FreeRouteList(struct RouteEntry *list);

/* Reads the header line of a table under /proc and makes the scan format of its data lines: the
 * arguments are pairs of a column's title and its conversion, in the header's order, then NULL;
 * other columns are skipped. The caller frees it. Null at the end of the stream, without memory,
 * and, with a word on standard error, when a title is missing and `more` is 0. */
char *libbh_BuildScanFormat(const char *file_name, int32_t more, FILE *stream, const char *title,
                            ...);

/* Reads the 8 hexadecimal digits of an address under /proc, which is the number that the kernel has
 * in memory. 8, or -1 with the address 0. */
int32_t libbh_ParseHexAddr(const char *text, struct sockaddr_in *address);

/* Adds the gateway route (destination, mask, gateway, metric plus 1 or 0 for none) to the kernel's
 * table and then to the interface's stanza. 0; -20000; -403 with more than 64 gateway routes; -417
 * when the interface cannot be read or does not reach the gateway; -420 for a destination with bits
 * outside its mask; -421 when the route exists; -10000 - errno. */
int32_t libbh_AddRoute(const char *interface, int32_t check_only, const struct RouteEntry *route);

/* Deletes the first gateway route to the destination, through the gateway unless that is 0, from
 * the kernel's table and from the file. 0; -20000; -419 when there is none; -10000 - errno. */
int32_t libbh_DelRoute(int32_t check_only, const struct RouteEntry *route);

/* Puts a default route through the gateway in the place of the present one; 0 for none. 0; -20000;
 * -418 when the interface does not reach the gateway; -430 for its subnet's own or broadcast
 * address. That the route could not be set is not reported: the present one is gone then. An
 * interface without an address passes these checks, and its stanza gets the route's lines anew at
 * each call. */
int32_t libbh_SetDefaultGateway(const char *interface, int32_t check_only,
                                const in_addr_t *gateway);

/* Sets up the interface's configured routes again, after its address has changed. Those whose
 * gateway it no longer reaches leave the file. Does not look at the lock. */
void libbh_ReapplyRoutes(const char *interface);

/* ---- host name, workgroup, services ---- */

/* The host's name, cut to size - 2 characters; "" when none is known. 0. With `size` 0 minus the
 * bytes that the name needs, buffer untouched. */
int32_t libbh_GetHostName(char *buffer, int32_t size);

/* Checks the name (1 to 16 characters) and with `mode` 0 sets it, in the kernel and, with the
 * address of `ifname`, in /etc/hosts; then restarts the services if asked. 0, also when it is the
 * present name; -20000; -108; -10000 - errno. */
int32_t libbh_SetApHostName(int32_t mode, const char *name, int32_t restart, const char *ifname);

/* The workgroup of Windows or of AppleTalk clients. A name of exactly `size` characters gets no
 * NUL. 0; -113 when there is none; -112 when it is empty, longer than 16 characters or than `size`;
 * with a null buffer -10000 - EINVAL in the place of 0. */
int32_t libbh_GetGroupName(char *buffer, int32_t size);
int32_t libbh_GetAtalkWorkgroup(char *buffer, int32_t size);

/* Sets the workgroup (1 to 16 characters) for samba and in the appliance's information file, or for
 * samba alone. Files that have no workgroup line stay without. `reserved` is 0. 0; -20000; -112. */
int32_t libbh_SetGroupName(int32_t reserved, const char *name, int32_t restart);
int32_t libbh_SetSmbWorkgroup(int32_t reserved, const char *name, int32_t restart);

/* Run the services' scripts and return 0. `ifname` is not looked at. */
int32_t libbh_RestartNetwork(const char *ifname);
int32_t libbh_RestartSamba(void);
int32_t libbh_RestartAtalk(void);

/* ---- date, time zone, NTP ---- */

struct DateTime {
  int16_t year, month, day, hour, minute, second; /* local time; year in full, month from 1 */
};

/* The local time now. 0. This function and those that set the clock read the zone anew: they call
 * tzset(), and set TZ for a moment where it is not set. No other thread may use the environment or
 * local time meanwhile. A TZ of the caller is followed as it is at the call; a file that it names
 * is read once. */
int32_t libbh_GetDateAndTime(struct DateTime *record);

/* Check local date and time and, with `mode` 0, set the clock. libbh_SetDateAndTime sets the date
 * first, then the time: both come out as asked across a change of daylight saving, unless it has
 * left that hour out. None of the three looks at the lock. 0; -101 out of range (years begin with
 * 2001); -10000 - errno when the clock refuses, which libbh_SetDateAndTime keeps to itself. */
int32_t libbh_SetDateAndTime(int32_t mode, const struct DateTime *record);
int32_t libbh_SetDate(int32_t mode, int16_t year, int16_t month, int16_t day);
int32_t libbh_SetTime(int32_t mode, int16_t hour, int16_t minute, int16_t second);

/* 1 or 0. */
int32_t libbh_IsLeapYear(int32_t year);

/* Runs the zone script with the offset, in minutes from local time to UTC: -540 is nine hours
 * ahead. Notes it in hours with the opposite sign (9) under the key timezone of /etc/korvo/info,
 * where the file and the key exist. Does not look at the lock. The script's status, as system()
 * returns it. */
int32_t libbh_SetTimeZone(int32_t offset_minutes);

struct NtpConfig {
  int32_t enabled;        /* 1: query the server regularly */
  char *server;           /* host name or dotted address, at most 255 characters */
  int32_t interval_hours; /* 0 to 24; 0: once, now */
};

/* Checks the NTP schedule and, with `mode` 0, writes it into the crontab and, if it is enabled,
 * queries the server. A line there of more than 255 characters is judged by its first 255, and
 * kept or dropped whole; libbh_GetNtpConfig looks at 510, and may find one that was kept. 0;
 * -20000; -110 for the interval; -111 for the server; -10000 - errno. */
int32_t libbh_SetNtpConfig(int32_t mode, const struct NtpConfig *config);

/* Reads the schedule; what the record held before is not freed. An empty crontab gives off with 12
 * hours, one without an NTP line off with 11. The server is the record's, null without an NTP line,
 * and is released with libbh_FreeNtpConfig, which returns 0. 0; -1 without memory; -10000 - errno.
 */
int32_t libbh_GetNtpConfig(struct NtpConfig *config);
int32_t libbh_FreeNtpConfig(struct NtpConfig *config);

/* The zone's name ("Europe/Paris"). 0; minus its length when the buffer is null or too small (0 for
 * a null buffer when the link leads elsewhere); -1 when no zone is set. */
int32_t libbh_GetTimeZoneName(char *buffer, int32_t size);

/* Links the zone, whether its file exists or not. 0; -1; -20000. */
int32_t libbh_SetTimeZoneName(const char *name);

/* 0 for a text of letters, digits, hyphens and single inner dots, and for ""; else -1. */
int32_t libbh_CheckHostName(const char *text);

/* 1 for an empty file, 0 for one with content, -10000 - errno when there is none. */
int32_t libbh_IsEmptyFile(const char *path);

/* Points `out_piece` at the part of the text before (`after` 0) or behind (else) the first
 * separator, which may stand several times in a row, and returns its length up to the next
 * separator or the end; 0 without a separator, with a null piece behind it. Nothing is stored for a
 * null or empty text or separator. */
int32_t libbh_SplitString(int32_t after, const char *text, const char *separator,
                          const char **out_piece);

#ifdef __cplusplus
}
#endif

#endif /* BH_LIB_LIBBH_H_ */
