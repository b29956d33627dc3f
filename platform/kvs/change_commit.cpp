#include "platform/kvs/change_commit.h"

#include "jobctl.h"
#include "platform/base/clock.h"
#include "platform/kvs/commit_wait.h"
#include "platform/kvs/data_file.h"
#include "platform/kvs/engine_status.h"
#include "platform/kvs/engine_transactions.h"
#include "platform/kvs/environment_info.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace platform {
namespace {

[[nodiscard]] int find_area(store &store, const environment_info &info)
{
    MDB_txn *snapshot = nullptr;
    int error = begin_read(store.environment, &snapshot);
    while (error == MDB_MAP_RESIZED && (error = mdb_env_set_mapsize(store.environment, 0)) == 0)
        error = begin_read(store.environment, &snapshot);
    if (error != 0)
        return error;
    error = find_journal(snapshot, info, &store.journal.area);
    mdb_txn_abort(snapshot);
    return error;
}

change_author this_process()
{
    change_author author{};
    uint32_t job = 0;
    if (jobctl_get_job_id(&job) == 0)
        author.job = job;
    author.pid = static_cast<uint32_t>(getpid());
    author.user = getuid();
    strncpy(author.process, program_invocation_short_name, sizeof author.process - 1);
    return author;
}

void set_header_flush(MDB_env *environment, bool on)
{
    static_cast<void>(mdb_env_set_flags(environment, MDB_NOMETASYNC, on ? 0 : 1));
}

[[nodiscard]] int commit(store &store, MDB_txn *txn, bool flush_header)
{
    const size_t transaction = mdb_txn_id(txn);
    set_header_flush(store.environment, flush_header);
    const int error = cause_of_failed_write(store.environment, mdb_txn_commit(txn));
    if (error == 0)
        wake_waiting_readers(store.commit_numbers(), transaction);
    return error;
}

// Returns interrupted_commit if the journal has commits that the engine does not have. They may
// come to nothing, so the end is unknown then.
[[nodiscard]] int check_interrupted(store &store, int fd, uint64_t last_commit)
{
    store_journal &journal = store.journal;
    if (const int error = find_end(fd, journal.area, last_commit, &journal.end); error != 0)
        return error;
    if (journal.end.last_transaction <= last_commit)
        return 0;
    journal.end = {};
    return interrupted_commit;
}

[[nodiscard]] int apply_entry(MDB_txn *txn, const unsigned char *entry)
{
    entry_header header;
    memcpy(&header, entry, sizeof header);
    size_t offset = sizeof header;
    for (uint32_t left = header.change_count; left != 0; --left) {
        journal_change change;
        if (!next_change(entry, &offset, &change))
            return MDB_CORRUPTED;
        if (const int error = apply_change(txn, change); error != 0)
            return error;
    }
    return 0;
}

[[nodiscard]] int find_entry(const journal_area &area, const unsigned char *ring, uint64_t commit,
                             uint64_t *found, entry_header *header)
{
    *found = 0;
    for_each_entry(area, ring, [&](uint64_t offset, const entry_header &entry) {
        if (entry.transaction != commit)
            return;
        *found = offset;
        *header = entry;
    });
    return *found != 0 ? 0 : MDB_CORRUPTED;
}

// Removes the entry of a commit that failed, maybe because of a flush, which may have lost the
// header of the commit before it then.
[[nodiscard]] int strike(store_journal &journal, const environment_info &info, uint64_t offset,
                         uint64_t commit)
{
    journal.end = {};
    int error = rewrite_header(info, commit - 1);
    const int failed = strike_entry(info.fd, journal.area, offset);
    error = error != 0 ? error : failed;
    journal.failed_commit = error != 0 ? commit : 0;
    journal.failed_offset = offset;
    return error;
}

// Does what could not be done when a commit failed, unless the commit has been made since.
[[nodiscard]] int strike_failed(store_journal &journal, const environment_info &info,
                                uint64_t next_commit)
{
    if (journal.failed_commit == next_commit)
        return strike(journal, info, journal.failed_offset, next_commit);
    journal.failed_commit = 0;
    return 0;
}

// Closes the databases that only an entry named.
void close_unbound(store &store)
{
    const database *const first = store.databases, *const end = first + store.database_count;
    for (MDB_dbi dbi = first_named_database; dbi < first_named_database + open_database_limit;
         ++dbi)
        if (std::none_of(first, end, [&](const database &bound) { return bound.tree.dbi == dbi; }))
            mdb_dbi_close(store.environment, dbi);
}

// Finishes the commit that the transaction is the second attempt at, or removes its entry if the
// commit had failed, or if the entry is a summary, which says too little: that commit was never
// acknowledged, since its header is missing. Ends the transaction.
[[nodiscard]] int finish_commit(store &store, const environment_info &info, MDB_txn *txn)
{
    store_journal &journal = store.journal;
    const size_t commit_number = mdb_txn_id(txn);
    block<unsigned char> ring;
    uint64_t offset = 0;
    entry_header header{};
    int error = copy_ring(info.fd, journal.area, &ring);
    if (error == 0)
        error = find_entry(journal.area, ring.get(), commit_number, &offset, &header);
    const bool is_void = header.is_summary != 0 || journal.failed_commit == commit_number;
    if (error == 0 && !is_void)
        error = apply_entry(txn, ring.get() + offset);
    if (error == 0 && !is_void) {
        error = commit(store, txn, false);
        close_unbound(store);
        return error;
    }
    mdb_txn_abort(txn);
    return error != 0 ? error : strike(journal, info, offset, commit_number);
}

// Finishes one commit, under the writers' lock. Returns interrupted_commit if there may be another.
[[nodiscard]] int finish_next_commit(store &store)
{
    environment_info info;
    MDB_txn *txn = nullptr;
    if (const int error = get_environment_info(store.environment, &info); error != 0)
        return error;
    int error = begin_write_at_once(store.environment, &txn);
    if (error != 0)
        return error;
    error = check_interrupted(store, info.fd, mdb_txn_id(txn) - 1);
    if (error != interrupted_commit)
        mdb_txn_abort(txn);
    else if ((error = finish_commit(store, info, txn)) == 0)
        error = interrupted_commit;
    release_writer_lock(store.environment);
    return error;
}

// Makes room for what an interrupted commit or another process has added.
[[nodiscard]] int enlarge_map_for(MDB_env *environment, int error)
{
    environment_info info;
    if (error == MDB_MAP_RESIZED)
        return mdb_env_set_mapsize(environment, 0);
    error = get_environment_info(environment, &info);
    return error != 0 ? error : mdb_env_set_mapsize(environment, 2 * info.map_size);
}

} // namespace

