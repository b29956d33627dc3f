// A platform that follows a test's script.
//
// It is linked with the library's own objects in place of the real platform. It keeps the three
// databases in memory, writes every platform call, trace record, debug print and line on standard
// error into one log, in order, and can make any call or any allocation of the library fail.
#pragma once

#include "kvs.h"

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace scripted {

using bytes = std::vector<uint8_t>;

struct stored_record {
    kvs_rec_hdl handle;
    bytes data;
    bool operator==(const stored_record &) const = default;
};

using database = std::vector<stored_record>;
using databases = std::map<std::string, database>;

struct script {
    databases store;
    std::vector<std::string> log;      // "call ...", "trace ...", "print ...", "stderr ..."
    std::vector<std::string> problems; // malformed reports, misuse of the store

    int calls = 0;         // fallible platform calls so far
    int fail_call = 0;     // the number of the call that fails; 0 for none
    int calls_to_fail = 1; // how many in a row, from that one on
    uint32_t fail_status = 0xC6960999;
    int allocations = 0; // allocations of the library so far
    int fail_allocation = 0;
    std::string troubled; // the call or allocation that was made to fail, or met another trouble

    int texts = 0;   // status texts that were fetched
    int changes = 0; // successful inserts, writes and deletions

    // Called before each call, which it may make different by changing the script.
    std::function<void(const std::string &call, int number)> before;

    bool handle_unset = false;     // kvs_init and lookups succeed and give no handle
    bool arrays_missing = false;   // finds give a count without an array
    bool array_on_failure = false; // a failed find leaves an array all the same
    bool insert_tolerated = false;
    bool insert_without_handle = false;
    uint32_t read_length = UINT32_MAX; // a read copies no more than this
    uint32_t size = UINT32_MAX;        // what a size query returns instead of the length
    int trylock_error = 0, lock_error = 0;
    uint32_t job_id = 7; // 0: not a job
    std::string job_name = "/usr/sbin/daemon";
};

extern script now;

// A fresh script, and the library as it is when it has just been loaded.
void reset();

// Adds a record to a database.
void put(const char *database, const std::vector<uint32_t> &words);

// The words of a live block.
std::vector<uint32_t> content(void *block);

// Blocks that the library allocated, or received from the store, and that are not freed. A write
// beyond the end of one of them is a problem.
size_t live_blocks();

} // namespace scripted
