/* clang-format off */
/*
 * vs_kvs.h - the persistent state of the version-selection service.
 *
 * Three small databases in the platform's record store:
 *
 *   vs_objects           for each VS object the version selected among those it supports
 *   vs_clients_info      for each VS object the client processes that use it
 *   vs_clientobjectsreg  for each client job the VS objects it registered for
 *
 * The library owns no thread, no timer and no file, and it does not keep the three databases
 * consistent with each other: deleting a VS object leaves its clients and registrations in place.
 *
 * What holds for every operation
 *
 *   Status   Each operation returns 0 or a status. Beside the statuses listed with an operation it
 *            may return one of the record store (KVS_RC_*, texts from fault_strerror), unchanged.
 *   Results  Out-parameters are written when the status is 0 and left alone otherwise. Their names
 *            carry the level of indirection: _p receives a value, _pp a pointer, _ppp an array of
 *            pointers.
 *   Memory   What an operation hands out is a block from malloc, exactly as long as stored, that
 *            the caller releases with free. Nothing the caller passes in is kept. A failed
 *            operation has released everything it allocated.
 *   Checks   Pointers first, then ids, then the database handle, then the store; the first that
 *            fails decides the status. An operation looks its database up by name on first use, so
 *            it works in a process that never called vs_kvs_initialize, only without trace buffers
 *            of its own.
 *   Changes  A change of a stored record reads it, changes the copy, writes it back and reads it
 *            again to verify the changed field. A failed verification does not undo the write.
 *   Threads  Any thread may call any operation at any time, except where said. No lock is held
 *            between the steps: of two changes of one record at once one may be lost, which the
 *            verification notices only where it touches the verified field.
 *   Reports  Failures leave trace records, and so do most completions; every step makes a debug
 *            print. Neither changes an outcome.
 *
 * All numbers are in the host's byte order.
 */
#ifndef VS_KVS_H
#define VS_KVS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifdef __GNUC__
#pragma GCC visibility push(default) /* what is declared here is what the library exports */
#endif

#ifndef KVS_HANDLE_TYPES
#define KVS_HANDLE_TYPES
typedef uint64_t kvs_hdl;     /* a database of the record store */
typedef uint64_t kvs_rec_hdl; /* one stored record */
#endif

struct kvs_key_attr; /* the store's key descriptor, kvs.h */

/* ---- statuses ---- */

#define VS_FAULT_NULL_ARG UINT32_C(0xA5320200) /* a required pointer is null */
#define VS_FAULT_NAME_TOO_LONG UINT32_C(0xA5320400) /* process name longer than 64 characters */
#define VS_FAULT_KVS_DB_LOOKUP UINT32_C(0xA5322800) /* a database is not available */
#define VS_FAULT_NO_MEMORY UINT32_C(0xC5321000) /* a memory allocation failed */
#define VS_FAULT_NO_SUCH_OBJECT UINT32_C(0xC5322600) /* no record for this VS object id */
#define VS_FAULT_INVALID_OBJECT_ID UINT32_C(0xC5322C00) /* VS object id 0 */
#define VS_FAULT_KVS_READ_NULL_REC UINT32_C(0xC5322E00) /* a stored record is empty or too short */
#define VS_FAULT_KVS_MULTI_REC_HDL UINT32_C(0xC5323200) /* more than one record with this key */
#define VS_FAULT_INVALID_CLIENT_JID UINT32_C(0xC5323400) /* job id 0, or no client with it */
#define VS_FAULT_KVS_REG_NOT_EXIST UINT32_C(0xC5323600) /* the registration does not exist */
#define VS_FAULT_KVS_REG_ALREADY_EXIST UINT32_C(0xC5323800) /* the VS object is registered already */
#define VS_FAULT_KVS_UPDATE_SANITY UINT32_C(0xC5323A00) /* read back, an update does not show */
#define VS_FAULT_KVS_ADD_SANITY UINT32_C(0xC5323C00) /* read back, an added entry does not show */
#define VS_FAULT_KVS_INVALID_HDL UINT32_C(0xC5323E00) /* a database was opened without a handle */
#define VS_FAULT_KVS_CLIENT_ALREADY_EXIST UINT32_C(0xC5324000) /* the client's job id is listed already */
#define VS_FAULT_KVS_UNKNOWN_DB UINT32_C(0x45321600) /* no such database selector */
#define VS_FAULT_KVS_DB_EMPTY UINT32_C(0x45323000) /* a listing found no record: a warning */

