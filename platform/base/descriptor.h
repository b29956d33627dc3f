// An open file descriptor with one owner, and the texts of error numbers.
#pragma once

#include <cerrno>
#include <cstring>
#include <unistd.h>
#include <utility>

namespace platform {

class descriptor {
public:
    descriptor() = default;
    explicit descriptor(int fd) : fd_(fd) {}
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

    [[nodiscard]] int get() const { return fd_; }
    [[nodiscard]] bool valid() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }

private:
    int fd_ = -1;
};

// Returns the text of an error number. fault_strerror cannot be used: there 21 is a status.
inline const char *error_text(int error)
{
    const char *const text = strerrordesc_np(error);
    return text != nullptr ? text : "unknown error";
}

} // namespace platform
