/*
 * verbose.h - debug prints: formatted lines, off by default.
 *
 * VS_VERBOSE selects the categories: words separated by commas, each a name (`kvs`, `common`,
 * `platform`, `all`) or a mask (0x40000000). Other words are ignored, after a warning from
 * verbose_init. Each print then gives one line
 *
 *     2026-11-22 22:07:31.123456 [1234] kvs: the text
 *
 * (date and time in UTC, then the process) to standard error, or to the end of the file that
 * VS_VERBOSE_FILE names (created with mode 0600; a device is accepted, a pipe or socket is not). A
 * line that a pipe without a reader or a file at its size limit refuses is lost. A line goes out in
 * one write, so lines of several threads and processes do not mix; text beyond 4000 bytes is cut.
 * Control characters other than tabs are shown as '?', and a newline at the end of the text is not
 * doubled.
 *
 * Any thread may print at any time, also before verbose_init and in a forked child. A print that is
 * off costs a load and a branch; one that is on leaves errno as it was.
 */
#ifndef PLATFORM_VERBOSE_H
#define PLATFORM_VERBOSE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define DBG_VS_KVS UINT32_C(0x40000000)      /* `kvs`: all messages of the library */
#define DBG_VS_COMMON UINT32_C(0x20000000)   /* `common`: messages that go with common records */
#define DBG_VS_PLATFORM UINT32_C(0x10000000) /* `platform`: messages of the platform itself */

#define VERBOSE_RC_FILE UINT32_C(0xC69A0400) /* VS_VERBOSE_FILE is no file to write to */

/*
 * Reads the environment again and prepares the process's debug prints. The environment is also read
 * when the platform is loaded, so prints work before this call. `evm` is not interpreted.
 *
 * Words of VS_VERBOSE that are no category are named in one line on standard error, not repeated
 * while they stay the same. Returns 0, or VERBOSE_RC_FILE; the prints are then as they were.
 */
uint32_t verbose_init(uint64_t evm);

/* Prints one line in `category` if any bit of it is on. */
void verbose_printf_local(uint32_t category, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

#ifdef __cplusplus
}
#endif

#endif
