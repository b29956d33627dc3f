// The command that prints everything, also what is left of a damaged store.
#include "tools/commands.h"
#include "tools/dump_format.h"
#include "tools/store.h"

#include <cstring>

namespace vskvs {
namespace {

using records_of = std::vector<std::vector<words>>; // in the order of the databases

void print_dump(const records_of &all)
{
    print_line({{dump_header, dump_format}});
    json end{{dump_end, dump_format}};
    for (size_t i = 0; i < databases.size(); ++i) {
        for (const words &record : all[i]) {
            json line{{"database", databases[i]->name}};
            line.update(to_json(databases[i]->shape, record));
            print_line(line);
        }
        end[databases[i]->name] = all[i].size();
    }
    print_line(end);
}

struct salvaged {
    const database *db;
    std::vector<words> records;
    uint64_t unusable = 0; // not as long as their counts say, or of a key that no record has
};

// Keeps a record that the library would read and a restore would take.
int take(const void *bytes, uint32_t length, void *into)
{
    auto &to = *static_cast<salvaged *>(into);
    const shape &of = to.db->shape;
    words record(length / shape::word);
    memcpy(record.data(), bytes, record.size() * shape::word);
    const bool is_usable = length % shape::word == 0 && record.size() >= of.fixed() &&
                           record.size() == of.length(of.count(record)) &&
                           (to.db != &objects || key_of(record) != 0);
    if (is_usable)
        to.records.push_back(std::move(record));
    else
        ++to.unusable;
    return 0;
}

// Says what is missing of a database; returns whether anything is, or may be.
bool complain_of(const salvaged &found, const kvs_salvage_result &result)
{
    const std::string name = std::string("dump: ") + found.db->name + ": ";
    const std::string lost = result.lost == KVS_SALVAGE_UNKNOWN
                                 ? "an unknown number of records"
                                 : counted(result.lost + found.unusable, "record");
    const bool is_short = result.lost != 0 || found.unusable != 0;
    if (is_short)
        complain(name + lost + " lost, " + std::to_string(found.records.size()) + " salvaged");
    if (result.doubtful != 0)
        complain(name + counted(result.doubtful, "record") +
                 " may be older than the last change, or deleted");
    return is_short || result.doubtful != 0 || result.is_whole == 0;
}

void salvage()
{
    records_of all;
    bool is_damaged = false;
    for (const database *const db : databases) {
        salvaged found{db, {}};
        kvs_salvage_result result;
        require(kvs_salvage(db->name, take, &found, &result), db->name);
        is_damaged = complain_of(found, result) || is_damaged;
        all.push_back(std::move(found.records));
    }
    print_dump(all);
    if (is_damaged)
        throw failure("dump: the store is damaged");
}

} // namespace

void dump(const arguments &given)
{
    if (given.salvage)
        return salvage();
    records_of all;
    look_at_all([&] {
        for (const database *const db : databases)
            all.push_back(read_all(*db));
    });
    print_dump(all);
}

} // namespace vskvs