#define VS_KVS_DB_ALREADY_OPEN UINT32_C(21) /* the selected database is open */
/* clang-format on */

/* The value of a database handle that is not held yet. */
#define VS_KVS_HDL_UNSET UINT64_MAX

/* Database selectors. */
#define VS_KVS_DB_OBJECTS UINT32_C(0)
#define VS_KVS_DB_CLIENTS_INFO UINT32_C(1)
#define VS_KVS_DB_CLIENT_OBJECTS_REG UINT32_C(2)

/* ---- records ---- */

#if defined(__cplusplus) && defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic" /* arrays at the end of a record are C, not C++ */
#endif

/* A VS object; 24 + 4 * supp_count bytes. Key: vs_object_id, never 0. */
typedef struct vs_objects_kvs_rec {
    uint32_t vs_object_id;
    uint32_t selected_version;
    uint32_t is_optional_compatible; /* this and the next two are stored, not interpreted */
    uint32_t scope;
    uint32_t is_changed;
    uint32_t supp_count;
    uint32_t supp_versions[];
} vs_objects_kvs_rec;

/* A client process that uses a VS object; 20 bytes. */
typedef struct vs_client_info_entry {
    uint32_t jid;
    uint32_t pid;
    uint8_t client_data[12]; /* the caller's; copied, never read */
} vs_client_info_entry;

/* The clients of a VS object; 8 + 20 * clients_count bytes. Key: vs_object_id. */
typedef struct vs_clients_info_kvs_rec {
    uint32_t vs_object_id;
    uint32_t clients_count;
    vs_client_info_entry clients[]; /* in the order in which they were added */
} vs_clients_info_kvs_rec;

/* The VS objects that a client job registered for; 8 + 4 * vs_count bytes. Key: jid. */
typedef struct vs_client_objects_reg_kvs_rec {
    uint32_t jid;
    uint32_t vs_count;
    uint32_t vs_array[]; /* in the order in which they were added */
} vs_client_objects_reg_kvs_rec;

#if defined(__cplusplus) && defined(__GNUC__)
#pragma GCC diagnostic pop
#endif

/* One element of a bulk operation; 16 bytes. */
typedef struct vs_object_sel_entry {
    uint32_t vs_object_id;
    uint32_t selected_version;
    uint32_t caller_data[2]; /* not read */
} vs_object_sel_entry;

/* ---- exported words ----
 *
 * For debuggers and for calls to the record store. The library sets each of them once; nothing else
 * may change them.
 */

extern kvs_hdl g_kvs_hdl_vs_objects_db; /* VS_KVS_HDL_UNSET until the database is bound */
extern kvs_hdl g_kvs_hdl_vs_clients_info_db;
extern kvs_hdl g_kvs_hdl_vs_client_objects_reg_db;

extern uint64_t vs_ringlog; /* trace buffer "install/vs/vs", opened at load; 0 if it is not open */
extern uint64_t vs_kvs_api_trace;            /* trace buffer "install/vs/kvs/<job id>/api" */
extern uint64_t vs_kvs_errors_trace;         /* trace buffer "install/vs/kvs/<job id>/errors" */
extern uint64_t *g_vs_kvs_ringlog_buffer[2]; /* where the api and the errors handle are */
extern char *g_vs_kvs_proc_name;             /* the process's short name; null before the set-up */
extern uint32_t dummy_unused_var;            /* set to 0 by the load and unload hooks */

/* ---- start-up ---- */

