/*
 * pinfo.h - process information from the operating system.
 */
#ifndef PLATFORM_PINFO_H
#define PLATFORM_PINFO_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define PINFO_RC_NULL_ARG UINT32_C(0xA6990200)        /* the buffer is null or has no bytes */
#define PINFO_RC_NO_SUCH_PROCESS UINT32_C(0xC6990400) /* no visible process has this id */
#define PINFO_RC_NAME_TOO_LONG UINT32_C(0xC6990600)   /* not even the last component fits */

/*
 * Writes the name of a process, NUL-terminated, into the `size` bytes at `name`: the path of the
 * program it runs, the last component alone if the path does not fit, or its command name where the
 * path may not be read. On failure the buffer is untouched. Any thread may call it.
 */
uint32_t pinfo_get_name(uint32_t pid, char *name, uint32_t size);

#ifdef __cplusplus
}
#endif

#endif
