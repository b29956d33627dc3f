// The three databases and the library's operations on them.
#include "tools/records.h"

#include "core/block.h"
#include "databases.h"
#include "vs_kvs.h"

#include <array>
#include <cstring>

namespace vskvs {
namespace {

using vs_kvs::block;

words copy_of(const shape &of, const void *record)
{
    words copy(of.fixed());
    memcpy(copy.data(), record, copy.size() * sizeof copy[0]);
    copy.resize(of.length(of.count(copy)));
    memcpy(copy.data(), record, copy.size() * sizeof copy[0]);
    return copy;
}

template <class Record, uint32_t (*Get)(uint32_t, Record **)>
[[nodiscard]] uint32_t get(const shape &of, uint32_t key, words &record)
{
    Record *found = nullptr;
    const uint32_t status = Get(key, &found);
    const block<Record> owner(found);
    if (status == 0)
        record = found != nullptr ? copy_of(of, found) : words{};
    return status;
}

template <class Record, uint32_t (*List)(uint32_t *, Record ***)>
[[nodiscard]] uint32_t list(const shape &of, std::vector<words> &records)
{
    uint32_t count = 0;
    Record **found = nullptr;
    const uint32_t status = List(&count, &found);
    const block<Record *> array(found);
    for (uint32_t i = 0; status == 0 && i < count; ++i) {
        const block<Record> owner(found[i]);
        records.push_back(copy_of(of, found[i]));
    }
    return status;
}

template <class Record, uint32_t (*Insert)(const Record *, kvs_rec_hdl *)>
[[nodiscard]] uint32_t insert(const words &record)
{
    kvs_rec_hdl handle = 0;
    return Insert(reinterpret_cast<const Record *>(record.data()), &handle);
}

} // namespace

const database objects{
    .name = vs_kvs::objects::database::name,
    .subject = "object",
    .key_is_object = true,
    .shape = shape(vs_kvs::objects::database::layout),
    .columns = {{"OBJECT", true},
                {"SELECTED", true},
                {"COMPATIBLE", true},
                {"SCOPE", true},
                {"CHANGED", true},
                {"SUPPORTED", false}},
    .invalid_key = vs_kvs::objects::database::invalid_key,
    .get = get<vs_objects_kvs_rec, vs_kvs_get_vs_object_rec>,
    .list = list<vs_objects_kvs_rec, vs_kvs_get_vs_objects_all_recs>,
    .insert = insert<vs_objects_kvs_rec, vs_kvs_insert_vs_object_rec>,
    .erase = vs_kvs_delete_vs_object,
};

const database clients{
    .name = vs_kvs::clients::database::name,
    .subject = "clients of object",
    .key_is_object = true,
    .shape = shape(vs_kvs::clients::database::layout),
    .columns = {{"OBJECT", true}, {"JID", true}, {"PID", true}, {"DATA", false}},
    .invalid_key = vs_kvs::clients::database::invalid_key,
    .get = get<vs_clients_info_kvs_rec, vs_kvs_get_clients_info_rec>,
    .list = list<vs_clients_info_kvs_rec, vs_kvs_get_clients_info_all_recs>,
    .insert = insert<vs_clients_info_kvs_rec, vs_kvs_insert_clients_info_rec>,
    .erase = vs_kvs_delete_clients_info_rec,
};

const database registrations{
    .name = vs_kvs::registrations::database::name,
    .subject = "registration of job",
    .key_is_object = false,
    .shape = shape(vs_kvs::registrations::database::layout),
    .columns = {{"JID", true}, {"OBJECTS", false}},
    .invalid_key = vs_kvs::registrations::database::invalid_key,
    .get = get<vs_client_objects_reg_kvs_rec, vs_kvs_get_client_objects_reg_rec>,
    .list = list<vs_client_objects_reg_kvs_rec, vs_kvs_get_client_objects_reg_all_recs>,
    .insert = insert<vs_client_objects_reg_kvs_rec, vs_kvs_insert_client_objects_reg_rec>,
    .erase = nullptr,
};

namespace {

// What the tool adds to each database of the library's list.
template <class Db>
constexpr const database *view_of = nullptr;
template <>
constexpr const database *view_of<vs_kvs::objects::database> = &objects;
template <>
constexpr const database *view_of<vs_kvs::clients::database> = &clients;
template <>
constexpr const database *view_of<vs_kvs::registrations::database> = &registrations;

template <class... Dbs>
constexpr std::array<const database *, sizeof...(Dbs)> views_of(vs_kvs::database_list<Dbs...>)
{
    static_assert((... && (view_of<Dbs> != nullptr)), "a database that the tool does not show");
    return {view_of<Dbs>...};
}

constexpr auto all_views = views_of(vs_kvs::databases{});

} // namespace

const std::span<const database *const> databases = all_views;

std::string subject(const database &db, uint32_t key)
{
    return std::string(db.subject) + " " + (db.key_is_object ? hex(key) : std::to_string(key));
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
    const uint32_t status = db.list(db.shape, records);
    if (status == VS_FAULT_KVS_DB_LOOKUP)
        bind(db, db.name);
    if (status == VS_FAULT_KVS_READ_NULL_REC)
        throw failure(std::string(db.name) + ": " + describe(status) + "; 'vskvs check' finds it");
    if (status != VS_FAULT_KVS_DB_EMPTY)
        require(status, db.name);
    return records;
}

void require(uint32_t status, const database &db, uint32_t key)
{
    if (status == VS_FAULT_KVS_DB_LOOKUP)
        bind(db, subject(db, key));
    require(status, subject(db, key));
}

kvs_hdl bind(const database &db, const std::string &subject)
{
    kvs_hdl handle = 0;
    const uint32_t status = kvs_lookup_db_handle(db.name, &handle);
    if (status == 0)
        return handle;
    throw failure(subject + ": " + describe(VS_FAULT_KVS_DB_LOOKUP) +
                  (status == KVS_RC_NO_SUCH_DB ? ": no store here yet; run 'vskvs init'"
                                               : ": " + advise(status)));
}

} // namespace vskvs
