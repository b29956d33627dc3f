// The state directory, located by the environment and opened without following links in it.
//
// The path to the directory is the user's own and may contain links; the directory itself is
// trusted according to its owner and mode, read from the open descriptor so that nothing can be
// exchanged between the check and the use.
#include "platform/base/state_dir.h"

#include "platform/base/descriptor.h"
#include "verbose.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace platform {
namespace {

constexpr int folder_flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

[[nodiscard]] int refuse(const char *path, int error)
{
    verbose_printf_local(DBG_VS_PLATFORM, "state directory \"%s\": %s", path, error_text(error));
    errno = error;
    return -1;
}

// Writes the path into `path`; returns 0, or an error number if there is no usable one.
[[nodiscard]] int find_path(char (&path)[PATH_MAX])
{
    const char *base = secure_getenv("VS_STATE_DIR");
    const char *below = "";
    if (base == nullptr && geteuid() == 0)
        base = "/var/lib/vs";
    // By convention an empty value counts as unset.
    const char *const user_base = secure_getenv("XDG_STATE_HOME");
    if (base == nullptr && user_base != nullptr && user_base[0] != '\0') {
        base = user_base;
        below = "/vs";
    }
    if (base == nullptr) {
        base = secure_getenv("HOME");
        below = "/.local/state/vs";
    }
    const int length = snprintf(path, sizeof path, "%s%s", base != nullptr ? base : "", below);
    if (base == nullptr || base[0] != '/')
        return EINVAL;
    return length >= 0 && static_cast<size_t>(length) < sizeof path ? 0 : ENAMETOOLONG;
}

[[nodiscard]] int create_with_parents(char *path)
{
    for (char *end = path; end != nullptr;) {
        end = strchr(end + 1, '/');
        if (end != nullptr)
            *end = '\0';
        const int error = mkdir(path, S_IRWXU) == 0 || errno == EEXIST ? 0 : errno;
        if (end != nullptr)
            *end = '/';
        if (error != 0)
            return error;
    }
    return 0;
}

[[nodiscard]] int check_trust(int dir)
{
    struct stat about;
    if (fstat(dir, &about) != 0)
        return errno;
    const bool own = about.st_uid == geteuid() || about.st_uid == 0;
    return own && (about.st_mode & (S_IWGRP | S_IWOTH)) == 0 ? 0 : EPERM;
}

bool is_link(int dir, const char *name)
{
    struct stat about;
    return fstatat(dir, name, &about, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(about.st_mode);
}

[[nodiscard]] int open_component(int dir, const char *name, bool create)
{
    constexpr int flags = folder_flags | O_NOFOLLOW;
    int fd = openat(dir, name, flags);
    if (fd < 0 && errno == ENOENT && create) {
        if (mkdirat(dir, name, S_IRWXU) != 0 && errno != EEXIST)
            return -1;
        fd = openat(dir, name, flags);
    }
    // The system gives ENOTDIR for a link too.
    if (fd < 0 && errno == ENOTDIR)
        errno = is_link(dir, name) ? ELOOP : ENOTDIR;
    return fd;
}

} // namespace

int open_state_dir(bool create)
{
    char path[PATH_MAX];
    if (const int error = find_path(path); error != 0)
        return refuse(path, error);
    descriptor dir(open(path, folder_flags));
    if (!dir.valid() && errno == ENOENT && create) {
        if (const int error = create_with_parents(path); error != 0)
            return refuse(path, error);
        dir = descriptor(open(path, folder_flags));
    }
    if (!dir.valid())
        return refuse(path, errno);
    if (const int error = check_trust(dir.get()); error != 0)
        return refuse(path, error);
    return dir.release();
}

int open_folder_below(int dir, const char *path, bool create)
{
    descriptor folder(openat(dir, ".", folder_flags));
    while (folder.valid() && path[0] != '\0') {
        const size_t length = strcspn(path, "/");
        if (length > NAME_MAX) {
            errno = ENAMETOOLONG;
            return -1;
        }
        char name[NAME_MAX + 1];
        memcpy(name, path, length);
        name[length] = '\0';
        folder = descriptor(open_component(folder.get(), name, create));
        path += length + (path[length] == '/');
    }
    return folder.release();
}

} // namespace platform
