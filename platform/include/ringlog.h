/*
 * ringlog.h - trace buffers: the last records of every process, which survive its end.
 *
 * A trace buffer is a file of fixed-size slots below the state directory, mapped by each process
 * that opens it. Any number of threads and processes write to it at once, without a lock or an
 * allocation and, but for the first one of a process, without a system call; a record replaces the
 * oldest one if all slots are in use. A record has a 64-bit identifier,
 *
 *     bits 63..40   string mask: bit 40 + i is set when argument i is a string
 *     bits 39..32   number of arguments
 *     bits 31..0    message id
 *
 * and its arguments: numbers as they are, strings copied (cut where the slot ends).
 */
#ifndef PLATFORM_RINGLOG_H
#define PLATFORM_RINGLOG_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define RINGLOG_RC_NULL_ARG UINT32_C(0xA6970200)       /* a required pointer is null */
#define RINGLOG_RC_BAD_NAME UINT32_C(0xA6970400)       /* no usable name of a buffer */
#define RINGLOG_RC_BAD_SIZE UINT32_C(0xA6970600)       /* a sizing number is 0 or too large */
#define RINGLOG_RC_STATE_DIR UINT32_C(0xC6970800)      /* no usable state directory */
#define RINGLOG_RC_IO UINT32_C(0xC6970A00)             /* the file cannot be created or used */
#define RINGLOG_RC_NO_SPACE UINT32_C(0xC6970C00)       /* the disk has no space for the buffer */
#define RINGLOG_RC_TOO_MANY UINT32_C(0xC6970E00)       /* the process has 256 buffers open */
#define RINGLOG_RC_DAMAGED UINT32_C(0xC6971000)        /* the file is no whole trace buffer */
#define RINGLOG_RC_NO_SUCH_BUFFER UINT32_C(0xC6971200) /* no buffer has this name */
#define RINGLOG_RC_NO_MEMORY UINT32_C(0xC6971400)      /* a memory allocation failed */
#define RINGLOG_RC_NO_RECORD UINT32_C(0x46971600)      /* no record is left to read for now */

enum {
    RINGLOG_MAX_ARGS = 24,  /* arguments of a record, as many as the string mask has bits */
    RINGLOG_SLOT_SIZE = 256 /* bytes of a slot, a record's strings included */
};

/* ---- writing ---- */

/*
 * Opens the named buffer, creates it if there is none, and writes its handle (never 0) to
 * *handle_p, in one atomic store. Opening a buffer that the process has open gives the same handle
 * again; the handles of the parent stay valid in a forked child.
 *
 * `name` is a path below the folder of the buffers: components separated by single '/', each of 1
 * to 240 bytes and not beginning with '.'. The smaller of the two sizing numbers is the number of
 * records kept, the larger the least number of bytes for their contents. An existing buffer keeps
 * its own sizes; the file of a damaged one gets ".damaged" appended to its name, and a new buffer
 * is created. The three reserved numbers are not interpreted.
 *
 * Where there is no space for a new buffer (a full disk, a quota, a limit on the size of files) the
 * call succeeds all the same, after a debug print: a service goes on without its trace. Records of
 * that handle are dropped; a later call tries again.
 *
 * The creation of a buffer keeps the allocated bytes of all buffers below a limit, 64 MB or what
 * VS_RINGLOG_LIMIT gives (bytes, or a number with K, M or G behind it): beyond it, the buffers that
 * no process has open are removed, those with the oldest last record first, until a quarter of the
 * limit is free. A buffer in use is never removed, even if the limit is exceeded thereby. The files
 * of damaged buffers count too.
 *
 * The first call that maps a buffer installs a handler of SIGBUS, for faults in buffers that are
 * cut short; any other SIGBUS is passed to the action that was set before.
 */
uint32_t ringlog_init2(const char *name, uint32_t reserved_1, uint32_t reserved_2, uint32_t size_1,
                       uint32_t size_2, uint32_t reserved_3, uint64_t *handle_p);

/*
 * Writes one record. As many 64-bit arguments follow as `id` contains; a string argument is the
 * address of NUL-terminated text, or 0. With handle 0, or an unknown one, the record is dropped.
 * Safe in any thread and in a signal handler; does not change errno.
 *
 * The first record allocates the disk space of all slots. While the disk is full, records are
 * dropped; readers count them as skipped.
 */
void _ringlog_emit(uint64_t handle, uint64_t id, ...);

/* ---- reading ---- */

typedef struct ringlog_argument {
    uint64_t number;  /* the value of a number; 0 for a string */
    const char *text; /* the text of a string, inside the record; null for a number */
} ringlog_argument;

typedef struct ringlog_record {
    uint64_t sequence; /* position in its buffer, counting from 0 at the buffer's creation */
    uint64_t time_ns;  /* CLOCK_REALTIME when the record was written */
    uint64_t id;       /* the trace identifier */
    int32_t pid;
    int32_t tid;
    char process[16]; /* short name of the process, NUL-terminated */
    uint32_t argument_count;
    ringlog_argument arguments[RINGLOG_MAX_ARGS];
    char strings[RINGLOG_SLOT_SIZE + RINGLOG_MAX_ARGS];
} ringlog_record;

typedef struct ringlog_reader ringlog_reader;

/*
 * Opens a buffer for reading; on success the caller releases *reader_pp with ringlog_close. A
 * reader never changes the buffer. It is used by one thread at a time.
 */
uint32_t ringlog_open(const char *name, ringlog_reader **reader_pp);

/*
 * Reads the next record, oldest first, and advances. Records that were overwritten before or
 * while they were read are skipped, never returned torn. Returns RINGLOG_RC_NO_RECORD if the
 * reader has caught up (more may follow), RINGLOG_RC_DAMAGED if the buffer's file has been damaged
 * or cut short since it was opened. `record_p` is untouched unless the status is 0.
 */
uint32_t ringlog_read(ringlog_reader *reader, ringlog_record *record_p);

/* Returns the number of records skipped so far because they were overwritten or torn. */
uint64_t ringlog_skipped(const ringlog_reader *reader);

void ringlog_close(ringlog_reader *reader);

/*
 * Calls `each` with the name of every file below the folder of the buffers, in the order of the
 * names, until it returns non-zero. A state directory without buffers is no failure.
 */
uint32_t ringlog_list(int (*each)(const char *name, void *context), void *context);

#ifdef __cplusplus
}
#endif

#endif
