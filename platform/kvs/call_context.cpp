#include "platform/kvs/call_context.h"

namespace platform {
namespace {

// A database handle: this tag, then the store's index and the database's number, a byte each.
constexpr uint64_t handle_tag = 0x564B'5644'4220;

} // namespace

kvs_hdl database_handle(const store &store, unsigned number)
{
    return handle_tag << 16 | store.index << 8 | number;
}

uint32_t make_call_context(kvs_hdl hdl, call_context *call)
{
    const auto index = static_cast<unsigned>(hdl >> 8 & 0xFF);
    if (hdl >> 16 != handle_tag || index >= store_count.load(std::memory_order_acquire))
        return KVS_RC_BAD_HDL;
    store &store = stores[index];
    const auto number = static_cast<unsigned>(hdl & 0xFF);
    if (number >= store.database_count.load(std::memory_order_acquire))
        return KVS_RC_BAD_HDL;
    thread_context *const thread = current_thread();
    if (thread == nullptr)
        return KVS_RC_NO_MEMORY;
    *call = {&store, &store.databases[number], thread};
    if (!call->in_batch())
        return 0;
    if (thread->open_batch.is_broken)
        return KVS_RC_BATCH_BROKEN;
    return number < thread->open_batch.database_count ? 0 : KVS_RC_BATCH_ACTIVE;
}

} // namespace platform
