/* The appliance's settings library.
 *
 * Results are signed 32-bit numbers: 0 done, negative refused or failed; a failed system call is
 * -10000 - errno. Numbers are in host order. Blocks that a function hands out come from malloc and
 * are released by the caller with free(). Nothing is cached between calls. */

#ifndef BH_LIB_LIBBH_H_
#define BH_LIB_LIBBH_H_

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- settings files of key="value" lines ---- */

/* The value of the first line of the file that defines `key`, without its quotes and two levels of
 * backslashes. NULL when the file cannot be read, no line defines the key, or there is no memory;
 * "" for a key without a value. The caller frees it. */
char *libbh_GetConfigValue(const char *path, const char *key);

/* Writes `value` into every line of the file that defines `key`, and leaves all else as it was: a
 * key that no line defines is not added. A missing file is created with the one line. The file is
 * rewritten in place, without a lock: callers hold the configuration lock where others write too.
 * Returns 0; -1 without memory; -10000 - EMSGSIZE when a line would exceed 255 bytes with its line
 * end (the file is untouched); -10000 - EINVAL for a null argument; -10000 - errno when the file
 * cannot be read, opened for writing (it is untouched then) or written to the end. */
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

/* The sub-version's text, "" where none is set, from the same three places. 0, or minus the bytes
 * needed with an empty text in the buffer. */
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

/* ---- network interfaces ---- */

/* Fills the 6 bytes at `mac_out` with the hardware address of the interface `name`, in the order in
 * which they go over the wire; with zeros when there is no such interface. Returns 0. */
int32_t libbh_GetMacAddress(const char *name, uint8_t *mac_out);

#ifdef __cplusplus
}
#endif

#endif /* BH_LIB_LIBBH_H_ */