/*
 * Opens the three databases in the order of their selectors, creating what is missing, with up to 3
 * attempts for each and a pause of one second between attempts. Called once in a process, before
 * its other calls. `evm` is the platform handle, handed on to the store and the debug prints.
 *
 * Returns the status of the last attempt for the database that could not be opened; databases
 * opened before it stay open, later ones are not attempted. A second call finds database 0 open and
 * returns VS_KVS_DB_ALREADY_OPEN, after its retries. Failures are also written to standard error.
 *
 * Without it, or after it failed, every other operation opens the database that it needs on demand,
 * if some process has created it; only the bulk operations are refused (VS_FAULT_KVS_DB_LOOKUP)
 * until it has succeeded. A call that comes after such an operation finds that database open, and
 * returns VS_KVS_DB_ALREADY_OPEN: a process that failed to initialise goes on without it, or starts
 * anew.
 *
 * Two threads that call it at once do no harm, but each database is opened by one of them and the
 * other may get VS_KVS_DB_ALREADY_OPEN.
 */
uint32_t vs_kvs_initialize(uint64_t evm);

/*
 * Opens one database, after the debug set-up if that has not been done in this process. Whether the
 * database is open is looked up before the set-up. Threads as for vs_kvs_initialize.
 *
 *   VS_KVS_DB_ALREADY_OPEN    its handle is set already
 *   VS_FAULT_KVS_UNKNOWN_DB   the selector is none of VS_KVS_DB_*
 *   VS_FAULT_KVS_INVALID_HDL  the store reported success and gave no handle
 *   any status of vs_kvs_debug_init
 */
uint32_t vs_kvs_db_init(uint64_t evm, uint32_t vs_kvs_db_en);

/* 1 once vs_kvs_insert_vs_objects has succeeded in this process, else 0, whatever is stored. */
uint32_t vs_kvs_is_populated(void);

/*
 * The per-process debug set-up: finds the process's job id and short name, opens its api and errors
 * trace buffers, and prepares the debug prints. One thread runs it at a time, others wait; each
 * call repeats every step. What earlier steps set stays in place when a later one fails. A fork
 * waits for a set-up that runs; the child may run its own.
 *
 *   VS_FAULT_NO_MEMORY      no room for the process's name
 *   VS_FAULT_NAME_TOO_LONG  the last component of the process's name has more than 64 characters
 *   an error number         the mutex could not be locked
 *   a status of the process information, of the trace facility (errors buffer only; without an api
 *   buffer the set-up goes on) or of the debug prints
 *
 * Failures are written to standard error.
 */
uint32_t vs_kvs_debug_init(uint64_t evm);

/* Opens the api and errors trace buffers of a job; the last steps of vs_kvs_debug_init but one. Not
 * to be called by two threads at once. Returns the trace facility's status for the errors buffer.
 */
uint32_t vs_kvs_ringlog_init(int32_t job_id);

/*
 * Fill the key descriptor with which a database's records are inserted: no flags, 4 bytes at offset
 * 0. `key_p` is left as it is; the key value is not used, since the key lies in the record.
 */
void set_vs_objects_kvs_db_pk_attr(struct kvs_key_attr *key_attr_p, uint32_t key);
void set_vs_clients_info_kvs_db_pk_attr(struct kvs_key_attr *key_attr_p, uint32_t key);
void set_vs_client_objects_reg_kvs_db_pk_attr(struct kvs_key_attr *key_attr_p, uint32_t key);

/* ---- VS objects ----
 *
 * Every operation here may return VS_FAULT_KVS_DB_LOOKUP when the database is not there.
 */

/*
 * Stores a new VS object. Only the first supp_count versions are stored, also when the caller's
 * block holds more. *vs_kvs_rec_hdl_p (required, not tested) receives the record's handle, all ones
 * if the store gave none. Storing a record that is stored already, byte for byte, succeeds.
 *
 *   VS_FAULT_NULL_ARG           no record
 *   VS_FAULT_INVALID_OBJECT_ID  its id is 0
 *   VS_FAULT_NO_MEMORY          no memory, or a length beyond 32 bits
 *   KVS_RC_RECORD_EXISTS        another record has this id; it stays
 */
uint32_t vs_kvs_insert_vs_object_rec(const vs_objects_kvs_rec *vs_object_kvs_rec_p,
                                     kvs_rec_hdl *vs_kvs_rec_hdl_p);

