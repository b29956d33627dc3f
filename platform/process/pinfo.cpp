// Process information, as /proc tells it.
#include "pinfo.h"

#include "platform/base/descriptor.h"
#include "platform/base/export.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string_view>

namespace {

using platform::descriptor;

using name_room = char[PATH_MAX];

// The path of the program; empty where it may not be seen or is longer than the system can tell.
std::string_view read_program(uint32_t pid, name_room &room)
{
    char link[32];
    snprintf(link, sizeof link, "/proc/%u/exe", pid);
    const ssize_t length = readlink(link, room, sizeof room);
    if (length <= 0 || static_cast<size_t>(length) == sizeof room)
        return {};
    std::string_view name(room, static_cast<size_t>(length));
    constexpr std::string_view mark = " (deleted)";
    if (name.ends_with(mark))
        name.remove_suffix(mark.size());
    return name;
}

std::string_view read_command(uint32_t pid, name_room &room)
{
    char path[32];
    snprintf(path, sizeof path, "/proc/%u/comm", pid);
    const descriptor file(open(path, O_RDONLY | O_CLOEXEC));
    const ssize_t length = file.valid() ? read(file.get(), room, sizeof room) : -1;
    std::string_view name(room, length > 0 ? static_cast<size_t>(length) : 0);
    if (name.ends_with('\n'))
        name.remove_suffix(1);
    return name;
}

} // namespace

PLATFORM_EXPORT uint32_t pinfo_get_name(uint32_t pid, char *name, uint32_t size)
{
    if (name == nullptr || size == 0)
        return PINFO_RC_NULL_ARG;
    name_room room;
    std::string_view found = read_program(pid, room);
    if (found.empty())
        found = read_command(pid, room);
    if (found.empty())
        return PINFO_RC_NO_SUCH_PROCESS;
    if (found.size() >= size)
        return PINFO_RC_NAME_TOO_LONG;
    memcpy(name, found.data(), found.size());
    name[found.size()] = '\0';
    return 0;
}
