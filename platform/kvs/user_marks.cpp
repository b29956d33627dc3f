#include "platform/kvs/user_marks.h"

#include <cerrno>
#include <fcntl.h>

namespace platform {
namespace {

constexpr off_t mark_limit = off_t{1} << 60;

struct flock make_lock(short type, mark kind, off_t first, off_t count)
{
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = static_cast<off_t>(kind) + first;
    lock.l_len = count;
    return lock;
}

off_t place_of(ino_t number) { return static_cast<off_t>(number) & (mark_limit - 1); }

[[nodiscard]] int find_mark(int fd, mark kind, off_t first, off_t end, bool *found)
{
    *found = false;
    if (first == end)
        return 0;
    struct flock lock = make_lock(F_WRLCK, kind, first, end - first);
    if (fcntl(fd, F_GETLK, &lock) != 0)
        return errno;
    *found = lock.l_type != F_UNLCK;
    return 0;
}

} // namespace

int set_mark(int fd, mark kind, ino_t number)
{
    const struct flock lock = make_lock(F_RDLCK, kind, place_of(number), 1);
    return fcntl(fd, F_SETLK, &lock) == 0 ? 0 : errno;
}

int find_different_mark(int fd, mark kind, ino_t number, bool *found)
{
    const off_t own = place_of(number);
    const int error = find_mark(fd, kind, 0, own, found);
    return error != 0 || *found ? error : find_mark(fd, kind, own + 1, mark_limit, found);
}

} // namespace platform