int finish_interrupted_commits(store &store)
{
    int error = interrupted_commit;
    while (error == interrupted_commit) {
        error = finish_next_commit(store);
        if ((error == MDB_MAP_FULL || error == MDB_MAP_RESIZED) &&
            (error = enlarge_map_for(store.environment, error)) == 0)
            error = interrupted_commit;
    }
    return error == writer_is_busy ? 0 : error;
}

int open_journal(store &store)
{
    environment_info info;
    store.journal.end = {};
    store.journal.author = this_process();
    int error = get_environment_info(store.environment, &info);
    if (error == 0)
        error = find_area(store, info);
    if (error == 0)
        error = check_interrupted(store, info.fd, info.last_commit);
    if (error == interrupted_commit)
        error = finish_interrupted_commits(store);
    // Without the lock, the entry of a commit that fails may have been seen.
    store.journal.end = {};
    return error;
}

int begin_change(store &store, MDB_txn **txn)
{
    environment_info info;
    int error = get_environment_info(store.environment, &info);
    if (error == 0)
        error = begin_write(store.environment, store.turn, txn);
    if (error != 0)
        return error;
    store.journal.changes.reset(store.journal.area.longest_entry());
    error = strike_failed(store.journal, info, mdb_txn_id(*txn));
    if (error == 0)
        error = check_interrupted(store, info.fd, mdb_txn_id(*txn) - 1);
    if (error != 0)
        abort_change(store, *txn);
    return error;
}

int commit_change(store &store, MDB_txn *txn)
{
    store_journal &journal = store.journal;
    if (journal.changes.is_empty()) {
        abort_change(store, txn);
        return 0;
    }
    environment_info info;
    unsigned char *const entry = journal.changes.finish();
    int error = entry == nullptr ? ENOMEM : get_environment_info(store.environment, &info);
    if (error == 0)
        error = append_entry(info.fd, journal.area,
                             {mdb_txn_id(txn), clock_ns(CLOCK_REALTIME), journal.author}, entry,
                             &journal.end);
    if (error != 0) {
        abort_change(store, txn);
        return error;
    }
    const size_t number = mdb_txn_id(txn);
    error = commit(store, txn, journal.changes.is_summary());
    if (error != 0)
        static_cast<void>(strike(journal, info, journal.end.last_offset, number));
    release_writer_lock(store.environment);
    return error;
}

int commit_unrecorded(store &store, MDB_txn *txn)
{
    const int error = commit(store, txn, true);
    release_writer_lock(store.environment);
    return error;
}

void abort_change(store &store, MDB_txn *txn)
{
    mdb_txn_abort(txn);
    release_writer_lock(store.environment);
}

} // namespace platform
