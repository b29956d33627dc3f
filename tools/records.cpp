// What the tool knows of the three databases, and what it does with records of any of them.
#include "tools/records.h"

#include "vs_kvs.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace vskvs {
namespace {

using status = uint32_t;

struct free_block {
    void operator()(void *address) const { free(address); }
};

template <class Record>
using block = std::unique_ptr<Record, free_block>;

words copy_of(const shape &of, const void *record)
{
    words copy(of.fields.size());
    memcpy(copy.data(), record, copy.size() * sizeof copy[0]);
    copy.resize(of.length(of.count(copy)));
    memcpy(copy.data(), record, copy.size() * sizeof copy[0]);
    return copy;
}

template <class Record, status (*Get)(uint32_t, Record **)>
status get(const shape &of, uint32_t key, words &record)
{
    Record *found = nullptr;
    const status rc = Get(key, &found);
    const block<Record> owner(found);
    if (rc == 0)
        record = found ? copy_of(of, found) : words{};
    return rc;
}

template <class Record, status (*List)(uint32_t *, Record ***)>
status list(const shape &of, std::vector<words> &records)
{
    uint32_t count = 0;
    Record **found = nullptr;
    const status rc = List(&count, &found);
    const block<Record *> array(found);
    for (uint32_t i = 0; rc == 0 && i < count; ++i) {
        const block<Record> owner(found[i]);
        records.push_back(copy_of(of, found[i]));
    }
    return rc;
}

template <class Record, status (*Insert)(const Record *, kvs_rec_hdl *)>
status insert(const words &record)
{
    kvs_rec_hdl handle = 0;
    return Insert(reinterpret_cast<const Record *>(record.data()), &handle);
}

constexpr const char *object_fields[] = {
    "vs_object_id", "selected_version", "is_optional_compatible",
    "scope",        "is_changed",       "supp_count"};
constexpr const char *client_list_fields[] = {"vs_object_id", "clients_count"};
constexpr const char *registration_fields[] = {"jid", "vs_count"};
constexpr const char *client_fields[] = {"jid", "pid", "client_data"};

constexpr char hex_digits[] = "0123456789abcdef";
constexpr size_t client_data_size = 12;

std::string join(std::span<const uint32_t> numbers, std::string (*text_of)(uint64_t))
{
    std::string joined;
    for (const uint32_t number : numbers)
        joined += (joined.empty() ? "" : ",") + text_of(number);
    return joined.empty() ? "-" : joined;
}

std::string decimal(uint64_t number) { return std::to_string(number); }

// The rows of a record in its table: one for each client, or one with all its numbers.
std::vector<std::vector<std::string>> rows_of(const database &db, const words &record)
{
    std::vector<std::string> start{(db.key_is_object ? hex : decimal)(record[0])};
    for (size_t i = 1; i + 1 < db.shape.fields.size(); ++i)
        start.push_back(std::to_string(record[i]));
    if (!db.shape.elements_are_clients) {
        start.push_back(join(std::span(record).subspan(db.shape.fields.size()),
                             db.key_is_object ? decimal : hex));
        return {start};
    }
    std::vector<std::vector<std::string>> rows;
    for (size_t i = 0; i < db.shape.count(record); ++i) {
        const auto client = db.shape.element(record, i);
        rows.push_back(
            {start[0], decimal(client[0]), decimal(client[1]), client_data_text(client)});
    }
    if (rows.empty())
        rows.push_back({start[0], "-", "-", "-"});
    return rows;
}

bool is_among(const json &name, std::span<const char *const> names)
{
    return std::ranges::any_of(names, [&](const char *known) { return known && name == known; });
}

// Throws when the object at `path` has other fields than these.
void refuse_others(const json_line &line, const std::string &path,
                   std::span<const char *const> names,
                   std::initializer_list<const char *> more = {})
{
    for (const auto &[name, value] : line.value().at(json::json_pointer(path)).items())
        if (!is_among(name, names) && !is_among(name, std::span(more)))
            line.refuse(path + "/" + name, "unknown field \"" + name + "\"");
}

void refuse_missing(const json_line &line, const std::string &path, const char *name)
{
    if (!line.value().at(json::json_pointer(path)).contains(name))
        line.refuse(path, std::string("field \"") + name + "\" is missing");
}

void append_client(const json_line &line, const std::string &path, words &record)
{
    if (!line.value().at(json::json_pointer(path)).is_object())
        line.refuse(path, "a client must be an object");
    refuse_others(line, path, client_fields);
    for (const char *const name : client_fields)
        refuse_missing(line, path, name);
    record.push_back(line.number_at(path + "/jid"));
    record.push_back(line.number_at(path + "/pid"));
    record.resize(record.size() + client_data_size / sizeof record[0]);
    const json &data = line.value().at(json::json_pointer(path + "/client_data"));
    const auto client = std::span(record).last(5);
    if (!data.is_string() || data.get<std::string>().size() != 2 * client_data_size ||
        !parse_client_data(data.get<std::string>(), client))
        line.refuse(path + "/client_data", "client_data must be 24 hex digits");
}

// Reads the elements behind the fixed fields, and sets the count.
void append_elements(const shape &of, const json_line &line, words &record)
{
    const std::string path = std::string("/") + of.elements;
    refuse_missing(line, "", of.elements);
    const json &elements = line.value()[of.elements];
    if (!elements.is_array())
        line.refuse(path, std::string(of.elements) + " must be an array");
    for (size_t i = 0; i < elements.size(); ++i) {
        const std::string at = path + "/" + std::to_string(i);
        if (of.elements_are_clients)
            append_client(line, at, record);
        else
            record.push_back(line.number_at(at));
    }
    const char *const count_name = of.fields.back();
    record[of.fields.size() - 1] = static_cast<uint32_t>(elements.size());
    const std::string count_path = std::string("/") + count_name;
    if (line.value().contains(count_name) && line.number_at(count_path) != elements.size())
        line.refuse(count_path, std::string(count_name) + " is not the number of " + of.elements);
}

// A batch that is aborted unless it is committed. Within it nothing can be bound, so all databases
// are bound before.
class batch {
public:
    batch()
    {
        kvs_hdl handle = 0;
        for (const database *const db : databases)
            handle = bind(*db, db->name);
        require(kvs_batch_begin(handle), "store");
    }
    batch(const batch &) = delete;
    batch &operator=(const batch &) = delete;
    ~batch()
    {
        if (is_open_)
            kvs_batch_abort();
    }

