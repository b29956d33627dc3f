// A platform that costs nothing: one record that is always found, and reports that go nowhere. A
// program that names it before the real one measures what the library does by itself.
#include "fault.h"
#include "jobctl.h"
#include "kvs.h"
#include "loader.h"
#include "lockwatch.h"
#include "pinfo.h"
#include "ringlog.h"
#include "verbose.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

constexpr uint32_t record[16] = {1, 1, 0, 0, 1, 10, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10};

uint32_t give_handle(uint64_t *handle_p)
{
    *handle_p = 1;
    return 0;
}

} // namespace

#pragma GCC diagnostic ignored "-Wunused-parameter"

extern "C" {

uint32_t kvs_appdesc_init(kvs_appdesc *appdesc_p) { return 0; }

uint32_t kvs_init(const char *db_name, const kvs_appdesc *appdesc_p, uint64_t evm, kvs_hdl *hdl_p)
{
    return give_handle(hdl_p);
}

uint32_t kvs_lookup_db_handle(const char *db_name, kvs_hdl *hdl_p) { return give_handle(hdl_p); }

uint32_t kvs_find_objects(kvs_hdl hdl, const kvs_key_attr *keys_p, uint32_t key_count,
                          uint32_t flags, kvs_rec_hdl **handles_pp, uint32_t *count_p)
{
    *handles_pp = static_cast<kvs_rec_hdl *>(malloc(sizeof **handles_pp));
    *count_p = 1;
    return give_handle(*handles_pp);
}

uint32_t kvs_get_object_size(kvs_hdl hdl, const kvs_rec_hdl *rec_p, uint32_t *size_p)
{
    *size_p = sizeof record;
    return 0;
}

uint32_t kvs_read_object(kvs_hdl hdl, const kvs_rec_hdl *rec_p, uint32_t offset, void *buffer_p,
                         uint32_t *length_p)
{
    memcpy(buffer_p, record, *length_p);
    return 0;
}

uint32_t kvs_write_object(kvs_hdl hdl, const kvs_rec_hdl *rec_p, uint32_t offset,
                          const kvs_data_desc *data_p, uint32_t data_count, uint32_t *value_p,
                          kvs_write_result *result_p)
{
    return 0;
}

uint32_t kvs_insert_object(kvs_hdl hdl, const kvs_data_desc *data_p, uint32_t data_count,
                           const kvs_key_attr *keys_p, uint32_t key_count, uint32_t reserved_1,
                           uint32_t reserved_2, kvs_rec_hdl *rec_p)
{
    return give_handle(rec_p);
}

uint32_t kvs_delete_object(kvs_hdl hdl, const kvs_rec_hdl *rec_p) { return 0; }

uint32_t ringlog_init2(const char *name, uint32_t reserved_1, uint32_t reserved_2, uint32_t size_1,
                       uint32_t size_2, uint32_t reserved_3, uint64_t *handle_p)
{
    return give_handle(handle_p);
}

void _ringlog_emit(uint64_t handle, uint64_t id, ...) {}

uint32_t verbose_init(uint64_t evm) { return 0; }
void verbose_printf_local(uint32_t category, const char *format, ...) {}
const char *fault_strerror(uint32_t status) { return ""; }

uint32_t jobctl_get_job_id(uint32_t *job_id_p)
{
    *job_id_p = 1;
    return 0;
}

uint32_t jobctl_get_jobctl_name(char *name, uint32_t size)
{
    memcpy(name, "bench", 6);
    return 0;
}

uint32_t pinfo_get_name(uint32_t pid, char *name, uint32_t size) { return 0; }
void lockwatch_set_mutex_block(const void *mutex, const char *place, uint32_t code) {}
void lockwatch_unset_mutex_block(void) {}
int __in_unload(void) { return 0; }
}
