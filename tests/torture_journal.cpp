#include "torture.h"
#include "vs_kvs.h"

#include <algorithm>

namespace torture {
namespace {

using place = std::pair<std::string, uint32_t>; // database and key
using bytes = std::string;                      // of a record; none is "", which no record is

// What the changes read so far make of the records that they name.
struct history {
    std::map<place, bytes> records;
    uint64_t sequence = 0, transaction = 0;
    bool is_whole = true; // since the store was made
};

void follow(history &past, const kvs_change &it)
{
    const bool is_first = past.sequence == 0;
    need(it.sequence == past.sequence + 1 || (is_first && it.sequence != 0), "the next number");
    need(it.transaction >= past.transaction, "the order of the commits");
    past.is_whole &= it.kind != KVS_CHANGE_SUMMARY && (!is_first || it.sequence == 1);
    past.sequence = it.sequence;
    past.transaction = it.transaction;
    if (it.kind == KVS_CHANGE_SUMMARY) {
        std::erase_if(past.records, [&](auto &each) { return each.first.first == it.db_name_p; });
        return;
    }
    const bytes before(static_cast<const char *>(it.old_p), it.old_kept);
    const auto [known, is_new] =
        past.records.try_emplace({it.db_name_p, static_cast<uint32_t>(it.handle)}, before);
    need(known->second.size() == it.old_length || (is_new && it.old_kept <= it.old_length),
         "the length before a change");
    need(known->second.substr(0, it.old_kept) == before, "the bytes before a change");
    need((it.kind == KVS_CHANGE_INSERTED) == (it.old_length == 0), "what an insertion replaces");
    need((it.kind == KVS_CHANGE_DELETED) == (it.new_length == 0), "what a deletion leaves");
    known->second.assign(static_cast<const char *>(it.new_p), it.new_length);
}

history read_history()
{
    history past;
    kvs_journal *journal = nullptr;
    kvs_change it;
    uint32_t status = kvs_journal_open(g_kvs_hdl_vs_objects_db, KVS_JOURNAL_OLDEST, &journal);
    need(status == 0, "opening the journal", status);
    while ((status = kvs_journal_next(journal, &it)) == 0)
        follow(past, it);
    need(status == KVS_RC_NO_CHANGE, "reading the journal", status);
    kvs_journal_close(journal);
    return past;
}

} // namespace

uint64_t check_journal(const contents &found)
{
    history past = read_history();
    for (const auto &[key, record] : found) {
        const auto last = past.records.find({vskvs::databases[key.first]->name, key.second});
        need(last != past.records.end() || !past.is_whole, "a record that the journal has not");
        if (last == past.records.end())
            continue;
        need(last->second == bytes(reinterpret_cast<const char *>(record.data()),
                                   record.size() * sizeof record[0]),
             "what is stored after the last change");
        past.records.erase(last);
    }
    for (const auto &[where, last] : past.records)
        need(last.empty(), "a record that only the journal has");
    return past.transaction;
}

} // namespace torture
