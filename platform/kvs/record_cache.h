// A thread's copies of records that it saw lately, so that asking for the same record again, or for
// the next one of a listing, costs no way through the engine's trees.
//
// All copies in the window are of one moment of one store: the number of the transaction under
// which they were read. They hold for as long as that is the store's last transaction, which the
// reader finds out on every call.
#pragma once

#include "kvs.h"
#include "platform/base/block.h"

#include <cstdint>
#include <cstring>
#include <sys/mman.h>
#include <utility>

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
        is_futile_ = false;
        forget();
    }

    void clear() { turn_to(nullptr, 0); }

    // Databases are told apart by their numbers in the store.
    [[nodiscard]] bool find(uint32_t database, uint32_t key, stored_record *record)
    {
        if (!memory_)
            return false;
        const size_t first = first_place(database, key);
        for (size_t place = first; place != first + ways && is_live(place); ++place) {
            const copy &it = *copy_at(offset_in(place));
            if (it.database == database && key_of(it.handle) == key) {
                ++hits_;
                take(it, record);
                return true;
            }
        }
        return false;
    }

    // As find, where the record is likely the one that was taken last, or the next one of its run.
    [[nodiscard]] bool find_near(uint32_t database, kvs_rec_hdl handle, stored_record *record)
    {
        const auto take_at = [&](uint32_t offset) {
            if (offset >= used_ || copy_at(offset)->handle != handle ||
                copy_at(offset)->database != database)
                return false;
            take(*copy_at(offset), record);
            return true;
        };
        if (take_at(last_) || (last_ < used_ && take_at(last_ + size_of(copy_at(last_)->length))))
            return true;
        return find(database, key_of(handle), record);
    }

    // Makes room for one record of any length up to the longest. When it must, it takes more
    // memory, if the window `may_grow` and most of what it holds would still be found; else it
    // drops it all. Returns where the room starts, or all ones when there is no memory for a
    // window.
    uint32_t start_run(bool may_grow)
    {
        if (!memory_ && !allocate(0))
            return UINT32_MAX;
        if (arena_size() - used_ < sizeof(copy) + longest_record) {
            if (level_ == highest_level && 2 * hits_ < added_)
                give_up();
            else if (!may_grow || is_futile_ || level_ == highest_level || 2 * found_ < added_ ||
                     !allocate(level_ + 1))
                forget();
        }
        last_ = used_;
        return used_;
    }

    // Keeps a copy of one more record of the run. False when there is no room for it, or when it
    // would push out another record of the same run.
    bool add(uint32_t database, stored_record *record, uint32_t run_start)
    {
        const size_t place = place_for(database, key_of(record->handle));
        if (size_of(record->length) > arena_size() - used_ ||
            (is_live(place) && offset_in(place) >= run_start))
            return false;
        copy &it = *copy_at(used_);
        it = {record->handle, database, record->length};
        auto *const bytes = reinterpret_cast<unsigned char *>(&it + 1);
        memcpy(bytes, record->bytes, record->length);
        record->bytes = bytes;
        put_into(place, it);
        return true;
    }

