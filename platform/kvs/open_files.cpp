#include "platform/kvs/open_files.h"

#include "platform/base/number.h"
#include "platform/kvs/engine_status.h"

#include <cerrno>
#include <climits>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace platform {
namespace {

// Returns null for an environment whose files were not found, and are not checked.
const open_files *files_of(MDB_env *environment)
{
    return static_cast<const open_files *>(mdb_env_get_userctx(environment));
}

// Requests no times: where the system keeps fine-grained ones, a file whose times were read gets
// new ones with its next change.
bool is_file(int dir, const char *name, int flags, const file_identity &file)
{
    struct statx about;
    return statx(dir, name, flags | AT_NO_AUTOMOUNT, STATX_INO, &about) == 0 &&
           about.stx_ino == file.inode &&
           makedev(about.stx_dev_major, about.stx_dev_minor) == file.device;
}

bool is_named(int dir, const char *name, const file_identity &file)
{
    return is_file(dir, name, AT_SYMLINK_NOFOLLOW, file);
}

struct dir_closer {
    void operator()(DIR *dir) const { closedir(dir); }
};

// The engine has a function for one of its descriptors only. The others are found in the list of
// all, which is short where the limit of their numbers may be in the millions.
[[nodiscard]] int search_descriptors(open_files *files)
{
    const std::unique_ptr<DIR, dir_closer> list(opendir("/proc/self/fd"));
    if (list == nullptr)
        return errno;
    while (const dirent *const entry = readdir(list.get())) {
        const std::optional<uint32_t> number = parse_number(entry->d_name, 10);
        if (!number || *number > INT_MAX)
            continue;
        const int fd = static_cast<int>(*number);
        if (files->lock < 0 && is_open_as(fd, files->lock_identity))
            files->lock = fd;
        else if (files->header < 0 && fd != files->data && is_open_as(fd, files->data_identity) &&
                 (fcntl(fd, F_GETFL) & O_ACCMODE) == O_WRONLY)
            files->header = fd;
    }
    return 0;
}

bool owns_files_of_commits(const open_files &files)
{
    return is_open_as(files.header, files.data_identity) &&
           is_open_as(files.lock, files.lock_identity);
}

bool owns_all(const open_files &files)
{
    return is_open_as(files.data, files.data_identity) && owns_files_of_commits(files);
}

} // namespace

bool is_open_as(int fd, const file_identity &file) { return is_file(fd, "", AT_EMPTY_PATH, file); }

int find_open_files(MDB_env *environment, open_files *files)
{
    files->header = files->lock = -1;
    if (const int error = mdb_env_get_fd(environment, &files->data); error != 0)
        return error;
    if (const int error = search_descriptors(files); error != 0)
        return error;
    if (!owns_all(*files))
        return files_replaced;
    return mdb_env_set_userctx(environment, files);
}

int check_descriptors(MDB_env *environment)
{
    const open_files *const files = files_of(environment);
    return files == nullptr || owns_all(*files) ? 0 : descriptors_lost;
}

int check_data_descriptor(MDB_env *environment)
{
    const open_files *const files = files_of(environment);
    return files == nullptr || is_open_as(files->data, files->data_identity) ? 0 : descriptors_lost;
}

int check_other_files(MDB_env *environment)
{
    const open_files *const files = files_of(environment);
    if (files == nullptr)
        return 0;
    if (!owns_files_of_commits(*files))
        return descriptors_lost;
    const bool are_named = is_named(files->dir, data_name, files->data_identity) &&
                           is_named(files->dir, lock_name, files->lock_identity);
    return are_named ? 0 : files_replaced;
}

int check_files(MDB_env *environment)
{
    const int error = check_data_descriptor(environment);
    return error != 0 ? error : check_other_files(environment);
}

void close_environment(MDB_env *environment)
{
    if (check_descriptors(environment) == 0)
        mdb_env_close(environment);
    else
        close_descriptors(*files_of(environment));
}

void close_descriptors(const open_files &files)
{
    const auto close_if_own = [](int fd, const file_identity &file) {
        if (is_open_as(fd, file))
            close(fd);
    };
    close_if_own(files.data, files.data_identity);
    close_if_own(files.header, files.data_identity);
    close_if_own(files.lock, files.lock_identity);
}

} // namespace platform
