// What the disk takes for the least that a durable change needs: one page written into a file that
// exists in full, and one flush.
#pragma once

#include "work.h"

#include <fcntl.h>
#include <unistd.h>

namespace bench {

class bare_flush {
public:
    static constexpr char name[] = "bare flush";

    bare_flush()
    {
        const std::string path = folder() + "/flushed";
        fd_ = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        must(fd_ >= 0, name, "open failed");
        if (lseek(fd_, 0, SEEK_END) == page_count * page_size)
            return;
        for (uint32_t page = 0; page < page_count; ++page)
            write_page(page);
        must(fsync(fd_) == 0, name, "fsync failed");
    }
    bare_flush(const bare_flush &) = delete;
    bare_flush &operator=(const bare_flush &) = delete;
    ~bare_flush() { close(fd_); }

    void select(uint32_t id, uint32_t version)
    {
        memcpy(page_, &version, sizeof version);
        write_page(id % page_count);
        must(fdatasync(fd_) == 0, name, "fdatasync failed");
    }

private:
    static constexpr uint32_t page_size = 4096, page_count = 1024;

    void write_page(uint32_t page)
    {
        must(pwrite(fd_, page_, page_size, static_cast<off_t>(page) * page_size) == page_size, name,
             "pwrite failed");
    }

    int fd_ = -1;
    char page_[page_size] = {};
};

} // namespace bench
