// The commands that change one record.
#include "tools/commands.h"
#include "vs_kvs.h"

#include <algorithm>

namespace vskvs {
namespace {

void insert(const database &db, const words &record)
{
    require(record[0] == 0 ? db.invalid_key : db.insert(record), db, record[0]);
}

// The fixed fields up to the count, the count, and the numbers.
words record_of(words fields, const std::vector<uint32_t> &numbers)
{
    fields.push_back(static_cast<uint32_t>(numbers.size()));
    fields.insert(fields.end(), numbers.begin(), numbers.end());
    return fields;
}

words client_words(const arguments &given)
{
    words client{given.jid, given.pid, 0, 0, 0};
    if (!parse_client_data(given.data, client))
        throw wrong_usage("--data: not an even number of at most 24 hex digits: " + given.data);
    return client;
}

vs_client_info_entry entry_of(const words &client)
{
    vs_client_info_entry entry;
    static_assert(sizeof entry == 5 * sizeof client[0]);
    std::copy_n(reinterpret_cast<const char *>(client.data()), sizeof entry,
                reinterpret_cast<char *>(&entry));
    return entry;
}

} // namespace

void init(const arguments &) { initialize("init"); }

void add_object(const arguments &given)
{
    insert(objects, record_of({given.id, given.version, given.optional_compatible, given.scope,
                               given.changed},
                              given.versions));
}

void select_version(const arguments &given)
{
    require(vs_kvs_update_vs_object_selected_version(given.id, given.version), objects, given.id);
}

void create_client_list(const arguments &given) { insert(clients, record_of({given.id}, {})); }

void add_client(const arguments &given)
{
    const vs_client_info_entry entry = entry_of(client_words(given));
    require(vs_kvs_add_new_client_info(given.id, &entry), clients, given.id);
}

// The library replaces the whole entry. Data that the user does not give is to stay as it is, so it
// is read first; where there is nothing to read, the update itself says what is wrong.
void update_client(const arguments &given)
{
    words client = client_words(given);
    words stored;
    if (given.data.empty() && clients.get(clients.shape, given.id, stored) == 0 && !stored.empty())
        for (size_t i = clients.shape.count(stored); i-- > 0;)
            if (const auto old = clients.shape.element(stored, i); old[0] == given.jid)
                std::ranges::copy(old.subspan(2), client.begin() + 2);
    const vs_client_info_entry entry = entry_of(client);
    require(vs_kvs_update_client_info(given.id, &entry), clients, given.id);
}

void create_registration(const arguments &given)
{
    insert(registrations, record_of({given.id}, given.ids));
}

void add_to_registration(const arguments &given)
{
    require(vs_kvs_add_new_client_objects_reg_object(given.jid, given.id), registrations,
            given.jid);
}

} // namespace vskvs
