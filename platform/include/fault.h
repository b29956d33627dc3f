/*
 * fault.h - names and texts of 32-bit statuses.
 *
 * Every part of the platform, and the libraries above it, return the outcome of a call as one
 * 32-bit number: 0 for success, anything else a failure or a warning. Bits 27..16 are the family of
 * the status; small plain numbers are error numbers of the threads library.
 *
 * Any thread may call these functions at any time; none of them allocates, fails, or changes errno.
 */
#ifndef PLATFORM_FAULT_H
#define PLATFORM_FAULT_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The family of a status: bits 27..16. */
#define FAULT_FAMILY(status) (((uint32_t)(status) >> 16) & 0xFFFu)

/* One status of the catalogue. All texts are constant and NUL-terminated. */
typedef struct fault_entry {
    uint32_t status;
    const char *name; /* the name in the headers, such as "KVS_RC_NO_SPACE" */
    const char *text; /* what happened, in lower case, without a full stop */
} fault_entry;

/*
 * Returns the text of a status, never null. Texts of known statuses and of error numbers are
 * constant; that of an unknown status ("unknown status 0x...") belongs to the calling thread and
 * lasts until its next call with an unknown one. The caller neither frees nor changes it.
 */
const char *fault_strerror(uint32_t status);

/* Returns the entry of a status in the catalogue, or null if the catalogue has none. */
const fault_entry *fault_find(uint32_t status);

/* Returns the catalogue, ordered by status; *count_p receives the number of entries. */
const fault_entry *fault_catalogue(size_t *count_p);

#ifdef __cplusplus
}
#endif

#endif