/*
 * Reads one VS object into a block that the caller frees. A stored record of length 0 gives 0 and a
 * null record.
 *
 *   VS_FAULT_NULL_ARG           no out-parameter
 *   VS_FAULT_INVALID_OBJECT_ID  id 0
 *   VS_FAULT_NO_SUCH_OBJECT     no record
 *   VS_FAULT_KVS_MULTI_REC_HDL  more than one record
 *   VS_FAULT_KVS_READ_NULL_REC  the record is shorter than its supp_count says
 *   VS_FAULT_NO_MEMORY
 */
uint32_t vs_kvs_get_vs_object_rec(uint32_t vs_object_id, vs_objects_kvs_rec **vs_object_kvs_rec_pp);

/*
 * Reads all VS objects, or none, in the store's order. The caller frees each record and then the
 * array. Records that come or go during the call: one that goes makes it fail with the store's
 * status, one that comes is not included.
 *
 *   VS_FAULT_NULL_ARG           no out-parameter
 *   VS_FAULT_KVS_DB_EMPTY       nothing stored
 *   VS_FAULT_KVS_READ_NULL_REC  a record is empty, or shorter than its supp_count says
 *   VS_FAULT_NO_MEMORY
 */
uint32_t vs_kvs_get_vs_objects_all_recs(uint32_t *vs_objects_kvs_recs_count_p,
                                        vs_objects_kvs_rec ***vs_objects_kvs_recs_ppp);

/*
 * Selects a version, which need not be among the supported ones, and verifies it by reading it
 * back. Writes the first 24 bytes of the record, as they were read but for selected_version; the
 * supported versions are not written.
 *
 *   VS_FAULT_INVALID_OBJECT_ID  id 0
 *   VS_FAULT_NO_SUCH_OBJECT     no record
 *   VS_FAULT_KVS_MULTI_REC_HDL  more than one record
 *   VS_FAULT_KVS_READ_NULL_REC  the record is empty or too short, before or after the write
 *   VS_FAULT_KVS_UPDATE_SANITY  written, but read back with another version
 *   VS_FAULT_NO_MEMORY
 */
uint32_t vs_kvs_update_vs_object_selected_version(uint32_t vs_object_id, uint32_t selected_version);

/*
 * Stores vs_count new VS objects from parallel arrays (is_optional_compatible and scope 0,
 * is_changed 1) and, when all are stored, marks the database populated; also for vs_count 0, when
 * the arrays may be null. versions_array_array[i] holds versions_count_array[i] supported versions,
 * and is not looked at when that count is 0.
 *
 * Stops at the first failure: the records before it stay stored, the mark stays as it was.
 *
 *   VS_FAULT_KVS_DB_LOOKUP  vs_kvs_initialize has not succeeded in this process
 *   VS_FAULT_NULL_ARG       an array is null and vs_count is not 0
 *   any status of vs_kvs_insert_vs_object_rec
 */
uint32_t vs_kvs_insert_vs_objects(const vs_object_sel_entry *vs_array, uint32_t vs_count,
                                  const uint32_t *const *versions_array_array,
                                  const uint32_t *versions_count_array);

/*
 * Selects versions in bulk, verifying each. An element without a record is skipped with a warning
 * in the trace. Stops at the first other failure; the elements before it stay updated. vs_count 0
 * does nothing.
 *
 *   VS_FAULT_KVS_DB_LOOKUP  vs_kvs_initialize has not succeeded in this process
 *   VS_FAULT_NULL_ARG       no array, and vs_count is not 0
 *   any status of vs_kvs_update_vs_object_selected_version but VS_FAULT_NO_SUCH_OBJECT
 */
uint32_t vs_kvs_update_vs_objects(const vs_object_sel_entry *vs_array, uint32_t vs_count);

/*
 * Deletes one VS object. Its clients and registrations stay.
 *
 *   VS_FAULT_INVALID_OBJECT_ID  id 0
 *   VS_FAULT_NO_SUCH_OBJECT     no record
 *   VS_FAULT_KVS_MULTI_REC_HDL  more than one record; none is deleted
 */
