// The raw engine, used well and without this library: a map that is large enough from the start,
// one environment a process, a read transaction a thread that is renewed and not begun anew,
// records at once under their keys.
#pragma once

#include "work.h"

#include <lmdb.h>

namespace bench {

class raw_engine {
public:
    static constexpr char name[] = "raw engine";

    raw_engine()
    {
        static environment opened;
        in_ = &opened;
        check(mdb_txn_begin(in_->env, nullptr, MDB_RDONLY, &reader_));
        mdb_txn_reset(reader_);
    }
    raw_engine(const raw_engine &) = delete;
    raw_engine &operator=(const raw_engine &) = delete;
    ~raw_engine() { mdb_txn_abort(reader_); }

    owned_record read(uint32_t id)
    {
        owned_record record;
        look_up(id, [&](const MDB_val &value) { record = copy_of(value.mv_data, value.mv_size); });
        return record;
    }

    // The simple way under an interface that gives a handle, a size and the bytes one by one.
    owned_record read_in_three_steps(uint32_t id)
    {
        size_t size = 0;
        owned_record record;
        look_up(id, [](const MDB_val &) {});
        look_up(id, [&](const MDB_val &value) { size = value.mv_size; });
        look_up(id, [&](const MDB_val &value) { record = copy_of(value.mv_data, size); });
        return record;
    }

    listing list()
    {
        check(mdb_txn_renew(reader_));
        MDB_stat about;
        MDB_cursor *cursor = nullptr;
        check(mdb_stat(reader_, in_->objects, &about));
        check(mdb_cursor_open(reader_, in_->objects, &cursor));
        listing records(static_cast<uint32_t>(about.ms_entries));
        MDB_val key, value;
        while (mdb_cursor_get(cursor, &key, &value, MDB_NEXT) == 0)
            records.append(copy_of(value.mv_data, value.mv_size));
        mdb_cursor_close(cursor);
        mdb_txn_reset(reader_);
        return records;
    }

    void select(uint32_t id, uint32_t version)
    {
        const object_record record{id, version};
        change([&](MDB_txn *txn) { put(txn, in_->objects, id, &record, sizeof record); });
    }

    void add_client(const clients_record &grown)
    {
        change([&](MDB_txn *txn) { put(txn, in_->clients, grown.id, &grown, grown.length()); });
    }

    using population = std::vector<uint32_t>;
    void populate(const population &ids)
    {
        change([&](MDB_txn *txn) {
            for (const uint32_t id : ids) {
                const object_record record{id, 1};
                put(txn, in_->objects, id, &record, sizeof record, MDB_NOOVERWRITE);
            }
        });
    }

    void reset_clients(const std::vector<uint32_t> &ids)
    {
        change([&](MDB_txn *txn) {
            for (const uint32_t id : ids) {
                const clients_record fresh(id);
                put(txn, in_->clients, id, &fresh, fresh.length());
            }
        });
    }

private:
    struct environment {
        MDB_env *env = nullptr;
        MDB_dbi objects = 0, clients = 0;

        environment()
        {
            check(mdb_env_create(&env));
            check(mdb_env_set_maxdbs(env, 2));
            check(mdb_env_set_mapsize(env, size_t{4} << 30));
            check(mdb_env_open(env, (folder() + "/raw.mdb").c_str(), MDB_NOSUBDIR, 0600));
            MDB_txn *txn = nullptr;
            check(mdb_txn_begin(env, nullptr, 0, &txn));
            check(mdb_dbi_open(txn, "objects", MDB_INTEGERKEY | MDB_CREATE, &objects));
            check(mdb_dbi_open(txn, "clients", MDB_INTEGERKEY | MDB_CREATE, &clients));
            check(mdb_txn_commit(txn));
        }
        environment(const environment &) = delete;
        environment &operator=(const environment &) = delete;
        ~environment() { mdb_env_close(env); }
    };

    static void check(int code)
    {
        if (code != 0) [[unlikely]]
            give_up(name, mdb_strerror(code));
    }

    template <class Use>
    void look_up(uint32_t id, const Use &use)
    {
        MDB_val key{sizeof id, &id}, value;
        check(mdb_txn_renew(reader_));
        check(mdb_get(reader_, in_->objects, &key, &value));
        use(value);
        mdb_txn_reset(reader_);
    }

    template <class Work>
    void change(const Work &work)
    {
        MDB_txn *txn = nullptr;
        check(mdb_txn_begin(in_->env, nullptr, 0, &txn));
        work(txn);
        check(mdb_txn_commit(txn));
    }

    static void put(MDB_txn *txn, MDB_dbi dbi, uint32_t id, const void *bytes, size_t length,
                    unsigned flags = 0)
    {
        MDB_val key{sizeof id, &id}, value{length, const_cast<void *>(bytes)};
        check(mdb_put(txn, dbi, &key, &value, flags));
    }

    environment *in_ = nullptr;
    MDB_txn *reader_ = nullptr;
};

} // namespace bench
