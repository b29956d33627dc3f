/*
 * kvs.h - the record store: named databases of records, each found by the key it carries.
 *
 * A record is a run of bytes whose first four are its key, a 32-bit unsigned number. A database
 * holds at most one record a key. A record handle names one stored record and never another: once
 * that record is deleted the handle is refused, also when a new record has the same key. Handles
 * are plain values; they may be kept, copied, and handed to other threads and processes.
 *
 * Every function returns a 32-bit status, 0 for success (texts: fault_strerror in fault.h), and
 * writes its out-parameters on success only, unless documented otherwise. Where a failure has a
 * cause in the system below, one line in the debug category `platform` reports that cause.
 *
 * What holds, at any time:
 *  - Any number of threads and processes use one store at once. A read sees the last commit made
 *    before it, whole.
 *  - When a change returns 0 outside a batch it is on disk. A process killed at any instruction
 *    leaves a store that opens and holds every change that was acknowledged.
 *  - A forked child goes on using the store through the handles it inherited. A batch stays with
 *    the thread that began it; the child does not inherit it.
 *  - A full disk, a damaged file or a lack of memory gives a status; the store stays as it was, and
 *    works again when the cause is gone.
 *  - When the store's files are moved, replaced or deleted while processes use it, no change is
 *    acknowledged that is not in the file under the store's name: calls give KVS_RC_FILES_REPLACED.
 *    A changed data file is used by new processes only, since record handles that are kept could
 *    name other records in it. A lookup by key notices within a tenth of a second; reading a record
 *    by its handle does not.
 *  - Nothing is written into a file whose descriptor the program put in the place of one of the
 *    store's: calls give KVS_RC_DESCRIPTORS_LOST until a database is bound again.
 *
 * The store lives in the state directory: VS_STATE_DIR, else /var/lib/vs for root, else
 * $XDG_STATE_HOME/vs or ~/.local/state/vs. It is made with mode 0700 when it is missing. The
 * variables are looked up when a database is bound, and ignored in a set-user-ID process.
 */
#ifndef PLATFORM_KVS_H
#define PLATFORM_KVS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifndef KVS_HANDLE_TYPES
#define KVS_HANDLE_TYPES
typedef uint64_t kvs_hdl;     /* a database bound by this process; never 0 and never all ones */
typedef uint64_t kvs_rec_hdl; /* one stored record; never all ones */
#endif

/* clang-format off */
/* Mistakes of the caller. */
#define KVS_RC_NULL_ARG UINT32_C(0xA6960200) /* a required pointer is null */
#define KVS_RC_BAD_HDL UINT32_C(0xA6960400) /* no database of this process has this handle */
#define KVS_RC_BAD_KEY UINT32_C(0xA6960600) /* a key descriptor names no 4-byte key at offset 0 */
#define KVS_RC_KEY_CHANGED UINT32_C(0xA6960800) /* a write would change the record's key */
#define KVS_RC_BAD_OFFSET UINT32_C(0xA6960A00) /* a read or write starts beyond the record's end */
#define KVS_RC_BAD_NAME UINT32_C(0xA6960C00) /* a database name is empty or longer than 64 bytes */
#define KVS_RC_UNSUPPORTED UINT32_C(0xA6960E00) /* an argument requests what this store does not support */
#define KVS_RC_RECORD_TOO_BIG UINT32_C(0xA6961000) /* a record would be longer than 2^32 - 9 bytes */
#define KVS_RC_BATCH_ACTIVE UINT32_C(0xA6961200) /* the thread has a batch, which does not allow this */
#define KVS_RC_NO_BATCH UINT32_C(0xA6961400) /* the thread has no batch */

/* An insert of a record that is stored already, byte for byte: nothing to do. */
#define KVS_RC_TOLERATED_ON_INSERT UINT32_C(0xA6962A00)

/* The journal has no change that this reader has not read yet. */
#define KVS_RC_NO_CHANGE UINT32_C(0x46960200)

