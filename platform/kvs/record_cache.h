// A thread's copies of the records that it read lately, so that reading the same record again, or
// the next one of a listing, does not search the engine's trees.
//
// All entries are of one snapshot of one store: the number of the commit that they were read from.
// They are valid as long as that is the store's last commit, which the reader checks on every call.
#pragma once

#include "platform/base/block.h"
#include "platform/kvs/record.h"

#include <cstdint>
#include <cstring>
#include <sys/mman.h>
#include <utility>

namespace platform {

class record_cache {
public:
    static constexpr uint32_t longest_entry = 64 * 1024;

    [[nodiscard]] bool is_snapshot(const void *store, uint64_t snapshot) const
    {
        return store_ == store && snapshot_ == snapshot;
    }

    // Drops all entries unless they are of this snapshot.
    void set_snapshot(const void *store, uint64_t snapshot)
    {
        if (is_snapshot(store, snapshot))
            return;
        store_ = store;
        snapshot_ = snapshot;
        is_too_small_ = false;
        drop_all();
    }

    void clear() { set_snapshot(nullptr, 0); }

    // Returns true if there is an entry with this key. `database` is a number in the store.
    [[nodiscard]] bool find(uint32_t database, uint32_t key, stored_record *record)
    {
        if (memory_ == nullptr)
            return false;
        const size_t first = first_slot(database, key);
        for (size_t slot = first; slot != first + associativity && is_live(slot); ++slot) {
            const entry &it = *entry_at(offset_in(slot));
            if (it.database == database && key_of(it.handle) == key) {
                ++hits_;
                read_entry(it, record);
                return true;
            }
        }
        return false;
    }

    // As find, for a record that is likely the one found last, or the next one of its run.
    [[nodiscard]] bool find_near(uint32_t database, kvs_rec_hdl handle, stored_record *record)
    {
        const auto read_at = [&](uint32_t offset) {
            if (offset >= used_ || entry_at(offset)->handle != handle ||
                entry_at(offset)->database != database)
                return false;
            read_entry(*entry_at(offset), record);
            return true;
        };
        if (read_at(last_) || (last_ < used_ && read_at(last_ + size_of(entry_at(last_)->length))))
            return true;
        return find(database, key_of(handle), record);
    }

    // Makes room for one record of any length up to the longest. If there is none, the cache grows
    // if it `may_grow` and most of its entries can still be found; otherwise it drops them all.
    // Returns where the room starts, or all ones if there is no memory.
    uint32_t start_run(bool may_grow)
    {
        if (memory_ == nullptr && !resize(0))
            return UINT32_MAX;
        if (arena_size() - used_ < sizeof(entry) + longest_entry) {
            if (level_ == highest_level && 2 * hits_ < added_)
                shrink();
            else if (!may_grow || is_too_small_ || level_ == highest_level || 2 * live_ < added_ ||
                     !resize(level_ + 1))
                drop_all();
        }
        last_ = used_;
        return used_;
    }

    // Adds one more record of the run, and makes `record` refer to the copy. Returns false if there
    // is no room for it, or if it would replace another record of the same run.
    bool add(uint32_t database, stored_record *record, uint32_t run_start)
    {
        const size_t slot = slot_for(database, key_of(record->handle));
        if (size_of(record->length) > arena_size() - used_ ||
            (is_live(slot) && offset_in(slot) >= run_start))
            return false;
        entry &it = *entry_at(used_);
        it = {record->handle, database, record->length};
        auto *const bytes = reinterpret_cast<unsigned char *>(&it + 1);
        memcpy(bytes, record->bytes, record->length);
        record->bytes = bytes;
        fill_slot(slot, it);
        return true;
    }

private:
    // A cache has 4096 slots and an arena of 256 KB at first, and four times as much at each
    // higher level.
    static constexpr unsigned first_slot_bits = 12, highest_level = 3;
    static constexpr size_t associativity = 4; // adjacent slots that a record may be in
    static constexpr uint32_t first_arena_size = 4 * longest_entry;

    static constexpr uint32_t granule = 16;
    static constexpr unsigned offset_bits = 24; // of an offset in the arena, in granules

    // The head of an entry in the arena; the record's bytes follow it.
    struct entry {
        kvs_rec_hdl handle;
        uint32_t database;
        uint32_t length;
    };
    static_assert(sizeof(entry) == granule);
    static_assert((uint64_t{first_arena_size} << 2 * highest_level) / granule < 1u << offset_bits);

    static constexpr uint32_t size_of(uint32_t length)
    {
        return (length + 2 * granule - 1) / granule * granule; // one for the head
    }

    void read_entry(const entry &it, stored_record *record)
    {
        last_ = static_cast<uint32_t>(reinterpret_cast<const unsigned char *>(&it) -
                                      reinterpret_cast<const unsigned char *>(entry_at(0)));
        *record = {it.handle, reinterpret_cast<const unsigned char *>(&it + 1), it.length};
    }

