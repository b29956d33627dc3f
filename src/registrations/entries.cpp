// Adding a VS object to a job's registration.
#include "core/update.h"
#include "registrations/schema.h"

using namespace vs_kvs;
using namespace vs_kvs::registrations;

namespace {

// Appends the VS object to the working copy, unless it is registered already.
[[nodiscard]] uint32_t append(sized_record<vs_client_objects_reg_kvs_rec> &copy, job_id key,
                              object_id object)
{
    using m = add_object;
    const auto &record = copy.data;
    const uint32_t old_count = record->vs_count;
    const job_id stored_jid{record->jid};
    const uint32_t *const end = record->vs_array + old_count;
    if (std::find(record->vs_array, record->vs_array + old_count, object.value) != end) {
        report<m, m::duplicate>(object, stored_jid);
        return VS_FAULT_KVS_REG_ALREADY_EXIST;
    }
    report<m, m::copied>(record_address{record.get()}, key);
    const uint32_t status = grow<database, m>(copy);
    if (status != 0)
        return status;
    record->vs_array[old_count] = object.value;
    report<m, m::appended>(stored_jid, object, object_count{record->vs_count});
    return 0;
}

} // namespace

// A stored record of length 0 leaves nothing to append to; the empty write that follows leaves the
// outcome to the store and the read-back.
extern "C" uint32_t vs_kvs_add_new_client_objects_reg_object(uint32_t jid, uint32_t vs_object_id)
{
    using m = add_object;
    const job_id key{jid};
    const object_id object{vs_object_id};
    if (vs_object_id == 0)
        return fail<m, m::invalid_object>(VS_FAULT_INVALID_OBJECT_ID, object);
    constexpr auto read = read_record<database, get_rec>;
    working_copy<database> copy;
    uint32_t status =
        load_for_update<database, m>(key, look_up_handle<database, get_rec_hdl>, read, copy);
    const auto &record = copy.record.data;
    const uint32_t old_count = record != nullptr ? record->vs_count : 0;
    if (status == 0 && record != nullptr)
        status = append(copy.record, key, object);
    if (status != 0)
        return status;

    const uint64_t length = record != nullptr ? database::layout.length(record->vs_count) : 0;
    status = write_back<database, m>(copy.handle[0], record.get(), static_cast<uint32_t>(length));
    if (status != 0)
        return status;
    if (record != nullptr)
        report<m, m::written>(job_id{record->jid}, object);

    sized_record<vs_client_objects_reg_kvs_rec> stored;
    status = read_back<database, m>(key, read, stored);
    if (status != 0)
        return status;
    const bool is_stored = old_count < stored.data->vs_count;
    const object_read found{is_stored ? stored.data->vs_array[old_count] : 0};
    if (!is_stored || found.value != object.value)
        return fail<m, m::sanity_failed>(VS_FAULT_KVS_ADD_SANITY, object, found);
    report<m, m::sanity_passed>(found, key);
    return 0;
}
