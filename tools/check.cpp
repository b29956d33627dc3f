// Finds contradictions in and between the three databases.
//
// The library reads a whole database or nothing of it, and refuses records that are too short. To
// identify the record at fault, the check reads the store directly.
#include "core/block.h"
#include "tools/commands.h"
#include "tools/store.h"
#include "vs_kvs.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <map>
#include <set>

namespace vskvs {
namespace {

// Records by key; those that are too short to be read are there without words.
using record_map = std::map<uint32_t, words>;

class findings {
public:
    // A finding about the record of `key`. The facts are its fields in the JSON document.
    void add(const char *kind, const database &db, uint32_t key, const std::string &message,
             json facts)
    {
        lines_.push_back(red(kind) + "  " + subject(db, key) + ": " + message);
        json finding{{"finding", kind}, {"database", db.name}, {db.shape.key_name(), key}};
        finding.update(facts);
        finding["message"] = message;
        document_.push_back(std::move(finding));
    }

    void print_all(bool as_json) const
    {
        if (as_json)
            return print_pretty(document_);
        for (const std::string &line : lines_)
            print(line + "\n");
        if (lines_.empty())
            print("everything fits together\n");
    }

    size_t count() const { return lines_.size(); }

private:
    std::vector<std::string> lines_;
    json document_ = json::array();
};

// The stored bytes of one record, as words; `length` is its length in the store.
words stored_words(const database &db, kvs_hdl hdl, kvs_rec_hdl handle, uint32_t &length)
{
    require(kvs_get_object_size(hdl, &handle, &length), db.name);
    words record(std::max((length + 3) / 4, 1u));
    uint32_t got = length;
    require(kvs_read_object(hdl, &handle, 0, record.data(), &got), db.name);
    return record;
}

// The records of a database. Those that are not as long as their counts say are findings, and of
// those that are shorter nothing more is checked.
record_map all_records(const database &db, findings &found)
{
    const kvs_hdl hdl = bind(db, "check");
    kvs_rec_hdl *array = nullptr;
    uint32_t count = 0;
    require(kvs_find_objects(hdl, nullptr, 0, 0, &array, &count), db.name);
    const vs_kvs::block<kvs_rec_hdl> owner(array);
    record_map all;
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t length = 0;
        words record = stored_words(db, hdl, array[i], length);
        const uint32_t key = key_of(record);
        const bool has_count = length >= 4 * db.shape.fixed();
        const size_t wanted =
            has_count ? 4 * db.shape.length(db.shape.count(record)) : 4 * db.shape.fixed();
        if (length != wanted) {
            const std::string claim =
                has_count ? "its " + std::string(db.shape.count_name()) + " of " +
                                std::to_string(db.shape.count(record)) + " requires "
                          : "its fixed part alone has ";
            found.add("record-length", db, key,
                      "the record has " + counted(length, "byte") + ", " + claim +
                          std::to_string(wanted),
                      {{"length", length}, {"expected_length", wanted}});
        }
        record.resize(length < wanted ? 0 : wanted / 4);
        all.emplace(key, std::move(record));
    }
    return all;
}

void check_selections(const record_map &all, findings &found)
{
    const size_t fixed = objects.shape.fixed();
    for (const auto &[id, record] : all) {
        if (record.empty())
            continue;
        const uint32_t selected = as<vs_objects_kvs_rec>(record).selected_version;
        const bool selects_nothing = selected == 0 && record.size() == fixed;
        if (!selects_nothing && std::find(record.begin() + static_cast<ptrdiff_t>(fixed),
                                          record.end(), selected) == record.end())
            found.add("unsupported-selection", objects, id,
                      "version " + std::to_string(selected) +
                          " is selected, which is not among the supported ones",
                      {{"selected_version", selected}});
    }
}

// The elements of a record, without duplicates, which are findings.
std::vector<std::span<const uint32_t>> distinct_elements(const database &db, const words &record,
                                                         const char *kind, const char *name,
                                                         findings &found)
{
    std::vector<std::span<const uint32_t>> elements;
    std::set<uint32_t> seen;
    const size_t count = record.empty() ? 0 : db.shape.count(record);
    for (size_t i = 0; i < count; ++i) {
        const auto element = db.shape.element(record, i);
        if (seen.insert(element[0]).second)
            elements.push_back(element);
        else
            found.add(kind, db, key_of(record),
                      std::string(name) + " " + std::to_string(element[0]) + " is listed twice",
                      {{name, element[0]}});
    }
    return elements;
}

void check_process(uint32_t id, const vs_client_info_entry &client, findings &found)
{
    const auto pid = static_cast<pid_t>(client.pid);
    if (pid > 0 && (kill(pid, 0) == 0 || errno != ESRCH))
        return;
    found.add("dead-client", clients, id,
              "process " + std::to_string(client.pid) + " of job " + std::to_string(client.jid) +
                  " does not exist",
              {{"jid", client.jid}, {"pid", client.pid}});
}

void check_known(const database &db, uint32_t key, uint32_t id, const record_map &all,
                 findings &found)
{
    if (!all.contains(id))
        found.add("unknown-object", db, key, "object " + hex(id) + " has no record",
                  {{"vs_object_id", id}});
}

// Whether the record of `key` is stored, but too short to be read.
bool is_unreadable(const record_map &all, uint32_t key)
{
    const auto at = all.find(key);
    return at != all.end() && at->second.empty();
}

using pairs = std::set<std::pair<uint32_t, uint32_t>>; // job id, VS object id

void check_all(findings &found)
{
    const record_map all = all_records(objects, found);
    const record_map lists = all_records(clients, found);
    const record_map jobs = all_records(registrations, found);
    check_selections(all, found);

    pairs used, registered;
    for (const auto &[id, record] : lists) {
        check_known(clients, id, id, all, found);
        for (const auto element :
             distinct_elements(clients, record, "repeated-jid", "jid", found)) {
            const auto &client = as<vs_client_info_entry>(element);
            used.emplace(client.jid, id);
            check_process(id, client, found);
        }
    }
    for (const auto &[jid, record] : jobs)
        for (const auto element :
             distinct_elements(registrations, record, "repeated-object", "vs_object_id", found)) {
            registered.emplace(jid, element[0]);
            check_known(registrations, jid, element[0], all, found);
        }
    for (const auto &[jid, id] : registered)
        if (!used.contains({jid, id}) && !is_unreadable(lists, id))
            found.add("no-client", registrations, jid,
                      "registered for object " + hex(id) + ", but no client of it",
                      {{"vs_object_id", id}});
    for (const auto &[jid, id] : used)
        if (!registered.contains({jid, id}) && !is_unreadable(jobs, jid))
            found.add("no-registration", clients, id,
                      "job " + std::to_string(jid) + " is a client, but not registered for it",
                      {{"jid", jid}});
}

} // namespace

void check(const arguments &given)
{
    findings found;
    look_at_all([&] { check_all(found); });
    found.print_all(given.as_json);
    if (found.count() != 0)
        throw failure(counted(found.count(), "finding"));
}

} // namespace vskvs
