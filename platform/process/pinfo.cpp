// Process information, read from /proc.
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

using name_buffer = char[PATH_MAX];

// Returns the path of the program; empty if it may not be read or is too long for the system.
std::string_view read_program(uint32_t pid, name_buffer &buffer)
{
    char link[32];
    snprintf(link, sizeof link, "/proc/%u/exe", pid);
    const ssize_t length = readlink(link, buffer, sizeof buffer);
    if (length <= 0 || static_cast<size_t>(length) == sizeof buffer)
        return {};
    std::string_view name(buffer, static_cast<size_t>(length));
    constexpr std::string_view suffix = " (deleted)";
    if (name.ends_with(suffix))
        name.remove_suffix(suffix.size());
    return name;
}

std::string_view read_command(uint32_t pid, name_buffer &buffer)
{
    char path[32];
    snprintf(path, sizeof path, "/proc/%u/comm", pid);
    const descriptor file(open(path, O_RDONLY | O_CLOEXEC));
    const ssize_t length = file.valid() ? read(file.get(), buffer, sizeof buffer) : -1;
    std::string_view name(buffer, length > 0 ? static_cast<size_t>(length) : 0);
    if (name.ends_with('\n'))
        name.remove_suffix(1);
    return name;
}

} // namespace

PLATFORM_EXPORT uint32_t pinfo_get_name(uint32_t pid, char *name, uint32_t size)
{
    if (name == nullptr || size == 0)
        return PINFO_RC_NULL_ARG;
    name_buffer buffer;
    std::string_view found = read_program(pid, buffer);
    if (found.size() >= size)
        found.remove_prefix(found.rfind('/') + 1);
    if (found.empty())
        found = read_command(pid, buffer);
    if (found.empty())
        return PINFO_RC_NO_SUCH_PROCESS;
    if (found.size() >= size)
        return PINFO_RC_NAME_TOO_LONG;
    memcpy(name, found.data(), found.size());
    name[found.size()] = '\0';
    return 0;
}
