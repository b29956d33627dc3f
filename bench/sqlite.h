// SQLite, used well: write-ahead log, prepared statements, a cache and a map for the whole
// store, one connection a thread. Each change is on disk when it returns.
#pragma once

#include "work.h"

#include <sqlite3.h>
#include <unistd.h>

namespace bench {

class sqlite {
public:
    static constexpr char name[] = "SQLite";

    sqlite()
    {
        const std::string path = folder() + "/sqlite.db";
        check(sqlite3_open_v2(path.c_str(), &db_,
                              SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                              nullptr));
        sqlite3_busy_handler(db_, try_again_soon, nullptr);
        run("PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL; PRAGMA cache_size = -262144;"
            "PRAGMA mmap_size = 1073741824;"
            "CREATE TABLE IF NOT EXISTS objects (id INTEGER PRIMARY KEY, record BLOB NOT NULL);"
            "CREATE TABLE IF NOT EXISTS clients (id INTEGER PRIMARY KEY, record BLOB NOT NULL);");
        read_ = prepare("SELECT record FROM objects WHERE id = ?");
        count_ = prepare("SELECT count(*) FROM objects");
        list_ = prepare("SELECT record FROM objects ORDER BY id");
        insert_ = prepare("INSERT INTO objects VALUES (?, ?)");
        select_ = prepare("INSERT INTO objects VALUES (?, ?)"
                          " ON CONFLICT (id) DO UPDATE SET record = excluded.record");
        put_clients_ = prepare("INSERT INTO clients VALUES (?, ?)"
                               " ON CONFLICT (id) DO UPDATE SET record = excluded.record");
    }
    sqlite(const sqlite &) = delete;
    sqlite &operator=(const sqlite &) = delete;
    ~sqlite()
    {
        for (sqlite3_stmt *const each : {read_, count_, list_, insert_, select_, put_clients_})
            sqlite3_finalize(each);
        sqlite3_close(db_);
    }

    owned_record read(uint32_t id)
    {
        sqlite3_bind_int64(read_, 1, id);
        check(sqlite3_step(read_), SQLITE_ROW);
        owned_record record = copy_of(sqlite3_column_blob(read_, 0),
                                      static_cast<size_t>(sqlite3_column_bytes(read_, 0)));
        sqlite3_reset(read_);
        return record;
    }

    listing list()
    {
        check(sqlite3_step(count_), SQLITE_ROW);
        listing records(static_cast<uint32_t>(sqlite3_column_int64(count_, 0)));
        sqlite3_reset(count_);
        while (sqlite3_step(list_) == SQLITE_ROW)
            records.append(copy_of(sqlite3_column_blob(list_, 0),
                                   static_cast<size_t>(sqlite3_column_bytes(list_, 0))));
        sqlite3_reset(list_);
        return records;
    }

    void select(uint32_t id, uint32_t version)
    {
        const object_record record{id, version};
        put(select_, id, &record, sizeof record);
    }

    void add_client(const clients_record &grown)
    {
        put(put_clients_, grown.id, &grown, grown.length());
    }

    using population = std::vector<uint32_t>;
    void populate(const population &ids)
    {
        run("BEGIN IMMEDIATE");
        for (const uint32_t id : ids) {
            const object_record record{id, 1};
            put(insert_, id, &record, sizeof record);
        }
        run("COMMIT");
    }

    void reset_clients(const std::vector<uint32_t> &ids)
    {
        run("BEGIN IMMEDIATE");
        for (const uint32_t id : ids) {
            const clients_record fresh(id);
            put(put_clients_, id, &fresh, fresh.length());
        }
        run("COMMIT");
    }

private:
    // Its own waiting sleeps longer and longer, and comes too late beside a busy writer.
    static int try_again_soon(void *, int)
    {
        usleep(100);
        return 1;
    }

    void check(int code, int wanted = SQLITE_OK)
    {
        if (code != wanted) [[unlikely]]
            give_up(name, sqlite3_errmsg(db_));
    }

    void run(const char *sql) { check(sqlite3_exec(db_, sql, nullptr, nullptr, nullptr)); }

    sqlite3_stmt *prepare(const char *sql)
    {
        sqlite3_stmt *statement = nullptr;
        check(sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr));
        return statement;
    }

    void put(sqlite3_stmt *statement, uint32_t id, const void *bytes, size_t length)
    {
        sqlite3_bind_int64(statement, 1, id);
        sqlite3_bind_blob(statement, 2, bytes, static_cast<int>(length), SQLITE_STATIC);
        check(sqlite3_step(statement), SQLITE_DONE);
        sqlite3_reset(statement);
    }

    sqlite3 *db_ = nullptr;
    sqlite3_stmt *read_, *count_, *list_, *insert_, *select_, *put_clients_;
};

} // namespace bench
