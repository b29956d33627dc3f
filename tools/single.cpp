// The commands that change one record.
#include "tools/commands.h"
#include "tools/store.h"
#include "vs_kvs.h"

#include <algorithm>

namespace vskvs {
namespace {

void insert(const database &db, const words &record)
{
    require(key_of(record) == 0 ? db.invalid_key : db.insert(record), db, key_of(record));
}

// A record of the database with these elements, which are numbers; its other fields are set after.
words new_record(const database &db, uint32_t key, const std::vector<uint32_t> &elements)
{
    words record(db.shape.fixed());
    record[0] = key;
    db.shape.set_count(record, static_cast<uint32_t>(elements.size()));
    record.insert(record.end(), elements.begin(), elements.end());
    return record;
}

std::span<unsigned char> data_of(vs_client_info_entry &client)
{
    return {reinterpret_cast<unsigned char *>(client.client_data), sizeof client.client_data};
}

vs_client_info_entry client_of(const arguments &given)
{
    vs_client_info_entry client{};
    client.jid = given.jid;
    client.pid = given.pid;
    if (!parse_hex_bytes(given.data, data_of(client)))
        throw wrong_usage("--data: not an even number of at most 24 hex digits: " + given.data);
    return client;
}

} // namespace

void init(const arguments &) { initialize("init"); }

void add_object(const arguments &given)
{
    words record = new_record(objects, given.id, given.versions);
    auto &object = *reinterpret_cast<vs_objects_kvs_rec *>(record.data());
    object.selected_version = given.version;
    object.is_optional_compatible = given.optional_compatible;
    object.scope = given.scope;
    object.is_changed = given.changed;
    insert(objects, record);
}

void select_version(const arguments &given)
{
    require(vs_kvs_update_vs_object_selected_version(given.id, given.version), objects, given.id);
}

void create_client_list(const arguments &given)
{
    insert(clients, new_record(clients, given.id, {}));
}

void add_client(const arguments &given)
{
    const vs_client_info_entry client = client_of(given);
    require(vs_kvs_add_new_client_info(given.id, &client), clients, given.id);
}

// The library replaces the whole entry. Data that the user does not give is to stay as it is, so it
// is read first; if that fails, the update reports the error.
void update_client(const arguments &given)
{
    vs_client_info_entry client = client_of(given);
    words stored;
    if (given.data.empty() && clients.get(clients.shape, given.id, stored) == 0 && !stored.empty())
        for (size_t i = clients.shape.count(stored); i-- > 0;)
            if (const auto &old = as<vs_client_info_entry>(clients.shape.element(stored, i));
                old.jid == given.jid)
                std::ranges::copy(old.client_data, client.client_data);
    require(vs_kvs_update_client_info(given.id, &client), clients, given.id);
}

void create_registration(const arguments &given)
{
    insert(registrations, new_record(registrations, given.id, given.ids));
}

void add_to_registration(const arguments &given)
{
    require(vs_kvs_add_new_client_objects_reg_object(given.jid, given.id), registrations,
            given.jid);
}

} // namespace vskvs