/* What the store found, or could not do. */
#define KVS_RC_NO_SUCH_DB UINT32_C(0xC6960200) /* no process has created a database of this name */
#define KVS_RC_NO_SUCH_RECORD UINT32_C(0xC6960400) /* the record of this handle is not stored any more */
#define KVS_RC_RECORD_EXISTS UINT32_C(0xC6960600) /* another record is stored under this key */
#define KVS_RC_NO_MEMORY UINT32_C(0xC6960800) /* a memory allocation failed */
#define KVS_RC_NO_SPACE UINT32_C(0xC6960A00) /* the disk, a quota or a file size limit is full */
#define KVS_RC_STATE_DIR UINT32_C(0xC6960C00) /* the state directory cannot be made or trusted */
#define KVS_RC_ACCESS UINT32_C(0xC6960E00) /* the store's files may not be opened */
#define KVS_RC_DAMAGED UINT32_C(0xC6961000) /* the store's file is damaged */
#define KVS_RC_IO UINT32_C(0xC6961200) /* a read or write of the store's file failed */
#define KVS_RC_READERS_FULL UINT32_C(0xC6961400) /* too many threads read the store at once */
#define KVS_RC_NO_DESCRIPTORS UINT32_C(0xC6961600) /* the process or system has no descriptor left */
#define KVS_RC_TOO_MANY_DBS UINT32_C(0xC6961800) /* the store or process holds no more databases */
#define KVS_RC_BATCH_FULL UINT32_C(0xC6961A00) /* the batch outgrew its room; abort, begin again */
#define KVS_RC_BATCH_BROKEN UINT32_C(0xC6961C00) /* a change in the batch failed; it can only abort */
#define KVS_RC_EXHAUSTED UINT32_C(0xC6961E00) /* the database has given out all its handles */
#define KVS_RC_OTHER_FORMAT UINT32_C(0xC6962000) /* the store's file was made by a version that keeps it differently */
#define KVS_RC_FILES_REPLACED UINT32_C(0xC6962200) /* the store's files were moved, replaced or deleted while in use */
#define KVS_RC_DESCRIPTORS_LOST UINT32_C(0xC6962400) /* the program closed descriptors of the store */
#define KVS_RC_NO_PROC UINT32_C(0xC6962600) /* /proc, which opening needs, is not mounted */
#define KVS_RC_OTHER_NAMESPACE UINT32_C(0xC6962800) /* processes of another PID namespace use the store */
/* clang-format on */

/*
 * Where a key is. To find a record: `key_p` points at the key. To insert one: `key_offset` is its
 * offset in the record. `key_flags` must be 0, `key_len` 4, `key_offset` 0.
 */
typedef struct kvs_key_attr {
    uint8_t key_flags[3];
    uint8_t reserved;
    uint32_t key_len;
    const void *key_p;
    uint64_t key_offset;
} kvs_key_attr;

/* A run of bytes in the caller's memory; the store keeps no pointer to it. */
typedef struct kvs_data_desc {
    const void *data_p;
    uint64_t data_len;
} kvs_data_desc;

/* How a database is to be bound. This store supports only one key a record and no further options.
 */
typedef struct kvs_appdesc {
    uint64_t mark; /* set by kvs_appdesc_init */
    uint32_t key_count;
    uint32_t reserved_12;
    uint32_t key_policy;
    uint32_t share_policy;
    uint32_t flags;
    uint32_t reserved_28;
    uint64_t notify;
    uint32_t notify_flags;
    uint32_t reserved_44;
    uint64_t context;
} kvs_appdesc;

/* Receives details of a write. This store has none and sets it to zeros. */
typedef struct kvs_write_result {
    uint64_t words[8];
} kvs_write_result;

/* Fills *appdesc_p with the store's defaults. */
uint32_t kvs_appdesc_init(kvs_appdesc *appdesc_p);

/*
 * Binds the named database for this process, creating the store and the database when they are
 * missing, and writes its handle to *hdl_p in one atomic store. Binding it again gives the same
 * handle. `evm` is not interpreted.
 */
uint32_t kvs_init(const char *db_name, const kvs_appdesc *appdesc_p, uint64_t evm, kvs_hdl *hdl_p);

/* As kvs_init, for a database that some process has created already; creates nothing. */
uint32_t kvs_lookup_db_handle(const char *db_name, kvs_hdl *hdl_p);

/*
 * Finds the record with the key of `keys_p[0]` (key_count 1), or every record in the order of the
 * keys (key_count 0; `keys_p` is ignored). *handles_pp receives an array from malloc, which
 * the caller frees, or null when there is none; *count_p its length. `flags` must be 0.
 */
