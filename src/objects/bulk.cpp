// Populating the VS objects database, and selecting versions in bulk.
#include "core/state.h"
#include "objects/schema.h"

using namespace vs_kvs;
using namespace vs_kvs::objects;

namespace {

// Both operations refuse to run before all databases are open.
template <class M>
[[nodiscard]] uint32_t check_initialized()
{
    if (load(g_vs_kvs_dbs_initialized) != 0)
        return 0;
    return fail<M, M::not_initialized>(VS_FAULT_KVS_DB_LOOKUP);
}

template <class M>
void print_elements(const vs_object_sel_entry *elements, uint32_t count)
{
    for (uint32_t i = 0; i < count; ++i)
        report<M, M::element>(object_id{elements[i].vs_object_id},
                              selected_version{elements[i].selected_version});
}

[[nodiscard]] uint32_t insert_element(const vs_object_sel_entry &element, const uint32_t *versions,
                                      uint32_t count, kvs_rec_hdl *handle_p)
{
    using m = bulk_insert;
    const object_id id{element.vs_object_id};
    const selected_version selected{element.selected_version};
    const uint64_t flat = database::layout.length(count);
    const uint32_t length = clamp_length(flat);
    block<vs_objects_kvs_rec> record;
    if (length == flat)
        record.reset(static_cast<vs_objects_kvs_rec *>(calloc(1, length)));
    const uint32_t allocated = record != nullptr ? 0 : no_memory<m>(length, m::block_label);
    report<m, m::after_allocation>(id, record_address{record.get()}, status_text{allocated});
    if (record == nullptr)
        return allocated;

    record->vs_object_id = element.vs_object_id;
    record->selected_version = element.selected_version;
    record->is_changed = 1;
    record->supp_count = count;
    if (count != 0)
        memcpy(record->supp_versions, versions, size_t{count} * sizeof *versions);

    report<m, m::before_insert>(id, selected);
    const uint32_t status = vs_kvs_insert_vs_object_rec(record.get(), handle_p);
    if (status != 0)
        return fail<m, m::element_failed>(status, id);
    report<m, m::element_inserted>(id, selected);
    return 0;
}

} // namespace

extern "C" {

uint32_t g_vs_objects_db_populated = 0;

uint32_t vs_kvs_is_populated(void) { return load(g_vs_objects_db_populated); }

uint32_t vs_kvs_insert_vs_objects(const vs_object_sel_entry *vs_array, uint32_t vs_count,
                                  const uint32_t *const *versions_array_array,
                                  const uint32_t *versions_count_array)
{
    using m = bulk_insert;
    uint32_t status = check_initialized<m>();
    if (status == 0 && vs_count != 0) {
        status = require_pointer<m>(vs_array, "vs_array");
        if (status == 0)
            status = require_pointer<m>(versions_array_array, "versions_array_array");
        if (status == 0)
            status = require_pointer<m>(versions_count_array, "versions_count_array");
    }
    if (status != 0)
        return status;

    report<m, m::starts>(element_count{vs_count});
    print_elements<m>(vs_array, vs_count);
    kvs_rec_hdl handle = UINT64_MAX;
    for (uint32_t i = 0; i < vs_count; ++i) {
        status =
            insert_element(vs_array[i], versions_array_array[i], versions_count_array[i], &handle);
        if (status != 0)
            return status;
    }
    store(g_vs_objects_db_populated, uint32_t{1});
    report<m, m::populated>(element_count{vs_count});
    return 0;
}

uint32_t vs_kvs_update_vs_objects(const vs_object_sel_entry *vs_array, uint32_t vs_count)
{
    using m = bulk_update;
    uint32_t status = check_initialized<m>();
    if (status != 0 || vs_count == 0)
        return status;
    status = require_pointer<m>(vs_array, "vs_array");
    if (status != 0)
        return status;

    report<m, m::starts>(element_count{vs_count});
    print_elements<m>(vs_array, vs_count);
    for (uint32_t i = 0; i < vs_count; ++i) {
        const object_id id{vs_array[i].vs_object_id};
        const selected_version selected{vs_array[i].selected_version};
        status = vs_kvs_update_vs_object_selected_version(id.value, selected.value);
        if (status == VS_FAULT_NO_SUCH_OBJECT)
            report<m, m::element_filtered>(id, selected);
        else if (status == 0)
            report<m, m::element_updated>(id, selected);
        else
            return fail<m, m::element_failed>(status, id, selected);
    }
    return 0;
}

} // extern "C"