    void commit()
    {
        is_open_ = false;
        require(kvs_batch_commit(), "store");
    }

private:
    bool is_open_ = true;
};

} // namespace

const database objects{
    .name = "vs_objects",
    .subject = "object",
    .key_is_object = true,
    .shape = {object_fields, "supp_versions", false},
    .columns = {{"OBJECT", true},
                {"SELECTED", true},
                {"COMPATIBLE", true},
                {"SCOPE", true},
                {"CHANGED", true},
                {"SUPPORTED", false}},
    .invalid_key = VS_FAULT_INVALID_OBJECT_ID,
    .get = get<vs_objects_kvs_rec, vs_kvs_get_vs_object_rec>,
    .list = list<vs_objects_kvs_rec, vs_kvs_get_vs_objects_all_recs>,
    .insert = insert<vs_objects_kvs_rec, vs_kvs_insert_vs_object_rec>,
    .erase = vs_kvs_delete_vs_object,
};

const database clients{
    .name = "vs_clients_info",
    .subject = "clients of object",
    .key_is_object = true,
    .shape = {client_list_fields, "clients", true},
    .columns = {{"OBJECT", true}, {"JID", true}, {"PID", true}, {"DATA", false}},
    .invalid_key = VS_FAULT_INVALID_OBJECT_ID,
    .get = get<vs_clients_info_kvs_rec, vs_kvs_get_clients_info_rec>,
    .list = list<vs_clients_info_kvs_rec, vs_kvs_get_clients_info_all_recs>,
    .insert = insert<vs_clients_info_kvs_rec, vs_kvs_insert_clients_info_rec>,
    .erase = vs_kvs_delete_clients_info_rec,
};

const database registrations{
    .name = "vs_clientobjectsreg",
    .subject = "registration of job",
    .key_is_object = false,
    .shape = {registration_fields, "vs_array", false},
    .columns = {{"JID", true}, {"OBJECTS", false}},
    .invalid_key = VS_FAULT_INVALID_CLIENT_JID,
    .get = get<vs_client_objects_reg_kvs_rec, vs_kvs_get_client_objects_reg_rec>,
    .list = list<vs_client_objects_reg_kvs_rec, vs_kvs_get_client_objects_reg_all_recs>,
    .insert = insert<vs_client_objects_reg_kvs_rec, vs_kvs_insert_client_objects_reg_rec>,
    .erase = nullptr,
};

std::string subject(const database &db, uint32_t key)
{
    return std::string(db.subject) + " " + (db.key_is_object ? hex : decimal)(key);
}

words read(const database &db, uint32_t key)
{
    words record;
    require(db.get(db.shape, key, record), db, key);
    if (record.empty())
        throw failure(subject(db, key) + ": the stored record is empty");
    return record;
}

