// The commands of the tool, each a function of the arguments that the command line gave.
#pragma once

#include "tools/records.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vskvs {

struct arguments {
    uint32_t id = 0;
    std::vector<uint32_t> ids;
    uint32_t jid = 0;
    uint32_t pid = 0;
    std::string data;
    uint32_t version = 0;
    std::vector<uint32_t> versions;
    uint32_t optional_compatible = 0;
    uint32_t scope = 0;
    uint32_t changed = 1;
    std::string file;
    bool update = false;
    bool salvage = false;
    std::optional<uint32_t> code;
    std::vector<std::string> buffers;
    std::optional<uint32_t> job;
    std::string operation;
    std::optional<uint32_t> object;
    std::optional<uint32_t> registration;
    std::optional<uint32_t> limit; // of the changes that are printed
    int64_t since = INT64_MIN;     // ns since the epoch
    int64_t until = INT64_MAX;
    bool reverse = false;
    bool follow = false;
    bool as_json = false;
};

// ---- on single records (single.cpp) ----

template <const database &Db>
void show(const arguments &given)
{
    const words record = read(Db, given.id);
    if (given.as_json)
        print_pretty(to_json(Db.shape, record));
    else
        print_records(Db, {record});
}

template <const database &Db>
void list(const arguments &given)
{
    const std::vector<words> records = read_all(Db);
    if (!given.as_json)
        return print_records(Db, records);
    json all = json::array();
    for (const words &record : records)
        all.push_back(to_json(Db.shape, record));
    print_pretty(all);
}

template <const database &Db>
void erase(const arguments &given)
{
    require(Db.erase(given.id), Db, given.id);
}

void init(const arguments &given);
void add_object(const arguments &given);
void select_version(const arguments &given);
void create_client_list(const arguments &given);
void add_client(const arguments &given);
void update_client(const arguments &given);
void create_registration(const arguments &given);
void add_to_registration(const arguments &given);

// ---- on many records (bulk.cpp) ----

void import_objects(const arguments &given);
void restore(const arguments &given);

// ---- on the whole (dump.cpp, check.cpp, trace.cpp, log.cpp, status.cpp) ----

void dump(const arguments &given);
void check(const arguments &given);
void trace(const arguments &given);
void log(const arguments &given);
void watch(const arguments &given);
void status(const arguments &given);

} // namespace vskvs
