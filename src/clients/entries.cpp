// Adding and updating the clients of a VS object.
#include "clients/schema.h"
#include "core/update.h"

using namespace vs_kvs;
using namespace vs_kvs::clients;

namespace {

// Returns the index of the first client with a jid, or the number of clients. Calls `each` with the
// index of every client that is compared.
template <class Each>
uint32_t find_client(const vs_clients_info_kvs_rec &record, uint32_t jid, Each each)
{
    for (uint32_t i = 0; i < record.clients_count; ++i) {
        each(i);
        if (record.clients[i].jid == jid)
            return i;
    }
    return record.clients_count;
}

// Both operations check their argument first.
template <class M>
[[nodiscard]] uint32_t load_list(object_id key, const vs_client_info_entry *client,
                                 working_copy<database> &copy)
{
    const uint32_t status = require_pointer<M>(client, "new_client");
    return status != 0 ? status
                       : load_for_update<database, M>(key, look_up_handle<database, get_rec_hdl>,
                                                      read_list, copy);
}

// The client that was read back where one was stored: all zeros, and absent, if the list no longer
// reaches that far.
struct stored_client {
    bool is_present = false;
    vs_client_info_entry client{};
};

// Writes the first `length` bytes of the list back, which has the client at `index`, and reads the
// list again.
template <class M>
[[nodiscard]] uint32_t store_client(object_id key, const working_copy<database> &copy,
                                    uint32_t length, uint32_t index, stored_client &found)
{
    const vs_clients_info_kvs_rec &record = *copy.record.data;
    const vs_client_info_entry &client = record.clients[index];
    uint32_t status = write_back<database, M>(copy.handle[0], &record, length);
    if (status != 0)
        return status;
    report<M, M::written>(object_id{record.vs_object_id}, job_id{client.jid},
                          process_id{client.pid});

    sized_record<vs_clients_info_kvs_rec> stored;
    status = read_back<database, M>(key, read_list, stored);
    if (status == 0 && index < stored.data->clients_count)
        found = {true, stored.data->clients[index]};
    return status;
}

} // namespace

extern "C" {

uint32_t vs_kvs_add_new_client_info(uint32_t vs_object_id, const vs_client_info_entry *new_client)
{
    using m = add_client;
    const object_id key{vs_object_id};
    working_copy<database> copy;
    uint32_t status = load_list<m>(key, new_client, copy);
    if (status != 0)
        return status;
    const auto &record = copy.record.data;
    if (record == nullptr)
        return fail<m, m::copy_failed>(VS_FAULT_KVS_READ_NULL_REC, key);
    const uint32_t old_count = record->clients_count;
    report<m, m::copied>(record_address{record.get()}, clients_address{record->clients},
                         client_count{old_count}, key);

    const auto scan = [&](uint32_t i) {
        report<m, m::scanned>(database::element_facts(*record, i));
    };
    if (find_client(*record, new_client->jid, scan) != old_count)
        return VS_FAULT_KVS_CLIENT_ALREADY_EXIST;

    status = grow<database, m>(copy.record);
    if (status != 0)
        return status;
    record->clients[old_count] = *new_client;
    const job_id jid{new_client->jid};
    report<m, m::appended>(object_id{record->vs_object_id}, jid, process_id{new_client->pid},
                           client_count{record->clients_count});

    stored_client found;
    status = store_client<m>(key, copy, copy.record.length, old_count, found);
    if (status != 0)
        return status;
    if (!found.is_present || found.client.jid != jid.value)
        return fail<m, m::sanity_failed>(VS_FAULT_KVS_ADD_SANITY, key, jid,
                                         jid_read{found.client.jid});
    report<m, m::sanity_passed>(key, jid);
    return 0;
}

// The write covers the stored length, which another writer may have changed meanwhile, but never
// more than the working copy holds.
uint32_t vs_kvs_update_client_info(uint32_t vs_object_id, const vs_client_info_entry *new_client)
{
    using m = update_client;
    const object_id key{vs_object_id};
    working_copy<database> copy;
    uint32_t status = load_list<m>(key, new_client, copy);
    if (status != 0)
        return status;
    const auto &record = copy.record.data;
    report<m, m::copied>(record_address{record.get()}, key);

    const job_id jid{new_client->jid};
    const process_id pid{new_client->pid};
    const uint32_t count = record != nullptr ? record->clients_count : 0;
    const uint32_t match = count != 0 ? find_client(*record, jid.value, [](auto) {}) : 0;
    if (match == count)
        return fail<m, m::no_match>(VS_FAULT_INVALID_CLIENT_JID, jid, key);
    report<m, m::match>(object_id{record->vs_object_id}, jid,
                        stored_pid{record->clients[match].pid}, pid);
    record->clients[match] = *new_client;

    uint32_t stored_length = 0;
    status = kvs_get_object_size(handle_of<database>(), &copy.handle[0], &stored_length);
    if (status != 0)
        return fail<m, m::size_failed>(status, key);
    stored_client found;
    status = store_client<m>(key, copy, std::min(stored_length, copy.record.length), match, found);
    if (status != 0)
        return status;
    if (!found.is_present || found.client.pid != pid.value)
        return fail<m, m::sanity_failed>(VS_FAULT_KVS_UPDATE_SANITY, jid, pid,
                                         pid_read{found.client.pid});
    report<m, m::sanity_passed>(key, jid);
    return 0;
}

} // extern "C"
