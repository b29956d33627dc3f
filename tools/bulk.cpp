// The commands on many records: each validates all of its input before the first change, and makes
// its changes in one batch of the store, so that all of them are stored or none.
#include "tools/commands.h"
#include "tools/dump_format.h"
#include "tools/store.h"
#include "vs_kvs.h"

#include <algorithm>
#include <unordered_map>

namespace vskvs {
namespace {

constexpr size_t chunk_size = 4096; // elements of one bulk call

// What a bulk population stores, and the fields of a line that selects a version.
constexpr fixed_value population[] = {
    {"is_optional_compatible", 0}, {"scope", 0}, {"is_changed", 1}};
constexpr vs_kvs::field selection_fields[] = {VS_KVS_FIELD(vs_object_sel_entry, vs_object_id),
                                              VS_KVS_FIELD(vs_object_sel_entry, selected_version)};
constexpr vs_kvs::record_layout selection_layout{
    selection_fields, {nullptr, offsetof(vs_object_sel_entry, caller_data), 0}, {}};
constexpr shape selection{selection_layout};

// The keys in a file so far, each with its line.
class key_set {
public:
    void add(const database &db, const json_line &line, uint32_t key)
    {
        const auto [at, is_new] = lines_.emplace(key, line.number());
        if (!is_new)
            line.refuse(std::string("/") + db.shape.key_name(), subject(db, key) + " is on line " +
                                                                    std::to_string(at->second) +
                                                                    " already");
    }

private:
    std::unordered_map<uint32_t, size_t> lines_;
};

void refuse_invalid_object(const json_line &line, uint32_t id)
{
    if (id == 0)
        line.refuse("/vs_object_id", "vs_object_id must not be 0");
}

std::vector<words> read_objects(const arguments &given)
{
    std::vector<words> records;
    key_set keys;
    read_json_lines(given.file, [&](const json_line &line) {
        records.push_back(given.update ? from_json(selection, line)
                                       : from_json(objects.shape, line, population));
        refuse_invalid_object(line, key_of(records.back()));
        keys.add(objects, line, key_of(records.back()));
    });
    return records;
}

template <class Record>
vs_object_sel_entry selection_of(const words &record)
{
    const Record &from = as<Record>(record);
    return {from.vs_object_id, from.selected_version, {}};
}

// One call of the library's bulk operation.
[[nodiscard]] uint32_t apply(std::span<const words> chunk, bool update)
{
    std::vector<vs_object_sel_entry> entries;
    std::vector<const uint32_t *> versions;
    std::vector<uint32_t> counts;
    for (const words &record : chunk)
        entries.push_back(update ? selection_of<vs_object_sel_entry>(record)
                                 : selection_of<vs_objects_kvs_rec>(record));
    const auto count = static_cast<uint32_t>(chunk.size());
    if (update)
        return vs_kvs_update_vs_objects(entries.data(), count);
    for (const words &record : chunk) {
        versions.push_back(record.data() + objects.shape.fixed());
        counts.push_back(objects.shape.count(record));
    }
    return vs_kvs_insert_vs_objects(entries.data(), count, versions.data(), counts.data());
}

using record_map = std::unordered_map<uint32_t, words>;

record_map stored_objects()
{
    record_map stored;
    for (words &record : read_all(objects)) {
        const uint32_t id = key_of(record);
        stored.emplace(id, std::move(record));
    }
    return stored;
}

// A bulk operation does not return the element that it failed at. If that one is stored already
// with other contents, it is found here and named.
[[noreturn]] void explain_failure(uint32_t status, const arguments &given,
                                  const std::vector<words> &records, const record_map &stored)
{
    if (status == KVS_RC_RECORD_EXISTS)
        for (const words &record : records)
            if (const auto at = stored.find(key_of(record));
                at != stored.end() && at->second != record)
                require(status, objects, key_of(record));
    require(status, given.file);
    throw failure(given.file + ": failed");
}

void insert_all(const database &db, const std::vector<words> &records, const progress_bar &progress,
                size_t &done)
{
    for (const words &record : records) {
        require(db.insert(record), db, key_of(record));
        if (++done % chunk_size == 0)
            progress.show(done);
    }
}

struct dumped {
    const database *db;
    std::vector<words> records;
    key_set keys;
};

using all_records = std::vector<dumped>;

all_records no_records()
{
    all_records all;
    for (const database *const db : databases)
        all.push_back({db, {}, {}});
    return all;
}

void read_dump_header(const json_line &line)
{
    if (!line.value().contains(dump_header))
        line.refuse("", "not a dump: the first line must be its header");
    if (line.number_at(std::string("/") + dump_header) != dump_format)
        line.refuse(std::string("/") + dump_header, "a dump of an unknown format");
}

void read_dump_end(const json_line &line, const all_records &all)
{
    for (const dumped &of : all)
        if (!line.value().contains(of.db->name) ||
            line.number_at(std::string("/") + of.db->name) != of.records.size())
            line.refuse("", "the dump is not whole: it has " +
                                counted(of.records.size(), "record") + " of " + of.db->name);
}

void read_dumped_record(const json_line &line, all_records &all)
{
    const json &value = line.value();
    const auto name = value.find("database");
    const auto of = std::ranges::find_if(
        all, [&](const dumped &one) { return name != value.end() && *name == one.db->name; });
    if (of == all.end())
        line.refuse(name == value.end() ? "" : "/database", "no record of a known database");
    of->records.push_back(from_json(of->db->shape, line, {}, "database"));
    if (of->db == &objects)
        refuse_invalid_object(line, key_of(of->records.back()));
    of->keys.add(*of->db, line, key_of(of->records.back()));
}

all_records read_dump(const std::string &file)
{
    all_records all = no_records();
    enum { before, within, after } position = before;
    read_json_lines(file, [&](const json_line &line) {
        if (position == after)
            line.refuse("", "nothing may follow the end of a dump");
        if (position == before) {
            read_dump_header(line);
            position = within;
        } else if (line.value().contains(dump_end)) {
            read_dump_end(line, all);
            position = after;
        } else {
            read_dumped_record(line, all);
        }
    });
    if (position != after)
        throw failure(file + ": the dump is cut short: its last line is missing");
    return all;
}

} // namespace

void import_objects(const arguments &given)
{
    const std::vector<words> records = read_objects(given);
    initialize("object import");
    const char *const verb = given.update ? "selecting" : "importing";
    const progress_bar progress(verb, records.size());
    size_t without_record = 0;
    change_all([&] {
        const record_map stored = stored_objects();
        without_record = static_cast<size_t>(std::ranges::count_if(
            records, [&](const words &record) { return !stored.contains(key_of(record)); }));
        size_t done = 0;
        do {
            const size_t size = std::min(chunk_size, records.size() - done);
            const auto chunk = std::span(records).subspan(done, size);
            if (const uint32_t status = apply(chunk, given.update); status == KVS_RC_BATCH_FULL)
                require(status, given.file);
            else if (status != 0)
                explain_failure(status, given, records, stored);
            done += size;
            progress.show(done);
        } while (done < records.size());
    });
    const size_t known = records.size() - without_record;
    if (given.update)
        print("selected the versions of " + counted(known, "object") + "; " +
              counted(without_record, "object") + " without a record skipped\n");
    else
        print("imported " + counted(without_record, "object") + "; " + std::to_string(known) +
              " stored already\n");
}

void restore(const arguments &given)
{
    const all_records all = read_dump(given.file);
    initialize("restore");
    size_t total = 0;
    for (const dumped &of : all)
        total += of.records.size();
    const progress_bar progress("restoring", total);
    change_all([&] {
        for (const database *const db : databases)
            if (!read_all(*db).empty())
                throw failure(std::string("restore: the store is not empty: ") + db->name +
                              " has records");
        size_t done = 0;
        for (const dumped &of : all)
            insert_all(*of.db, of.records, progress, done);
    });
    print("restored " + counted(total, "record") + "\n");
}

} // namespace vskvs