uint32_t kvs_find_objects(kvs_hdl hdl, const kvs_key_attr *keys_p, uint32_t key_count,
                          uint32_t flags, kvs_rec_hdl **handles_pp, uint32_t *count_p);

/* Writes the stored record's length in bytes. */
uint32_t kvs_get_object_size(kvs_hdl hdl, const kvs_rec_hdl *rec_p, uint32_t *size_p);

/*
 * Copies the record from `offset` on into `buffer_p`. *length_p: in, the room in bytes; out, the
 * bytes copied. `buffer_p` may be null when the room is 0.
 */
uint32_t kvs_read_object(kvs_hdl hdl, const kvs_rec_hdl *rec_p, uint32_t offset, void *buffer_p,
                         uint32_t *length_p);

/*
 * Replaces the record's bytes from `offset` on by the described ones, in order; what lies beyond
 * them stays, and a write past the end lengthens the record. `offset` is at most the record's
 * length, and the key keeps its value. `value_p` is not interpreted; *result_p is set to zeros.
 */
uint32_t kvs_write_object(kvs_hdl hdl, const kvs_rec_hdl *rec_p, uint32_t offset,
                          const kvs_data_desc *data_p, uint32_t data_count, uint32_t *value_p,
                          kvs_write_result *result_p);

/*
 * Stores a new record and writes its handle. When a record with this key is stored already: byte
 * for byte the same gives KVS_RC_TOLERATED_ON_INSERT and the handle of the stored one, another
 * gives KVS_RC_RECORD_EXISTS and leaves both untouched. `key_count` is 1, both reserved numbers 0.
 */
uint32_t kvs_insert_object(kvs_hdl hdl, const kvs_data_desc *data_p, uint32_t data_count,
                           const kvs_key_attr *keys_p, uint32_t key_count, uint32_t reserved_1,
                           uint32_t reserved_2, kvs_rec_hdl *rec_p);

/* Removes the record. */
uint32_t kvs_delete_object(kvs_hdl hdl, const kvs_rec_hdl *rec_p);

/*
 * Reads the whole store that `hdl` is in, all of its databases, past the cache: the structure of
 * its file and the checksum of every record. Gives 0 if all is sound, KVS_RC_DAMAGED if it is not,
 * KVS_RC_OTHER_FORMAT, KVS_RC_BATCH_ACTIVE within a batch of the store, or the status of a failed
 * read.
 */
uint32_t kvs_verify(kvs_hdl hdl);

/* What kvs_salvage found of a database. */
typedef struct kvs_salvage_result {
    uint64_t salvaged; /* records handed out */
    uint64_t lost; /* records that the database has besides; KVS_SALVAGE_UNKNOWN if its file does
                      not say any more how many it has */
    uint64_t doubtful; /* of those handed out: may be older versions, or deleted since */
    uint64_t is_whole; /* 1 if nothing in the whole file is damaged, else 0 */
} kvs_salvage_result;

#define KVS_SALVAGE_UNKNOWN UINT64_MAX

/*
 * Reads what can be read of a database whose store is damaged: calls `each_p` with every record
 * whose checksum is right, in the order of the keys, one record a key. The bytes belong to the
 * store and are valid during the call, which may not cancel its thread or leave by a jump; a value
 * other than 0 ends the salvage, and the counts are then those of the part. Nothing is bound and no
 * handle needed, and the file is only read. It is not to be changed meanwhile: what another process
 * changes may be missing. A process that has bound a database of the store gets KVS_RC_UNSUPPORTED:
 * the end of the call would drop the locks that the process has on the file. Gives
 * KVS_RC_NO_SUCH_DB if there is no store; a name that is not found in the store is a database
 * without records.
 */
uint32_t kvs_salvage(const char *db_name,
                     int (*each_p)(const void *record_p, uint32_t length, void *context_p),
                     void *context_p, kvs_salvage_result *result_p);

/*
 * A batch makes many changes one durable commit. It belongs to the calling thread and covers all
 * databases of the store that `hdl` is in: the thread's reads see its changes, no other reads do
 * until the commit, and other writers wait meanwhile. A thread that ends, or a process that dies,
 * aborts its batch. Within a batch no database can be bound that is not bound already, and after a
 * change that failed half-way (KVS_RC_NO_SPACE, KVS_RC_BATCH_FULL and their like) every call gives
 * KVS_RC_BATCH_BROKEN until it is aborted. After KVS_RC_BATCH_FULL the next batch gets more room.
 *
 * Commit ends the batch, whatever it returns: all or nothing has been stored. Nothing has been
 * stored by a commit that gives KVS_RC_FILES_REPLACED or KVS_RC_DESCRIPTORS_LOST.
 */
