// What one call works on: a database of a store, and the calling thread.
#pragma once

#include "platform/kvs/threads.h"

namespace platform {

struct call_context {
    platform::store *store;
    platform::database *database;
    thread_context *thread;

    [[nodiscard]] bool in_batch() const { return thread->open_batch.store == store; }
    [[nodiscard]] uint32_t database_number() const // in the store
    {
        return static_cast<uint32_t>(database - store->databases);
    }
};

// Returns the handle of a store's database.
[[nodiscard]] kvs_hdl database_handle(const store &store, unsigned number);

// Resolves a database handle. Returns a status.
[[nodiscard]] uint32_t make_call_context(kvs_hdl hdl, call_context *call);

} // namespace platform