std::vector<words> read_all(const database &db)
{
    std::vector<words> records;
    const status rc = db.list(db.shape, records);
    if (rc == VS_FAULT_KVS_DB_LOOKUP)
        bind(db, db.name);
    if (rc == VS_FAULT_KVS_READ_NULL_REC)
        throw failure(std::string(db.name) + ": " + describe(rc) + "; 'vskvs check' finds it");
    if (rc != VS_FAULT_KVS_DB_EMPTY)
        require(rc, db.name);
    return records;
}

void require(status rc, const database &db, uint32_t key)
{
    if (rc == VS_FAULT_KVS_DB_LOOKUP)
        bind(db, subject(db, key));
    require(rc, subject(db, key));
}

std::string client_data_text(std::span<const uint32_t> client)
{
    unsigned char bytes[client_data_size];
    memcpy(bytes, &client[2], sizeof bytes);
    std::string text;
    for (const unsigned char byte : bytes) {
        text += hex_digits[byte >> 4];
        text += hex_digits[byte & 0xF];
    }
    return text;
}

bool parse_client_data(const std::string &text, std::span<uint32_t> client)
{
    unsigned char bytes[client_data_size] = {};
    if (text.size() > 2 * client_data_size || text.size() % 2 != 0)
        return false;
    for (size_t i = 0; i < text.size(); ++i) {
        const int letter = tolower(static_cast<unsigned char>(text[i]));
        const char *const digit = strchr(hex_digits, letter);
        if (!digit || letter == '\0')
            return false;
        const auto value = static_cast<unsigned>(digit - hex_digits);
        bytes[i / 2] = static_cast<unsigned char>(bytes[i / 2] * 16u + value);
    }
    memcpy(&client[2], bytes, sizeof bytes);
    return true;
}

json to_json(const shape &of, const words &record)
{
    json result;
    for (size_t i = 0; i < of.fields.size(); ++i)
        result[of.fields[i]] = record[i];
    json &elements = result[of.elements] = json::array();
    for (size_t i = 0; i < of.count(record); ++i) {
        const auto element = of.element(record, i);
        if (of.elements_are_clients)
            elements.push_back({{"jid", element[0]},
                                {"pid", element[1]},
                                {"client_data", client_data_text(element)}});
        else
            elements.push_back(element[0]);
    }
    return result;
}

void print_records(const database &db, const std::vector<words> &records)
{
    std::vector<std::vector<std::string>> rows;
    for (const words &record : records)
        std::ranges::move(rows_of(db, record), std::back_inserter(rows));
    print_table(db.columns, rows);
}

words from_json(const shape &of, const json_line &line, std::span<const fixed_value> fixed,
                const char *tag)
{
    refuse_others(line, "", of.fields, {of.elements, tag});
    words record(of.fields.size());
    const size_t plain = of.fields.size() - (of.elements ? 1 : 0);
    for (size_t i = 0; i < plain; ++i) {
        const std::string name = of.fields[i];
        const auto only = std::ranges::find_if(
            fixed, [&](const fixed_value &value) { return name == value.field; });
        if (only == fixed.end())
            refuse_missing(line, "", of.fields[i]);
        record[i] = line.value().contains(name) ? line.number_at("/" + name) : only->value;
        if (only != fixed.end() && record[i] != only->value)
            line.refuse("/" + name, "bulk population stores " + name + " " +
                                        std::to_string(only->value) + " and nothing else");
    }
    if (of.elements)
        append_elements(of, line, record);
    return record;
}

// ---- the store as a whole ----

void initialize(const std::string &command)
{
    const status rc = vs_kvs_initialize(0);
    if (rc == 0)
        return;
    fputc('\n', stderr); // the library leaves its own line open
    require(rc, command);
}

kvs_hdl bind(const database &db, const std::string &subject)
{
    kvs_hdl handle = 0;
    const status rc = kvs_lookup_db_handle(db.name, &handle);
    if (rc == 0)
        return handle;
    throw failure(
        subject + ": " + describe(VS_FAULT_KVS_DB_LOOKUP) +
        (rc == KVS_RC_NO_SUCH_DB ? ": no store here yet; run 'vskvs init'" : ": " + describe(rc)));
}

void change_all(const std::function<void()> &work)
{
    for (const bool may_repeat : {true, false}) {
        batch changes;
        try {
            work();
            changes.commit();
            return;
        } catch (const status_failure &error) {
            if (error.status != KVS_RC_BATCH_FULL || !may_repeat)
                throw;
        }
    }
}

void look_at_all(const std::function<void()> &work)
{
    const batch unchanged;
    work();
}

} // namespace vskvs