uint32_t kvs_batch_begin(kvs_hdl hdl);
uint32_t kvs_batch_commit(void);
uint32_t kvs_batch_abort(void);

/*
 * Has `notice` called by a thread that has waited for another process for two seconds, and again
 * when another one is waited for or the one has stopped. `line`, which goes to the debug category
 * `platform` too, says since when the thread waits, and names the process and whether it is
 * stopped; control characters in the process's name are not replaced. The thread goes on waiting
 * when `notice` returns, which must not call this store. Null ends the calls. One setting serves
 * all threads, and a forked child keeps it.
 */
void kvs_set_wait_notice(void (*notice)(const char *line));

/*
 * The journal keeps the last changes of a store: of all its databases, in the order in which they
 * were committed, and numbered from 1 on without gaps. It is a ring: the oldest changes give way to
 * new ones. Its size in bytes is the VS_JOURNAL_SIZE (a number, or one with K or M behind it; 64K
 * to 64M, 1M if it is not set) of the process that makes the store. A change of usual records takes
 * about 250 bytes.
 */

/* The kinds of a change. */
#define KVS_CHANGE_INSERTED UINT32_C(1)
#define KVS_CHANGE_REPLACED UINT32_C(2)
#define KVS_CHANGE_DELETED UINT32_C(3)
/* All changes of a batch to one database; the batch was too long for the journal. */
#define KVS_CHANGE_SUMMARY UINT32_C(4)

typedef struct kvs_change {
    uint64_t sequence;    /* the change's number */
    uint64_t transaction; /* the same for all changes that were committed together */
    uint64_t time;        /* of the commit, in nanoseconds since 1970-01-01 UTC */
    uint64_t job;         /* the job id of the process that made it; 0 if it was no job */
    uint32_t pid;
    uint32_t user;         /* its real user id */
    const char *process_p; /* the name of its program, cut off after 31 bytes */
    const char *db_name_p; /* the database */
    kvs_rec_hdl handle;    /* the record; its lower half is the key. Of a summary: the first one */
    kvs_rec_hdl last_handle; /* of a summary: the last one; else the same */
    uint64_t count;          /* of a summary: the number of changes; else 1 */
    const void *old_p;       /* the record before it, or as much of it as was kept */
    const void *new_p;       /* the record after it; whole */
    uint32_t old_length;     /* of the whole record, in bytes; 0 if there was none */
    uint32_t old_kept;       /* the bytes at old_p: at most 4096, and 0 in a summary */
    uint32_t new_length;     /* 0 after a deletion, and in a summary */
    uint32_t kind;
} kvs_change;

/* A position in the journal of a store. One thread at a time may use it. */
typedef struct kvs_journal kvs_journal;

#define KVS_JOURNAL_OLDEST UINT64_C(0)
#define KVS_JOURNAL_NEXT UINT64_MAX /* what is committed from now on */

/*
 * Opens the journal of the store that `hdl` is in, to be read from the change numbered `first` on,
 * or from the oldest one kept if that is younger. The caller closes it.
 */
uint32_t kvs_journal_open(kvs_hdl hdl, uint64_t first, kvs_journal **journal_pp);

/*
 * Reads the next change. What *change_p points at is valid until the next call with this journal.
 * If its number is not the one after the last, those between have given way or are damaged. Gives
 * KVS_RC_NO_CHANGE at the end; later calls find what has been committed meanwhile.
 */
uint32_t kvs_journal_next(kvs_journal *journal_p, kvs_change *change_p);

/*
 * Waits until there is a change to read. Gives 0, or KVS_RC_NO_CHANGE after so many milliseconds or
 * when the thread has handled a signal. Sleeps meanwhile; a commit of any process wakes it.
 */
uint32_t kvs_journal_wait(kvs_journal *journal_p, uint32_t milliseconds);

/* Frees the journal; null is allowed. */
void kvs_journal_close(kvs_journal *journal_p);

#ifdef __cplusplus
}
#endif

#endif