uint32_t vs_kvs_delete_vs_object(uint32_t vs_object_id);

/* ---- clients of a VS object ----
 *
 * Every operation here may return VS_FAULT_KVS_DB_LOOKUP when the database is not there. A client
 * is known by its jid alone.
 */

/*
 * Stores the client list of a VS object, which may be empty. Neither the id nor the entries are
 * examined. Out-parameter and statuses as for vs_kvs_insert_vs_object_rec, but for the id.
 *
 *   VS_FAULT_NULL_ARG     no record
 *   VS_FAULT_NO_MEMORY    no memory, or a length beyond 32 bits
 *   KVS_RC_RECORD_EXISTS  another list is stored for this id; it stays
 */
uint32_t vs_kvs_insert_clients_info_rec(const vs_clients_info_kvs_rec *vs_clients_info_kvs_rec,
                                        kvs_rec_hdl *vs_kvs_rec_hdl_p);

/*
 * Reads the client list of a VS object into a block that the caller frees. A stored record of
 * length 0 gives 0 and a null record.
 *
 *   VS_FAULT_NULL_ARG           no out-parameter
 *   VS_FAULT_INVALID_OBJECT_ID  id 0
 *   VS_FAULT_KVS_REG_NOT_EXIST  the VS object is stored but has no client list
 *   VS_FAULT_NO_SUCH_OBJECT     neither is stored
 *   VS_FAULT_KVS_MULTI_REC_HDL  more than one record
 *   VS_FAULT_KVS_READ_NULL_REC  the record is shorter than its clients_count says, or there is no
 *                               list and the VS object's record is of length 0
 *   VS_FAULT_NO_MEMORY
 *   any status of vs_kvs_get_vs_object_rec, when there is no list
 */
uint32_t vs_kvs_get_clients_info_rec(uint32_t vs_object_id,
                                     vs_clients_info_kvs_rec **vs_clients_info_kvs_rec_pp);

/* Reads all client lists, or none; as vs_kvs_get_vs_objects_all_recs, with the same statuses. */
uint32_t vs_kvs_get_clients_info_all_recs(uint32_t *vs_clients_info_kvs_recs_count_p,
                                          vs_clients_info_kvs_rec ***vs_clients_info_kvs_recs_ppp);

/*
 * Adds a client at the end of a VS object's list, which must exist, and verifies its jid there.
 *
 *   VS_FAULT_NULL_ARG                  no client
 *   VS_FAULT_INVALID_OBJECT_ID         id 0
 *   VS_FAULT_NO_SUCH_OBJECT            no list
 *   VS_FAULT_KVS_CLIENT_ALREADY_EXIST  a client with this jid is listed; nothing is written
 *   VS_FAULT_KVS_READ_NULL_REC         the list is empty or too short, before or after the write
 *   VS_FAULT_KVS_REG_NOT_EXIST         the list was deleted meanwhile, and its VS object is stored
 *   VS_FAULT_KVS_ADD_SANITY            written, but another jid, or none, is read back in its place
 *   VS_FAULT_KVS_MULTI_REC_HDL         more than one record
 *   VS_FAULT_NO_MEMORY                 no memory, or the list would outgrow 32 bits
 */
uint32_t vs_kvs_add_new_client_info(uint32_t vs_object_id, const vs_client_info_entry *new_client);

/*
 * Replaces the first client that has new_client's jid, all 20 bytes of it, and verifies its pid.
 * The record is written as long as it is stored, but never longer than it was read.
 *
 *   VS_FAULT_NULL_ARG            no client
 *   VS_FAULT_INVALID_OBJECT_ID   id 0
 *   VS_FAULT_NO_SUCH_OBJECT      no list
 *   VS_FAULT_INVALID_CLIENT_JID  no client with this jid; nothing is written
 *   VS_FAULT_KVS_READ_NULL_REC   the list is too short, or empty after the write
 *   VS_FAULT_KVS_REG_NOT_EXIST   the list was deleted meanwhile, and its VS object is stored
 *   VS_FAULT_KVS_UPDATE_SANITY   written, but another pid, or none, is read back in its place
 *   VS_FAULT_KVS_MULTI_REC_HDL   more than one record
 *   VS_FAULT_NO_MEMORY
 */