private:
    // A window has 4096 places and an arena of 256 KB at first, and four times as much at each
    // higher level.
    static constexpr unsigned first_place_bits = 12, highest_level = 3;
    static constexpr size_t ways = 4; // places that a record may have, one after the other
    static constexpr uint32_t first_arena_size = 4 * longest_record;

    static constexpr uint32_t granule = 16;
    static constexpr unsigned offset_bits = 24; // of an offset in the arena, in granules

    // What lies in the arena, with the record's bytes behind it.
    struct copy {
        kvs_rec_hdl handle;
        uint32_t database;
        uint32_t length;
    };
    static_assert(sizeof(copy) == granule);
    static_assert((uint64_t{first_arena_size} << 2 * highest_level) / granule < 1u << offset_bits);

    static constexpr uint32_t size_of(uint32_t length)
    {
        return (length + 2 * granule - 1) / granule * granule; // one for what precedes the bytes
    }

    void take(const copy &it, stored_record *record)
    {
        last_ = static_cast<uint32_t>(reinterpret_cast<const unsigned char *>(&it) -
                                      reinterpret_cast<const unsigned char *>(copy_at(0)));
        *record = {it.handle, reinterpret_cast<const unsigned char *>(&it + 1), it.length};
    }

    [[nodiscard]] unsigned place_bits() const { return first_place_bits + 2 * level_; }
    [[nodiscard]] uint32_t arena_size() const { return first_arena_size << 2 * level_; }

    // A place holds the turn in which it was filled and the offset of its record. The turn of a
    // place that was never used is 0.
    [[nodiscard]] bool is_live(size_t place) const
    {
        return places_[place] >> offset_bits == turn_;
    }
    [[nodiscard]] uint32_t offset_in(size_t place) const
    {
        return static_cast<uint32_t>(places_[place] & ((1u << offset_bits) - 1)) * granule;
    }
    [[nodiscard]] copy *copy_at(uint32_t offset) const
    {
        auto *const arena =
            reinterpret_cast<unsigned char *>(places_ + (size_t{1} << place_bits()));
        return reinterpret_cast<copy *>(arena + offset);
    }

    // Keys may be any sequence, multiples of a large number too, so all their bits are mixed.
    [[nodiscard]] size_t first_place(uint32_t database, uint32_t key) const
    {
        uint32_t mixed = key + database;
        mixed = (mixed ^ mixed >> 16) * 0x7FEB352Du;
        mixed = (mixed ^ mixed >> 15) * 0x846CA68Bu;
        mixed ^= mixed >> 16;
        return mixed % (1u << place_bits()) / ways * ways;
    }

    // With small pages half of what a find in a large window takes is the way to the page.
    static void ask_for_huge_pages(void *memory, size_t size)
    {
        constexpr uintptr_t page = 4096;
        const uintptr_t start = (reinterpret_cast<uintptr_t>(memory) + page - 1) / page * page;
        const uintptr_t end = reinterpret_cast<uintptr_t>(memory) + size;
        if (start < end)
            madvise(reinterpret_cast<void *>(start), end - start, MADV_HUGEPAGE);
    }

    // The first of a record's places that is free, or the one that it takes from another record.
    [[nodiscard]] size_t place_for(uint32_t database, uint32_t key) const
    {
        const size_t first = first_place(database, key);
        for (size_t place = first; place != first + ways; ++place)
            if (!is_live(place))
                return place;
        return first + added_ % ways;
    }

    // Counts the copy that begins where the used part of the arena ends, and notes where it is.
    void put_into(size_t place, const copy &it)
    {
        ++added_;
        found_ += is_live(place) ? 0 : 1;
        places_[place] = turn_ << offset_bits | used_ / granule;
        used_ += size_of(it.length);
    }

    // Moves to memory of this level, with all that is there.
    bool allocate(unsigned level)
    {
        constexpr size_t line = 64; // in which all places of a record are to be
        const size_t table = sizeof(uint64_t) << (first_place_bits + 2 * level);
        const size_t size = line + table + (size_t{first_arena_size} << 2 * level);
        block<unsigned char> memory(static_cast<unsigned char *>(calloc(1, size)));
        if (!memory)
            return false;
        ask_for_huge_pages(memory.get(), size);
        const copy *const old = memory_ ? copy_at(0) : nullptr;
        const uint32_t old_used = used_;
        const auto start = reinterpret_cast<uintptr_t>(memory.get());
        places_ = reinterpret_cast<uint64_t *>(memory.get() + -start % line);
        level_ = level;
        forget();
        if (old_used != 0)
            memcpy(static_cast<void *>(copy_at(0)), old, old_used);
        while (used_ < old_used) {
            const copy &it = *copy_at(used_);
            put_into(place_for(it.database, key_of(it.handle)), it);
        }
        memory_ = std::move(memory);
        return true;
    }

    // Even the largest window is too small for what is read, and would only be in the way.
    void give_up()
    {
        used_ = 0;
        if (!allocate(0))
            forget();
        is_futile_ = true;
    }

    void forget()
    {
        used_ = added_ = found_ = hits_ = last_ = 0;
        ++turn_;
    }

    block<unsigned char> memory_;
    uint64_t *places_ = nullptr; // in the memory, and behind them the arena
    const void *store_ = nullptr;
    uint64_t moment_ = 0;
    uint64_t turn_ = 1;
    unsigned level_ = 0;
    uint32_t used_ = 0;  // of the arena
    uint32_t last_ = 0;  // offset of the record that was taken last
    uint32_t added_ = 0; // records since the window was last empty, and those of them in places
    uint32_t found_ = 0;
    uint32_t hits_ = 0;      // in the same time
    bool is_futile_ = false; // at this moment
};

} // namespace platform
