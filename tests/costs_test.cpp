// What each database operation costs, counted: writes, syncs and allocations. Unlike times, the
// counts are the same in every run. This program takes over the calls that are counted, for the
// library, the platform and the engine. The counts are compared with expected_costs.txt; run with
// ACCEPT=1 to write it anew.
#include "kvs.h"
#include "state_dir.h"
#include "tools/records.h"
#include "vs_kvs.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/uio.h>

namespace {

enum counter { writes, syncs, allocations };
constexpr const char *names[] = {"writes", "syncs", "allocations"};
unsigned counts[std::size(names)];

OWN_STATE_DIR(false);

// The disk flushes after each write through such a descriptor.
bool is_synchronous(int fd) { return (fcntl(fd, F_GETFL) & O_DSYNC) != 0; }

} // namespace

#define COUNT(counted, result, name, parameters, ...)                                              \
    extern "C" result name parameters                                                              \
    {                                                                                              \
        static auto *const next = reinterpret_cast<result(*) parameters>(dlsym(RTLD_NEXT, #name)); \
        ++counts[counted];                                                                         \
        return next(__VA_ARGS__);                                                                  \
    }

using num = uint32_t;
COUNT(is_synchronous(f) ? syncs : writes, ssize_t, pwrite,
      (int f, const void *b, size_t n, off_t o), f, b, n, o)
COUNT(writes, ssize_t, pwritev, (int f, const iovec *v, int n, off_t o), f, v, n, o)
COUNT(writes, ssize_t, write, (int f, const void *b, size_t n), f, b, n)
COUNT(writes, ssize_t, writev, (int f, const iovec *v, int n), f, v, n)
COUNT(syncs, int, fdatasync, (int f), f)
COUNT(syncs, int, fsync, (int f), f)

#ifndef ALLOCATOR_IS_TAKEN // by a sanitizer
extern "C" {
void *__libc_malloc(size_t), *__libc_calloc(size_t, size_t), *__libc_realloc(void *, size_t);
void *malloc(size_t n) noexcept { return ++counts[allocations], __libc_malloc(n); }
void *calloc(size_t n, size_t m) noexcept { return ++counts[allocations], __libc_calloc(n, m); }
void *realloc(void *b, size_t n) noexcept { return ++counts[allocations], __libc_realloc(b, n); }
}
#endif

namespace {

constexpr num id = 5000;
constexpr vs_object_sel_entry pair[] = {{id + 1, 2, {}}, {id + 2, 2, {}}};
constexpr vs_client_info_entry listed_client{1, 2, {}}, new_client{2, 2, {}};

using work = std::function<num()>;

num populate()
{
    constexpr const num *versions[2] = {};
    constexpr num version_counts[2] = {};
    const num status = kvs_batch_begin(g_kvs_hdl_vs_objects_db) |
                       vs_kvs_insert_vs_objects(pair, 2, versions, version_counts);
    return status | kvs_batch_commit();
}

// Does the work of all operations, in an order in which each finds what it needs, and nothing stays
// but the registration of a job; the counts of each are a line.
std::string costs(num job, size_t counters)
{
    const struct {
        vskvs::words record;
        std::vector<std::pair<const char *, work>> changes;
    } of[] = {{{id, 1, 0, 0, 1, 2, 1, 2},
               {{"select", [=] { return vs_kvs_update_vs_object_selected_version(id, job); }},
                {"insert 2 in a batch", populate},
                {"select 2", [] { return vs_kvs_update_vs_objects(pair, 2); }}}},
              {{id, 1, 1, 1, 0, 0, 0},
               {{"add", [] { return vs_kvs_add_new_client_info(id, &new_client); }},
                {"update", [] { return vs_kvs_update_client_info(id, &listed_client); }}}},
              {{job, 1, 1},
               {{"add", [=] { return vs_kvs_add_new_client_objects_reg_object(job, id); }}}}};
    std::ostringstream text;
    for (size_t i = 0; i < vskvs::databases.size(); ++i) {
        const vskvs::database &db = *vskvs::databases[i];
        const auto count = [&](const char *name, const work &operation) {
            std::fill(std::begin(counts), std::end(counts), 0);
            EXPECT_EQ(operation(), 0u) << name;
            text << db.name << ", " << name << ':';
            for (size_t c = 0; c < counters; ++c)
                if (counts[c] != 0)
                    text << (c == allocations ? "; " : " ") << counts[c] << ' ' << names[c];
            text << '\n';
        };
        vskvs::words found;
        std::vector<vskvs::words> all;
        count("insert", [&] { return db.insert(of[i].record); });
        count("insert again", [&] { return db.insert(of[i].record); });
        count("get", [&] { return db.get(db.shape, of[i].record[0], found); });
        for (const auto &[name, change] : of[i].changes)
            count(name, change);
        count("list", [&] { return db.list(db.shape, all); });
        for (const vskvs::words &record : db.erase ? all : std::vector<vskvs::words>{})
            count("delete", [&] { return db.erase(record[0]); });
    }
    return text.str();
}

TEST(costs, are_as_expected)
{
    ASSERT_EQ(vs_kvs_initialize(0), 0u);
    for (num job = 1; job <= 3; ++job) // by when all that is made once and kept is there
        costs(job, 0);
    const unsigned before = counts[allocations];
    const std::vector<char> probe(1); // valgrind takes the allocator over too
    const bool all = counts[allocations] != before;
    const std::string found = costs(4, all ? allocations + 1 : +allocations);
    if (all && getenv("ACCEPT"))
        std::ofstream(EXPECTED_COSTS) << found;
    std::string expected, line;
    for (std::ifstream file(EXPECTED_COSTS); std::getline(file, line);)
        expected += line.substr(0, all ? line.size() : line.find(';')) + '\n';
    EXPECT_EQ(found, expected);
}

} // namespace