    [[nodiscard]] unsigned slot_bits() const { return first_slot_bits + 2 * level_; }
    [[nodiscard]] uint32_t arena_size() const { return first_arena_size << 2 * level_; }

    // A slot holds the epoch in which it was filled and the offset of its entry. Dropping all
    // entries starts a new epoch. The epoch of a slot that was never used is 0.
    [[nodiscard]] bool is_live(size_t slot) const { return slots_[slot] >> offset_bits == epoch_; }
    [[nodiscard]] uint32_t offset_in(size_t slot) const
    {
        return static_cast<uint32_t>(slots_[slot] & ((1u << offset_bits) - 1)) * granule;
    }
    [[nodiscard]] entry *entry_at(uint32_t offset) const
    {
        auto *const arena = reinterpret_cast<unsigned char *>(slots_ + (size_t{1} << slot_bits()));
        return reinterpret_cast<entry *>(arena + offset);
    }

    // Keys may be any sequence, multiples of a large number too, so all their bits are mixed.
    [[nodiscard]] size_t first_slot(uint32_t database, uint32_t key) const
    {
        uint32_t mixed = key + database;
        mixed = (mixed ^ mixed >> 16) * 0x7FEB352Du;
        mixed = (mixed ^ mixed >> 15) * 0x846CA68Bu;
        mixed ^= mixed >> 16;
        return mixed % (1u << slot_bits()) / associativity * associativity;
    }

    // With small pages, half of the time of a find in a large cache is address translation.
    static void advise_huge_pages(void *memory, size_t size)
    {
        constexpr uintptr_t page = 4096;
        const uintptr_t start = (reinterpret_cast<uintptr_t>(memory) + page - 1) / page * page;
        const uintptr_t end = reinterpret_cast<uintptr_t>(memory) + size;
        if (start < end)
            madvise(reinterpret_cast<void *>(start), end - start, MADV_HUGEPAGE);
    }

    // Returns the first of a record's slots that is free, or the one to take from another record.
    [[nodiscard]] size_t slot_for(uint32_t database, uint32_t key) const
    {
        const size_t first = first_slot(database, key);
        for (size_t slot = first; slot != first + associativity; ++slot)
            if (!is_live(slot))
                return slot;
        return first + added_ % associativity;
    }

    // Counts the entry that begins where the used part of the arena ends, and indexes it.
    void fill_slot(size_t slot, const entry &it)
    {
        ++added_;
        live_ += is_live(slot) ? 0 : 1;
        slots_[slot] = epoch_ << offset_bits | used_ / granule;
        used_ += size_of(it.length);
    }

    // Moves all entries to memory of this level.
    bool resize(unsigned level)
    {
        constexpr size_t line = 64; // all slots of a record are in one
        const size_t table = sizeof(uint64_t) << (first_slot_bits + 2 * level);
        const size_t size = line + table + (size_t{first_arena_size} << 2 * level);
        block<unsigned char> memory(static_cast<unsigned char *>(calloc(1, size)));
        if (memory == nullptr)
            return false;
        advise_huge_pages(memory.get(), size);
        const entry *const old = memory_ != nullptr ? entry_at(0) : nullptr;
        const uint32_t old_used = used_;
        const auto start = reinterpret_cast<uintptr_t>(memory.get());
        slots_ = reinterpret_cast<uint64_t *>(memory.get() + -start % line);
        level_ = level;
        drop_all();
        if (old_used != 0)
            memcpy(static_cast<void *>(entry_at(0)), old, old_used);
        while (used_ < old_used) {
            const entry &it = *entry_at(used_);
            fill_slot(slot_for(it.database, key_of(it.handle)), it);
        }
        memory_ = std::move(memory);
        return true;
    }

    // Even the largest level is too small for what is read, and caching would only cost time.
    void shrink()
    {
        used_ = 0;
        if (!resize(0))
            drop_all();
        is_too_small_ = true;
    }

    void drop_all()
    {
        used_ = added_ = live_ = hits_ = last_ = 0;
        ++epoch_;
    }

    block<unsigned char> memory_;
    uint64_t *slots_ = nullptr; // in the memory; the arena follows them
    const void *store_ = nullptr;
    uint64_t snapshot_ = 0;
    uint64_t epoch_ = 1;
    unsigned level_ = 0;
    uint32_t used_ = 0;         // of the arena
    uint32_t last_ = 0;         // offset of the entry that was found last
    uint32_t added_ = 0;        // entries since all were dropped
    uint32_t live_ = 0;         // those of them that are in slots
    uint32_t hits_ = 0;         // in the same epoch
    bool is_too_small_ = false; // for what is read at this snapshot
};

} // namespace platform
