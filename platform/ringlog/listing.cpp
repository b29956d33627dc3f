// The names of all trace buffers.
#include "platform/base/export.h"
#include "platform/base/state_dir.h"
#include "platform/ringlog/buffer_file.h"
#include "ringlog.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>

namespace {

using namespace platform;

class name_list {
public:
    name_list() = default;
    name_list(const name_list &) = delete;
    name_list &operator=(const name_list &) = delete;
    ~name_list()
    {
        for (char **name = begin(); name != end(); ++name)
            free(*name);
        free(names_);
    }

    [[nodiscard]] bool add(const char *name)
    {
        if (count_ == capacity_) {
            const size_t capacity = capacity_ * 2 + 16;
            void *const grown = realloc(names_, capacity * sizeof(char *));
            if (grown == nullptr)
                return false;
            names_ = static_cast<char **>(grown);
            capacity_ = capacity;
        }
        char *const copy = strdup(name);
        if (copy != nullptr)
            names_[count_++] = copy;
        return copy != nullptr;
    }

    char **begin() const { return names_; }
    char **end() const { return names_ + count_; }

private:
    char **names_ = nullptr;
    size_t count_ = 0;
    size_t capacity_ = 0;
};

struct close_folder {
    void operator()(DIR *folder) const { closedir(folder); }
};

// The path of a file or folder below the folder of the buffers.
struct buffer_path {
    char text[max_buffer_name + 1] = "";
    size_t length = 0;

    // Returns false if the component does not fit.
    [[nodiscard]] bool append(const char *component)
    {
        const size_t start = length == 0 ? 0 : length + 1;
        const size_t end = start + strlen(component);
        if (end > max_buffer_name)
            return false;
        if (length != 0)
            text[length] = '/';
        memcpy(text + start, component, end - start + 1);
        length = end;
        return true;
    }

    void truncate(size_t to)
    {
        length = to;
        text[to] = '\0';
    }
};

[[nodiscard]] uint32_t collect(descriptor fd, buffer_path &path, name_list &names);

// Adds the file `name` in the folder `dir`, or the files below the folder of this name; `path`
// includes the name.
[[nodiscard]] uint32_t collect_entry(int dir, const char *name, buffer_path &path, name_list &names)
{
    struct stat about;
    if (fstatat(dir, name, &about, AT_SYMLINK_NOFOLLOW) != 0)
        return 0;
    if (S_ISREG(about.st_mode))
        return names.add(path.text) ? 0 : RINGLOG_RC_NO_MEMORY;
    if (!S_ISDIR(about.st_mode))
        return 0;
    descriptor below(open_folder_below(dir, name, false));
    const uint32_t status = below.valid()
                                ? collect(std::move(below), path, names)
                                : log_file_error("cannot open the folder", path.text, errno);
    return status == RINGLOG_RC_NO_SUCH_BUFFER ? 0 : status;
}

// Adds the files in `fd` and in the folders below it; `path` is its path.
uint32_t collect(descriptor fd, buffer_path &path, name_list &names)
{
    const std::unique_ptr<DIR, close_folder> folder(fdopendir(fd.get()));
    if (folder == nullptr)
        return log_file_error("cannot read the folder", path.text, errno);
    const int dir = fd.release();
    const size_t length = path.length;
    for (;;) {
        errno = 0;
        const dirent *const entry = readdir(folder.get());
        if (entry == nullptr)
            return errno == 0 ? 0 : log_file_error("cannot read the folder", path.text, errno);
        if (entry->d_name[0] == '.' || !path.append(entry->d_name))
            continue;
        const uint32_t status = collect_entry(dir, entry->d_name, path, names);
        path.truncate(length);
        if (status != 0)
            return status;
    }
}

} // namespace

PLATFORM_EXPORT uint32_t ringlog_list(int (*each)(const char *name, void *context), void *context)
{
    if (each == nullptr)
        return RINGLOG_RC_NULL_ARG;
    descriptor root;
    uint32_t status = open_buffer_root(false, root);
    name_list names;
    buffer_path path;
    if (status == 0)
        status = collect(std::move(root), path, names);
    if (status != 0)
        return status == RINGLOG_RC_NO_SUCH_BUFFER ? 0 : status;
    std::sort(names.begin(), names.end(),
              [](const char *left, const char *right) { return strcmp(left, right) < 0; });
    for (const char *const name : names)
        if (each(name, context) != 0)
            break;
    return 0;
}
