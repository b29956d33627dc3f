// An open file descriptor with one owner, and the words for what went wrong with it.
#pragma once

#include <cerrno>
#include <cstring>
#include <unistd.h>
#include <utility>

namespace platform {

class descriptor {
public:
    descriptor() = default;
    explicit descriptor(int fd) noexcept : fd_(fd) {}
    descriptor(descriptor &&other) noexcept : fd_(other.release()) {}
    descriptor &operator=(descriptor &&other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~descriptor()
    {
        if (valid()) {
            const int error = errno;
            close(fd_);
            errno = error;
        }
    }

    [[nodiscard]] int get() const noexcept { return fd_; }
    [[nodiscard]] bool valid() const noexcept { return fd_ >= 0; }
    int release() noexcept { return std::exchange(fd_, -1); }

private:
    int fd_ = -1;
};

// The text of an error number. fault_strerror will not do here: to it 21 is no error number.
inline const char *error_text(int error) noexcept
{
    const char *const text = strerrordesc_np(error);
    return text != nullptr ? text : "unknown error";
}

} // namespace platform
