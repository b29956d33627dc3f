// A thread's copies of records that it saw lately, so that asking for the same record again, or for
// the next one of a listing, costs no way through the engine's trees.
//
// All copies in the window are of one moment of one store: the number of the transaction under
// which they were read. They hold for as long as that is the store's last transaction, which the
// reader finds out on every call.
#pragma once

#include "free_block.h"
#include "kvs.h"

#include <cstdint>
#include <cstring>

namespace platform {

// One record as it is stored; the bytes are the store's.
struct stored_record {
    kvs_rec_hdl handle;
    const unsigned char *bytes;
    uint32_t length;
};

// A record handle is the record's key below a generation, which tells records of one key apart.
constexpr uint32_t key_of(kvs_rec_hdl handle) { return static_cast<uint32_t>(handle); }
constexpr uint32_t generation_of(kvs_rec_hdl handle) { return static_cast<uint32_t>(handle >> 32); }
constexpr kvs_rec_hdl handle_of(uint32_t key, uint32_t generation)
{
    return uint64_t{generation} << 32 | key;
}

class record_window {
public:
    static constexpr uint32_t longest_record = 64 * 1024;

    [[nodiscard]] bool is_of(const void *store, uint64_t moment) const
    {
        return store_ == store && moment_ == moment;
    }

    // Makes it a window of this moment. What it held of another is gone.
    void turn_to(const void *store, uint64_t moment)
    {
        if (is_of(store, moment))
            return;
        store_ = store;
        moment_ = moment;
        forget();
    }

    void clear() { turn_to(nullptr, 0); }

    [[nodiscard]] bool find(const void *database, uint32_t key, stored_record *record) const
    {
        if (!memory_)
            return false;
        const entry &it = memory_->entries[place_of(database, key)];
        if (it.turn != turn_ || it.database != database || key_of(it.handle) != key)
            return false;
        *record = {it.handle, memory_->bytes + it.offset, it.length};
        return true;
    }

    // Makes room for one record of any length up to the longest, dropping all others when it must.
    // Returns where the room starts, or all ones when there is no memory for a window.
    uint32_t start_run()
    {
        if (!memory_) {
            memory_.reset(static_cast<contents *>(calloc(1, sizeof(contents))));
            if (!memory_)
                return UINT32_MAX;
        }
        if (sizeof memory_->bytes - used_ < longest_record)
            forget();
        return used_;
    }

    // Keeps a copy of one more record of the run. False when there is no room for it, or when it
    // would push out another record of the same run.
    bool add(const void *database, stored_record *record, uint32_t run_start)
    {
        entry &it = memory_->entries[place_of(database, key_of(record->handle))];
        if ((it.turn == turn_ && it.offset >= run_start) ||
            record->length > sizeof memory_->bytes - used_)
            return false;
        memcpy(memory_->bytes + used_, record->bytes, record->length);
        record->bytes = memory_->bytes + used_;
        it = {record->handle, turn_, database, used_, record->length};
        used_ += record->length;
        return true;
    }

private:
    static constexpr unsigned place_bits = 12;

    struct entry {
        kvs_rec_hdl handle;
        uint64_t turn; // 0 in an entry that was never used
        const void *database;
        uint32_t offset;
        uint32_t length;
    };

    struct contents {
        entry entries[1u << place_bits];
        unsigned char bytes[4 * longest_record];
    };

    static uint32_t place_of(const void *database, uint32_t key)
    {
        const auto seed = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(database));
        return (key + seed) * 2654435769u >> (32 - place_bits);
    }

    void forget()
    {
        used_ = 0;
        ++turn_;
    }

    block<contents> memory_;
    const void *store_ = nullptr;
    uint64_t moment_ = 0;
    uint64_t turn_ = 1;
    uint32_t used_ = 0;
};

} // namespace platform