uint32_t vs_kvs_update_client_info(uint32_t vs_object_id, const vs_client_info_entry *new_client);

/*
 * Deletes the client list of a VS object.
 *
 *   VS_FAULT_INVALID_OBJECT_ID  id 0
 *   VS_FAULT_NO_SUCH_OBJECT     no list
 *   VS_FAULT_KVS_MULTI_REC_HDL  more than one record; none is deleted
 */
uint32_t vs_kvs_delete_clients_info_rec(uint32_t vs_object_id);

/* ---- registrations of a client job ----
 *
 * Every operation here may return VS_FAULT_KVS_DB_LOOKUP when the database is not there. No
 * operation removes a registration.
 */

/*
 * Stores the registration of a job, which may be empty. Neither the jid nor the entries are
 * examined; one stored with jid 0 is seen by the listing only. Out-parameter and statuses as for
 * vs_kvs_insert_clients_info_rec.
 */
uint32_t vs_kvs_insert_client_objects_reg_rec(const vs_client_objects_reg_kvs_rec *vs_kvs_rec_p,
                                              kvs_rec_hdl *vs_kvs_rec_hdl_p);

/*
 * Reads the registration of a job into a block that the caller frees. A stored record of length 0
 * gives 0 and a null record.
 *
 *   VS_FAULT_NULL_ARG            no out-parameter
 *   VS_FAULT_INVALID_CLIENT_JID  jid 0
 *   VS_FAULT_KVS_REG_NOT_EXIST   no record
 *   VS_FAULT_KVS_MULTI_REC_HDL   more than one record
 *   VS_FAULT_KVS_READ_NULL_REC   the record is shorter than its vs_count says
 *   VS_FAULT_NO_MEMORY
 */
uint32_t vs_kvs_get_client_objects_reg_rec(uint32_t jid,
                                           vs_client_objects_reg_kvs_rec **vs_kvs_rec_pp);

/*
 * Finds the record handle of a job's registration, for calls to the record store.
 * *vs_kvs_rec_hdl_pp receives an array of one handle, which the caller frees.
 *
 *   VS_FAULT_NULL_ARG            no out-parameter
 *   VS_FAULT_INVALID_CLIENT_JID  jid 0
 *   VS_FAULT_KVS_REG_NOT_EXIST   no record
 *   VS_FAULT_KVS_MULTI_REC_HDL   more than one record
 */
uint32_t vs_kvs_get_client_objects_reg_rec_hdl(uint32_t jid, kvs_rec_hdl **vs_kvs_rec_hdl_pp);

/* Reads all registrations, or none; as vs_kvs_get_vs_objects_all_recs, with the same statuses. */
uint32_t vs_kvs_get_client_objects_reg_all_recs(
    uint32_t *vs_client_objects_reg_kvs_recs_count_p,
    vs_client_objects_reg_kvs_rec ***vs_client_objects_reg_kvs_recs_ppp);

/*
 * Adds a VS object at the end of a job's registration, which must exist, and verifies it there.
 *
 *   VS_FAULT_INVALID_OBJECT_ID      VS object id 0, whatever the jid
 *   VS_FAULT_INVALID_CLIENT_JID     jid 0
 *   VS_FAULT_KVS_REG_NOT_EXIST      no registration
 *   VS_FAULT_KVS_REG_ALREADY_EXIST  registered already; nothing is written
 *   VS_FAULT_KVS_READ_NULL_REC      the record is too short, or empty after the write
 *   VS_FAULT_KVS_ADD_SANITY         written, but another id, or none, is read back in its place
 *   VS_FAULT_KVS_MULTI_REC_HDL      more than one record
 *   VS_FAULT_NO_MEMORY              no memory, or the registration would outgrow 32 bits
 */
uint32_t vs_kvs_add_new_client_objects_reg_object(uint32_t jid, uint32_t vs_object_id);

#ifdef __GNUC__
#pragma GCC visibility pop
#endif

#ifdef __cplusplus
}
#endif

#endif
