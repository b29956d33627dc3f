// Populating the VS objects database, and selecting versions in bulk.
#include "frame/state.h"
#include "objects/database.h"

using namespace vs_kvs;
using namespace vs_kvs::objects;

namespace {

// Both operations refuse to run before all databases are open.
template <class S>
std::uint32_t check_initialized()
{
    if (load(g_vs_kvs_dbs_initialized) != 0)
        return 0;
    return fail<S>(S::not_initialized, VS_FAULT_KVS_DB_LOOKUP);
}

template <class S>
void dump_elements(const vs_object_sel_entry *elements, std::uint32_t count)
{
    for (std::uint32_t i = 0; i < count; ++i)
        report<S>(S::element, object_id{elements[i].vs_object_id},
                  selected_version{elements[i].selected_version});
}

std::uint32_t insert_element(const vs_object_sel_entry &element, const std::uint32_t *versions,
                             std::uint32_t count, kvs_rec_hdl *handle_p)
{
    using s = bulk_insert;
    const object_id id{element.vs_object_id};
    const selected_version selected{element.selected_version};
    const std::uint64_t flat = flat_length<database>(count);
    const std::uint32_t length = told_length(flat);
    block<vs_objects_kvs_rec> record;
    if (length == flat)
        record.reset(static_cast<vs_objects_kvs_rec *>(std::calloc(1, length)));
    const std::uint32_t allocated = record ? 0 : no_memory<s>(length, s::block_label);
    report<s>(s::after_allocation, id, address<"record">{record.get()}, status_text{allocated});
    if (!record)
        return allocated;

    record->vs_object_id = element.vs_object_id;
    record->selected_version = element.selected_version;
    record->is_changed = 1;
    record->supp_count = count;
    if (count != 0)
        std::memcpy(record->supp_versions, versions, std::size_t{count} * sizeof *versions);

    report<s>(s::before_insert, id, selected);
    const std::uint32_t rc = vs_kvs_insert_vs_object_rec(record.get(), handle_p);
    if (rc != 0)
        return fail<s>(s::element_failed, rc, id);
    report<s>(s::element_inserted, id, selected);
    return 0;
}

} // namespace

extern "C" {

std::uint32_t vs_kvs_insert_vs_objects(const vs_object_sel_entry *vs_array, std::uint32_t vs_count,
                                       const std::uint32_t *const *versions_array_array,
                                       const std::uint32_t *versions_count_array)
{
    using s = bulk_insert;
    std::uint32_t rc = check_initialized<s>();
    if (rc == 0 && vs_count != 0) {
        rc = required<s>(vs_array, "vs_array");
        if (rc == 0)
            rc = required<s>(versions_array_array, "versions_array_array");
        if (rc == 0)
            rc = required<s>(versions_count_array, "versions_count_array");
    }
    if (rc != 0)
        return rc;

    report<s>(s::starts, element_count{vs_count});
    dump_elements<s>(vs_array, vs_count);
    kvs_rec_hdl handle = UINT64_MAX;
    for (std::uint32_t i = 0; i < vs_count; ++i) {
        rc = insert_element(vs_array[i], versions_array_array[i], versions_count_array[i], &handle);
        if (rc != 0)
            return rc;
    }
    store(g_vs_objects_db_populated, std::uint32_t{1});
    report<s>(s::populated, element_count{vs_count});
    return 0;
}

std::uint32_t vs_kvs_update_vs_objects(const vs_object_sel_entry *vs_array, std::uint32_t vs_count)
{
    using s = bulk_update;
    std::uint32_t rc = check_initialized<s>();
    if (rc != 0 || vs_count == 0)
        return rc;
    rc = required<s>(vs_array, "vs_array");
    if (rc != 0)
        return rc;

    report<s>(s::starts, element_count{vs_count});
    dump_elements<s>(vs_array, vs_count);
    for (std::uint32_t i = 0; i < vs_count; ++i) {
        const object_id id{vs_array[i].vs_object_id};
        const selected_version selected{vs_array[i].selected_version};
        rc = vs_kvs_update_vs_object_selected_version(id.value, selected.value);
        if (rc == VS_FAULT_NO_SUCH_OBJECT)
            report<s>(s::element_filtered, id, selected);
        else if (rc == 0)
            report<s>(s::element_updated, id, selected);
        else
            return fail<s>(s::element_failed, rc, id, selected);
    }
    return 0;
}

} // extern "C"
