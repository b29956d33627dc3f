// LevelDB, used well: a cache that holds the whole store, a filter, big-endian keys so that its
// order is that of the numbers. One process at a time can have it open.
#pragma once

#include "work.h"

#include <leveldb/cache.h>
#include <leveldb/db.h>
#include <leveldb/filter_policy.h>
#include <leveldb/write_batch.h>

namespace bench {

class level_db {
public:
    static constexpr char name[] = "LevelDB";

    level_db()
    {
        static const std::unique_ptr<leveldb::DB> opened(open());
        db_ = opened.get();
    }

    owned_record read(uint32_t id)
    {
        check(db_->Get({}, key(id), &value_));
        return copy_of(value_.data(), value_.size());
    }

    // It does not know how many records it has, so the array grows.
    listing list()
    {
        size_t room = 1024, count = 0;
        auto *records = static_cast<void **>(malloc(room * sizeof(void *)));
        const std::unique_ptr<leveldb::Iterator> at(db_->NewIterator({}));
        for (at->SeekToFirst(); at->Valid(); at->Next()) {
            if (count == room)
                records = static_cast<void **>(realloc(records, (room *= 2) * sizeof(void *)));
            records[count++] = copy_of(at->value().data(), at->value().size()).release();
        }
        return {records, static_cast<uint32_t>(count)};
    }

    void select(uint32_t id, uint32_t version)
    {
        const object_record record{id, version};
        check(db_->Put(durable(), key(id), bytes_of(record)));
    }

    using population = std::vector<uint32_t>;
    void populate(const population &ids)
    {
        leveldb::WriteBatch all;
        for (const uint32_t id : ids) {
            const object_record record{id, 1};
            all.Put(key(id), bytes_of(record));
        }
        check(db_->Write(durable(), &all));
    }

private:
    static leveldb::DB *open()
    {
        leveldb::Options options;
        options.create_if_missing = true;
        options.block_cache = leveldb::NewLRUCache(size_t{256} << 20);
        options.filter_policy = leveldb::NewBloomFilterPolicy(10);
        options.write_buffer_size = size_t{64} << 20;
        leveldb::DB *opened = nullptr;
        check(leveldb::DB::Open(options, folder() + "/leveldb", &opened));
        return opened;
    }

    static void check(const leveldb::Status &status)
    {
        if (!status.ok()) [[unlikely]]
            give_up(name, status.ToString().c_str());
    }

    static leveldb::WriteOptions durable()
    {
        leveldb::WriteOptions options;
        options.sync = true;
        return options;
    }

    static std::string key(uint32_t id)
    {
        const uint32_t big_endian = __builtin_bswap32(id);
        return {reinterpret_cast<const char *>(&big_endian), sizeof big_endian};
    }

    static leveldb::Slice bytes_of(const object_record &record)
    {
        return {reinterpret_cast<const char *>(&record), sizeof record};
    }

    leveldb::DB *db_ = nullptr;
    std::string value_;
};

} // namespace bench
