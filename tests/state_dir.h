// For programs that damage a state directory: one of their own, from before the libraries are
// loaded, and children to damage it in.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

constexpr unsigned patience = 60; // seconds after which something is stuck

// Ends the program with a line on standard error unless `fine`.
inline void need(bool fine, const char *what, uint32_t status = 0)
{
    if (fine)
        return;
    fprintf(stderr, "failed: %s (0x%08X)\n", what, status);
    abort();
}

// Made before the constructors of the libraries run, one of which opens a trace buffer. What is set
// in the environment that early does not last, so one of its variables, whichever, makes room.
struct state_dir {
    static inline char in_memory[] = "VS_STATE_DIR=/dev/shm/vs_kvs_harm.XXXXXX";
    static inline char on_disk[] = "VS_STATE_DIR=/tmp/vs_kvs_harm.XXXXXX";

    template <bool IsInMemory>
    static void choose(int, char **, char **environment)
    {
        char *setting = IsInMemory && mkdtemp(in_memory + 13) != nullptr ? in_memory : on_disk;
        if (environment[0] == nullptr || (setting == on_disk && mkdtemp(on_disk + 13) == nullptr))
            _exit(2);
        while (environment[1] != nullptr && strncmp(environment[0], setting, 13) != 0)
            ++environment;
        environment[0] = setting;
    }
    ~state_dir() { fs::remove_all(path); }

    const fs::path path = getenv("VS_STATE_DIR");
};

#define OWN_STATE_DIR(is_in_memory)                                                                \
    __attribute__((section(".preinit_array"), used)) auto *const before_all =                      \
        &state_dir::choose<is_in_memory>;                                                          \
    const state_dir own

// Does the work in a forked child, which then exits with status 0.
template <class Work>
pid_t start(const Work &work)
{
    fflush(nullptr);
    const pid_t child = fork();
    need(child >= 0, "fork");
    if (child == 0) {
        work();
        _exit(0);
    }
    return child;
}

// Waits for a child, and gives its exit status, or that of a shell for a signal.
inline int finish(pid_t child)
{
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR)
        ;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

template <class Work>
int in_child(const Work &work)
{
    return finish(start(work));
}

// Something that children share, filled with zeros.
template <class T>
T &shared()
{
    void *const memory = mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    need(memory != MAP_FAILED, "memory to share");
    return *static_cast<T *>(memory);
}

// Waits for a condition that a child or a thread is about to meet. Returns false on a timeout.
template <class Condition>
bool comes(const Condition &is_so)
{
    const std::time_t end = time(nullptr) + patience;
    while (!is_so() && time(nullptr) < end)
        usleep(20);
    return is_so();
}

inline std::string content_of(const fs::path &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// Of address space, in bytes.
inline uint64_t memory_in_use() { return 4096 * std::stoull(content_of("/proc/self/statm")); }

// Limits what this process may use, and returns what the limit was.
inline rlim_t limit(__rlimit_resource what, rlim_t value)
{
    rlimit now{};
    getrlimit(what, &now);
    const rlimit next{value < now.rlim_max ? value : now.rlim_max, now.rlim_max};
    need(setrlimit(what, &next) == 0, "setting a limit");
    return now.rlim_cur;
}

// Whether a sanitizer or valgrind replaces the allocator: then allocations cannot be intercepted,
// nor memory be limited.
inline bool memory_is_taken()
{
#ifdef ALLOCATOR_IS_TAKEN
    return true;
#else
    return content_of("/proc/self/maps").find("/valgrind/") != std::string::npos;
#endif
}
