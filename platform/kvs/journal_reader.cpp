#include "platform/kvs/journal_reader.h"

#include "platform/kvs/commit_wait.h"
#include "platform/kvs/environment_info.h"
#include "platform/kvs/recovery.h"

#include <cstring>
#include <new>
#include <utility>

namespace platform {
namespace {

entry_header header_of(const block<unsigned char> &entry)
{
    entry_header header;
    memcpy(&header, entry.get(), sizeof header);
    return header;
}

struct found_entry {
    uint64_t offset = 0; // in the ring; 0 if there is none
    entry_header header = {};
};

// Finds the first entry with changes from `next_sequence` on, among those that follow one another
// without a gap up to the last commit. Older ones may be left where the ring ends: the next round
// need not come as far.
[[nodiscard]] found_entry first_entry(const journal_area &area, const unsigned char *ring,
                                      uint64_t last_commit, uint64_t next_sequence)
{
    found_entry last, first;
    const auto for_each = [&](const auto &found) {
        for_each_entry(area, ring, [&](uint64_t offset, const entry_header &header) {
            if (header.transaction <= last_commit)
                found(offset, header);
        });
    };
    for_each([&](uint64_t offset, const entry_header &header) {
        if (header.sequence >= last.header.sequence)
            last = {offset, header};
    });
    uint64_t next = 0;
    const auto follow = [&](uint64_t offset, const entry_header &header) {
        if (header.sequence < next)
            return;
        if (header.sequence != next)
            first = {};
        next = header.sequence + header.change_count;
        if (first.offset == 0 && next > next_sequence)
            first = {offset, header};
    };
    for (const bool is_older_part : {true, false})
        for_each([&](uint64_t offset, const entry_header &header) {
            if ((offset > last.offset) == is_older_part)
                follow(offset, header);
        });
    return first;
}

// Moves to the first entry to be read among all that are kept.
[[nodiscard]] int search_entry(int fd, const journal_area &area, uint64_t last_commit,
                               kvs_journal *journal)
{
    block<unsigned char> ring;
    if (const int error = copy_ring(fd, area, &ring); error != 0)
        return error;
    const auto [found, first] = first_entry(area, ring.get(), last_commit, journal->next_sequence);
    if (found == 0)
        return MDB_NOTFOUND;
    block<unsigned char> entry(static_cast<unsigned char *>(malloc(first.length)));
    if (entry == nullptr)
        return ENOMEM;
    memcpy(entry.get(), ring.get() + found, first.length);
    journal->entry = std::move(entry);
    journal->position = end_behind(found, first);
    return 0;
}

// Entries of commits after the last one are not to be seen: those commits may fail yet.
[[nodiscard]] int find_next_entry(int fd, const journal_area &area, uint64_t last_commit,
                                  kvs_journal *journal)
{
    if (journal->position.offset != 0) {
        journal_end behind = journal->position;
        block<unsigned char> entry;
        const int error = read_next_entry(fd, area, &behind, &entry);
        if (error == 0 && behind.last_transaction <= last_commit) {
            journal->position = behind;
            journal->entry = std::move(entry);
            return 0;
        }
        if (error != 0 && error != MDB_NOTFOUND)
            return error;
        if (journal->position.last_transaction == last_commit)
            return MDB_NOTFOUND;
    }
    return search_entry(fd, area, last_commit, journal);
}

[[nodiscard]] attempt attempt_fetch(const store &store, uint64_t last_commit, kvs_journal *journal)
{
    environment_info info;
    int error = get_environment_info(store.environment, &info);
    if (error == 0)
        error = find_next_entry(info.fd, store.journal.area, last_commit, journal);
    if (error == MDB_NOTFOUND) {
        journal->searched_commit = last_commit;
        return with_status(KVS_RC_NO_CHANGE);
    }
    if (error != 0)
        return with_engine_error(error);
    const entry_header header = header_of(journal->entry);
    journal->offset = sizeof header;
    journal->changes_left = header.change_count;
    return with_status(0);
}

// Skips the changes before the one to begin with.
void skip_changes(kvs_journal *journal)
{
    const entry_header header = header_of(journal->entry);
    journal_change change;
    for (uint64_t i = header.sequence; i < journal->next_sequence && journal->changes_left != 0;
         ++i)
        journal->changes_left = next_change(journal->entry.get(), &journal->offset, &change)
                                    ? journal->changes_left - 1
                                    : 0;
}

// Moves the reader behind all entries.
[[nodiscard]] uint32_t skip_all(kvs_journal *journal)
{
    uint32_t status = 0;
    while ((status = fetch_entry(journal)) == 0) {
        journal->next_sequence = journal->position.next_sequence;
        journal->changes_left = 0;
    }
    return status == KVS_RC_NO_CHANGE ? 0 : status;
}

} // namespace

uint32_t open_reader(kvs_hdl hdl, uint64_t first, kvs_journal **journal)
{
    call_context call;
    if (const uint32_t status = make_call_context(hdl, &call); status != 0)
        return status;
    void *const memory = malloc(sizeof(kvs_journal));
    if (memory == nullptr)
        return KVS_RC_NO_MEMORY;
    auto *const opened = new (memory) kvs_journal;
    opened->hdl = hdl;
    opened->next_sequence = first == UINT64_MAX ? 0 : first;
    if (const uint32_t status = first == UINT64_MAX ? skip_all(opened) : 0; status != 0) {
        close_reader(opened);
        return status;
    }
    *journal = opened;
    return 0;
}

void close_reader(kvs_journal *journal)
{
    if (journal == nullptr)
        return;
    journal->~kvs_journal();
    free(journal);
}

uint32_t fetch_entry(kvs_journal *journal)
{
    if (journal->changes_left != 0)
        return 0;
    call_context call;
    if (const uint32_t status = make_call_context(journal->hdl, &call); status != 0)
        return status;
    const uint64_t last = last_commit(call.store->commit_numbers());
    if (last == journal->searched_commit)
        return KVS_RC_NO_CHANGE;
    const uint32_t status = attempt_until_status(*call.store, *call.thread, recover_as_reader, [&] {
        return attempt_fetch(*call.store, last, journal);
    });
    if (status == 0)
        skip_changes(journal);
    return status;
}

uint32_t wait_for_entry(kvs_journal *journal, uint64_t deadline)
{
    for (;;) {
        call_context call;
        if (const uint32_t status = make_call_context(journal->hdl, &call); status != 0)
            return status;
        const commit_numbers numbers = call.store->commit_numbers();
        const uint64_t last = last_commit(numbers);
        const uint32_t status = fetch_entry(journal);
        if (status != KVS_RC_NO_CHANGE || wait_for_commit(numbers, last, deadline) != 0)
            return status;
    }
}

bool take_change(kvs_journal *journal, kvs_change *change)
{
    const entry_header header = header_of(journal->entry);
    journal_change found;
    if (journal->changes_left == 0 ||
        !next_change(journal->entry.get(), &journal->offset, &found) ||
        found.header.name_length > name_limit) {
        journal->changes_left = 0;
        journal->next_sequence = header.sequence + header.change_count;
        return false;
    }
    memcpy(journal->db_name, found.name, found.header.name_length);
    journal->db_name[found.header.name_length] = '\0';
    memcpy(journal->process, header.author.process, sizeof journal->process);
    journal->process[sizeof journal->process - 1] = '\0';
    journal->next_sequence = header.sequence + header.change_count - journal->changes_left + 1;
    --journal->changes_left;
    *change = {};
    change->sequence = journal->next_sequence - 1;
    change->transaction = header.transaction;
    change->time = header.time;
    change->job = header.author.job;
    change->pid = header.author.pid;
    change->user = header.author.user;
    change->process_p = journal->process;
    change->db_name_p = journal->db_name;
    change->kind = static_cast<uint32_t>(found.header.kind);
    change->handle = found.header.handle;
    change->last_handle =
        found.header.kind == change_kind::summary ? found.header.last : found.header.handle;
    change->count = found.header.count;
    change->old_p = found.old_bytes;
    change->old_length = found.header.old_length;
    change->old_kept = found.header.old_kept;
    change->new_p = found.new_bytes;
    change->new_length = found.header.new_length;
    return true;
}

} // namespace platform
