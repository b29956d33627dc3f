// Adding and updating the clients of a VS object.
#include "clients/schema.h"
#include "core/update.h"

using namespace vs_kvs;
using namespace vs_kvs::clients;

namespace {

// The index of the first client with a jid, or the number of clients. Each client that is looked at
// is told to `look`.
template <class Look>
uint32_t find_client(const vs_clients_info_kvs_rec &record, uint32_t jid, Look look)
{
    for (uint32_t i = 0; i < record.clients_count; ++i) {
        look(i);
        if (record.clients[i].jid == jid)
            return i;
    }
    return record.clients_count;
}

// Writes the list back with `client` at `index`, and reads it again. `found` receives the client
// that is there now, all zeros when the list no longer reaches that far; `is_there` tells the two
// apart.
template <class S>
uint32_t store_client(object_id key, const kvs_rec_hdl &handle,
                      const vs_clients_info_kvs_rec &record, uint32_t length, uint32_t index,
                      vs_client_info_entry &found, bool &is_there)
{
    const vs_client_info_entry &client = record.clients[index];
    uint32_t status = write_back<database, S>(handle, &record, length);
    if (status != 0)
        return status;
    report<S>(S::written, object_id{record.vs_object_id}, job_id{client.jid},
              process_id{client.pid});

    block<vs_clients_info_kvs_rec> stored;
    status = read_back<database, S>(key, stored);
    if (status != 0)
        return status;
    is_there = index < stored->clients_count;
    found = is_there ? stored->clients[index] : vs_client_info_entry{};
    return 0;
}

// The check of the arguments that both operations start with.
template <class S>
uint32_t obtain_list(object_id key, const vs_client_info_entry *client, handle_array &handle,
                     block<vs_clients_info_kvs_rec> &record)
{
    const uint32_t status = required<S>(client, "new_client");
    return status != 0 ? status : obtain<database, S>(key, handle, record);
}

} // namespace

extern "C" {

uint32_t vs_kvs_add_new_client_info(uint32_t vs_object_id, const vs_client_info_entry *new_client)
{
    using s = add_client;
    const object_id key{vs_object_id};
    handle_array handle;
    block<vs_clients_info_kvs_rec> record;
    uint32_t status = obtain_list<s>(key, new_client, handle, record);
    if (status != 0)
        return status;
    if (!record)
        return fail<s>(s::copy_failed, VS_FAULT_KVS_READ_NULL_REC, key);
    const uint32_t old_count = record->clients_count;
    report<s>(s::copied, address<"record">{record.get()}, address<"clients">{record->clients},
              client_count{old_count}, key);

    const auto tell = [&](uint32_t i) {
        report<s>(s::scanned, database::element_facts(*record, i));
    };
    if (find_client(*record, new_client->jid, tell) != old_count)
        return VS_FAULT_KVS_CLIENT_ALREADY_EXIST;

    status = grow<database, s>(record);
    if (status != 0)
        return status;
    record->clients[old_count] = *new_client;
    const object_id stored_id{record->vs_object_id};
    const job_id jid{new_client->jid};
    const process_id pid{new_client->pid};
    report<s>(s::appended, stored_id, jid, pid, client_count{record->clients_count});

    const auto length = static_cast<uint32_t>(flat_length<database>(record->clients_count));
    vs_client_info_entry found;
    bool is_there = false;
    status = store_client<s>(key, handle[0], *record, length, old_count, found, is_there);
    if (status != 0)
        return status;
    if (!is_there || found.jid != jid.value)
        return fail<s>(s::sanity_failed, VS_FAULT_KVS_ADD_SANITY, key, jid, jid_read{found.jid});
    report<s>(s::sanity_passed, key, jid);
    return 0;
}

// The write covers the stored length, which another writer may have changed meanwhile, but never
// more than the working copy holds.
uint32_t vs_kvs_update_client_info(uint32_t vs_object_id, const vs_client_info_entry *new_client)
{
    using s = update_client;
    const object_id key{vs_object_id};
    handle_array handle;
    block<vs_clients_info_kvs_rec> record;
    uint32_t status = obtain_list<s>(key, new_client, handle, record);
    if (status != 0)
        return status;
    report<s>(s::copied, address<"record">{record.get()}, key);

    const job_id jid{new_client->jid};
    const process_id pid{new_client->pid};
    const uint32_t count = record ? record->clients_count : 0;
    const uint32_t match = record ? find_client(*record, jid.value, [](auto) {}) : 0;
    if (match == count)
        return fail<s>(s::no_match, VS_FAULT_INVALID_CLIENT_JID, jid, key);
    const object_id stored_id{record->vs_object_id};
    report<s>(s::match, stored_id, jid, stored_pid{record->clients[match].pid}, pid);
    record->clients[match] = *new_client;

    uint32_t stored_length = 0;
    status = kvs_get_object_size(handle_of<database>(), &handle[0], &stored_length);
    if (status != 0)
        return fail<s>(s::size_failed, status, key);
    const uint32_t length = told_length(
        std::min<uint64_t>(stored_length, flat_length<database>(record->clients_count)));
    vs_client_info_entry found;
    bool is_there = false;
    status = store_client<s>(key, handle[0], *record, length, match, found, is_there);
    if (status != 0)
        return status;
    if (!is_there || found.pid != pid.value)
        return fail<s>(s::sanity_failed, VS_FAULT_KVS_UPDATE_SANITY, jid, pid, pid_read{found.pid});
    report<s>(s::sanity_passed, key, jid);
    return 0;
}

} // extern "C"
