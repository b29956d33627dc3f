// Debug prints.
//
// A print that is off must cost next to nothing, so the exported function holds the test alone and
// everything else stands apart. A line is put together on the stack and given to the system whole.
// Times are UTC, worked out here: the C library's conversions take a lock that a forked child may
// find held for ever.
#include "verbose.h"

#include "platform/base/clock.h"
#include "platform/base/descriptor.h"
#include "platform/base/export.h"
#include "platform/base/mutex.h"
#include "platform/base/number.h"
#include "platform/base/utf8.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using platform::descriptor;

struct category_name {
    uint32_t bit;
    const char *name;
};

constexpr category_name categories[] = {
    {DBG_VS_KVS, "kvs"},
    {DBG_VS_COMMON, "common"},
    {DBG_VS_PLATFORM, "platform"},
    {UINT32_MAX, "all"},
};

constexpr size_t max_prefix = 80;
constexpr size_t max_text = 4000;

std::atomic<uint32_t> mask{0};

// Where the lines go. The identity of the file tells whether the number is still ours: a daemon
// that closes all its descriptors must not get debug lines into the file it opens next.
std::atomic<int> output{STDERR_FILENO};
std::atomic<dev_t> output_device{0};
std::atomic<ino_t> output_inode{0};

// The number of the log, kept while the lines go to standard error; init_mutex guards it.
int log_number = STDERR_FILENO;

pthread_mutex_t init_mutex = PTHREAD_MUTEX_INITIALIZER;

bool is_our_file(int fd)
{
    struct stat about;
    return fd != STDERR_FILENO && fstat(fd, &about) == 0 &&
           about.st_dev == output_device.load(std::memory_order_relaxed) &&
           about.st_ino == output_inode.load(std::memory_order_relaxed);
}

bool parse_mask(std::string_view text, uint32_t &number)
{
    const bool hex = text.starts_with("0x") || text.starts_with("0X");
    return platform::parse_number(text.substr(hex ? 2 : 0), hex ? 16 : 10, number);
}

bool parse_categories(std::string_view text, uint32_t &chosen)
{
    if (text.empty() || parse_mask(text, chosen))
        return true;
    for (;;) {
        const size_t comma = text.find(',');
        uint32_t bit = 0;
        for (const category_name &each : categories)
            bit |= text.substr(0, comma) == each.name ? each.bit : 0;
        if (bit == 0)
            return false;
        chosen |= bit;
        if (comma == text.npos)
            return true;
        text.remove_prefix(comma + 1);
    }
}

bool send_lines_to(const char *path)
{
    descriptor file(open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY,
                         S_IRUSR | S_IWUSR));
    struct stat about;
    if (!file.valid() || fstat(file.get(), &about) != 0)
        return false;
    // The old file is replaced under its number, so that a print in another thread is never left
    // with a number that is closed, or somebody else's.
    const bool replace = is_our_file(log_number);
    if (replace && dup3(file.get(), log_number, O_CLOEXEC) < 0)
        return false;
    output_device.store(about.st_dev, std::memory_order_relaxed);
    output_inode.store(about.st_ino, std::memory_order_relaxed);
    if (!replace)
        log_number = file.release();
    output.store(log_number, std::memory_order_relaxed);
    return true;
}

uint32_t apply_environment()
{
    const char *const names = secure_getenv("VS_VERBOSE");
    uint32_t chosen = 0;
    if (names != nullptr && !parse_categories(names, chosen))
        return VERBOSE_RC_BAD_CATEGORY;
    const char *const path = secure_getenv("VS_VERBOSE_FILE");
    if (path == nullptr || path[0] == '\0')
        output.store(STDERR_FILENO, std::memory_order_relaxed);
    else if (chosen != 0 && !send_lines_to(path))
        return VERBOSE_RC_FILE;
    mask.store(chosen, std::memory_order_relaxed);
    return 0;
}

// At load nobody can be told of a failure: the prints stay off until verbose_init tells it. Without
// memory for the handlers a child that is forked during verbose_init must not call it; nothing else
// suffers.
__attribute__((constructor)) void prepare_prints()
{
    platform::keep_across_fork<init_mutex>();
    apply_environment();
}

const char *name_of(uint32_t category)
{
    for (const category_name &each : categories)
        if ((each.bit & category) != 0)
            return each.name;
    return "all";
}

size_t put_prefix(char *line, uint32_t category)
{
    using namespace std::chrono;
    const sys_time<nanoseconds> now{nanoseconds{platform::clock_ns(CLOCK_REALTIME)}};
    const auto day = floor<days>(now);
    const year_month_day date{day};
    const hh_mm_ss time{floor<microseconds>(now - day)};
    const int length =
        snprintf(line, max_prefix,
                 "%04d-%02u-%02u %02d:%02d:%02d.%06d [%d] %s: ", static_cast<int>(date.year()),
                 static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                 static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
                 static_cast<int>(time.seconds().count()),
                 static_cast<int>(time.subseconds().count()), getpid(), name_of(category));
    return length > 0 ? static_cast<size_t>(length) : 0;
}

// `text` has room for max_text bytes and a NUL.
size_t put_text(char *text, const char *format, va_list arguments)
{
    int printed = vsnprintf(text, max_text + 1, format, arguments);
    // A text that cannot be printed is shown as the words it was to be printed with.
    if (printed < 0)
        printed = snprintf(text, max_text + 1, "%s", format);
    size_t length = static_cast<size_t>(printed);
    if (length > max_text)
        length = platform::whole_characters(text, max_text);
    else if (length > 0 && text[length - 1] == '\n')
        --length;
    for (size_t i = 0; i < length; ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if ((byte < 0x20u && byte != '\t') || byte == 0x7Fu)
            text[i] = '?';
    }
    return length;
}

__attribute__((noinline)) void print(uint32_t category, const char *format, va_list arguments)
{
    const int error = errno;
    char line[max_prefix + max_text + 1];
    size_t length = put_prefix(line, category);
    length += put_text(line + length, format, arguments);
    line[length++] = '\n';
    const int file = output.load(std::memory_order_relaxed);
    const int fd = is_our_file(file) ? file : STDERR_FILENO;
    ssize_t written = -1;
    do
        written = write(fd, line, length);
    while (written < 0 && errno == EINTR);
    errno = error;
}

} // namespace

PLATFORM_EXPORT uint32_t verbose_init(uint64_t)
{
    const platform::scoped_lock lock(init_mutex);
    return apply_environment();
}

PLATFORM_EXPORT void verbose_printf_local(uint32_t category, const char *format, ...)
{
    if ((mask.load(std::memory_order_relaxed) & category) == 0) [[likely]]
        return;
    va_list arguments;
    va_start(arguments, format);
    print(category, format, arguments);
    va_end(arguments);
}
