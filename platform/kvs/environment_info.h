// An environment's file and sizes, from the engine.
#pragma once

#include <cstdint>
#include <lmdb.h>

namespace platform {

struct environment_info {
    int fd; // of the data file
    uint32_t page_size;
    uint64_t map_size;
    uint64_t used_size; // of the file, up to the last page of the last commit
    uint64_t last_commit;
};

// Returns 0 or an error of the engine.
[[nodiscard]] inline int get_environment_info(MDB_env *environment, environment_info *info)
{
    MDB_envinfo about;
    MDB_stat sizes;
    int fd = -1;
    if (int error = mdb_env_get_fd(environment, &fd);
        error != 0 || (error = mdb_env_info(environment, &about)) != 0 ||
        (error = mdb_env_stat(environment, &sizes)) != 0)
        return error;
    *info = {fd, sizes.ms_psize, about.me_mapsize, (about.me_last_pgno + 1) * sizes.ms_psize,
             about.me_last_txnid};
    return 0;
}

} // namespace platform
