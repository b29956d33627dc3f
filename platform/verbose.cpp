// Debug prints.
//
// A print that is off must cost next to nothing, so the exported function contains the test alone
// and everything else is out of line. A line is composed on the stack and written by one call.
// Times are UTC, converted here: the conversions of the C library take a lock that may be held for
// ever in a forked child.
#include "verbose.h"

#include "platform/base/clock.h"
#include "platform/base/descriptor.h"
#include "platform/base/export.h"
#include "platform/base/mutex.h"
#include "platform/base/number.h"
#include "platform/base/utf8.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <optional>
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
constexpr size_t max_unknown = 127;

std::atomic<uint32_t> mask{0};

// Where the lines go. The identity of the file shows whether the descriptor still belongs to it: a
// daemon that closes all descriptors must not get debug lines into the file it opens next.
std::atomic<int> output{STDERR_FILENO};
std::atomic<dev_t> output_device{0};
std::atomic<ino_t> output_inode{0};

// Guards the descriptor of the log, which is kept while the lines go to standard error, and the
// words of the last warning.
pthread_mutex_t init_mutex = PTHREAD_MUTEX_INITIALIZER;
int log_number = STDERR_FILENO;
char warned_of[max_unknown + 1] = "";

bool is_our_file(int fd)
{
    struct stat about;
    return fd != STDERR_FILENO && fstat(fd, &about) == 0 &&
           about.st_dev == output_device.load(std::memory_order_relaxed) &&
           about.st_ino == output_inode.load(std::memory_order_relaxed);
}

// Writes a line at once. The signals of a pipe without a reader and of a file at its size limit
// would kill the process for a debug line: they are blocked and, unless they were pending before,
// removed.
void write_whole(int fd, const char *line, size_t length)
{
    sigset_t signals, previous, pending;
    sigemptyset(&signals);
    sigaddset(&signals, SIGPIPE);
    sigaddset(&signals, SIGXFSZ);
    pthread_sigmask(SIG_BLOCK, &signals, &previous);
    sigpending(&pending);
    ssize_t written = -1;
    do
        written = write(fd, line, length);
    while (written < 0 && errno == EINTR);
    const int raised = errno == EPIPE ? SIGPIPE : SIGXFSZ;
    if (written < 0 && (errno == EPIPE || errno == EFBIG) && sigismember(&pending, raised) == 0) {
        const timespec now{};
        sigemptyset(&pending);
        sigaddset(&pending, raised);
        sigtimedwait(&pending, nullptr, &now);
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

struct selection {
    uint32_t mask = 0;
    char unknown[max_unknown + 1] = ""; // words that are no category, separated by commas
};

std::optional<uint32_t> parse_category(std::string_view word)
{
    for (const category_name &each : categories)
        if (word == each.name)
            return each.bit;
    const bool hex = word.starts_with("0x") || word.starts_with("0X");
    return platform::parse_number(word.substr(hex ? 2 : 0), hex ? 16 : 10);
}

selection parse_categories(std::string_view text)
{
    selection chosen;
    size_t length = 0;
    while (!text.empty()) {
        const std::string_view word = text.substr(0, text.find(','));
        text.remove_prefix(std::min(text.size(), word.size() + 1));
        if (const auto bits = parse_category(word)) {
            chosen.mask |= *bits;
            continue;
        }
        if (!word.empty() && length < max_unknown)
            length += static_cast<size_t>(
                snprintf(chosen.unknown + length, sizeof chosen.unknown - length, "%s%.*s",
                         length == 0 ? "" : ",", static_cast<int>(word.size()), word.data()));
    }
    length = platform::whole_characters(chosen.unknown, std::min(length, max_unknown));
    chosen.unknown[length] = '\0';
    return chosen;
}

// Warns on standard error, once until the words change.
void warn_of_unknown(const selection &chosen)
{
    const bool is_known = strcmp(chosen.unknown, warned_of) == 0;
    strcpy(warned_of, chosen.unknown);
    if (is_known || chosen.unknown[0] == '\0')
        return;
    char line[max_unknown + 256];
    int length = snprintf(line, sizeof line, "%.64s: VS_VERBOSE: ignoring \"%s\"; known:",
                          program_invocation_short_name, chosen.unknown);
    for (const category_name &each : categories)
        length +=
            snprintf(line + length, sizeof line - static_cast<size_t>(length), " %s,", each.name);
    length += snprintf(line + length, sizeof line - static_cast<size_t>(length), " or a mask");
    const size_t printable = platform::make_printable(line, static_cast<size_t>(length));
    line[printable] = '\n';
    write_whole(STDERR_FILENO, line, printable + 1);
}

// Opens a file for the lines, or a device such as a terminal. A pipe is refused: it would block the
// process while it is full, and its opening would while there is no reader.
[[nodiscard]] descriptor open_log(const char *path, struct stat &about)
{
    constexpr int flags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY;
    descriptor file(open(path, flags | O_NONBLOCK, S_IRUSR | S_IWUSR));
    const bool usable = file.valid() && fstat(file.get(), &about) == 0 &&
                        (S_ISREG(about.st_mode) || S_ISCHR(about.st_mode)) &&
                        fcntl(file.get(), F_SETFL, O_APPEND) == 0;
    return usable ? std::move(file) : descriptor();
}

[[nodiscard]] bool send_lines_to(const char *path)
{
    struct stat about;
    descriptor file = open_log(path, about);
    if (!file.valid())
        return false;
    // The old file is replaced under its number, so that a print in another thread never uses a
    // number that is closed or belongs to another file.
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

// Returns VERBOSE_RC_FILE, and leaves the prints as they were, if the file cannot be opened.
[[nodiscard]] uint32_t apply(const selection &chosen)
{
    const char *const path = secure_getenv("VS_VERBOSE_FILE");
    if (path == nullptr || path[0] == '\0')
        output.store(STDERR_FILENO, std::memory_order_relaxed);
    else if (chosen.mask != 0 && !send_lines_to(path))
        return VERBOSE_RC_FILE;
    mask.store(chosen.mask, std::memory_order_relaxed);
    return 0;
}

selection read_environment()
{
    const char *const words = secure_getenv("VS_VERBOSE");
    return parse_categories(words != nullptr ? words : "");
}

// A failure at load cannot be reported: the prints stay off, and verbose_init returns it. Without
// memory for the handlers a child that is forked during verbose_init must not call it; nothing else
// is affected.
__attribute__((constructor)) void prepare_prints()
{
    static_cast<void>(platform::keep_across_fork<init_mutex>());
    static_cast<void>(apply(read_environment()));
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

// Returns the length of the text, which has room for max_text bytes and a NUL.
size_t put_text(char *text, const char *format, va_list arguments)
{
    int printed = vsnprintf(text, max_text + 1, format, arguments);
    // A text that cannot be formatted is replaced by its format.
    if (printed < 0)
        printed = snprintf(text, max_text + 1, "%s", format);
    size_t length = static_cast<size_t>(printed);
    if (length > max_text)
        length = platform::whole_characters(text, max_text);
    else if (length > 0 && text[length - 1] == '\n')
        --length;
    return platform::make_printable(text, length);
}

__attribute__((noinline)) void print(uint32_t category, const char *format, va_list arguments)
{
    const int error = errno;
    char line[max_prefix + max_text + 1];
    size_t length = put_prefix(line, category);
    length += put_text(line + length, format, arguments);
    line[length++] = '\n';
    const int file = output.load(std::memory_order_relaxed);
    write_whole(is_our_file(file) ? file : STDERR_FILENO, line, length);
    errno = error;
}

} // namespace

PLATFORM_EXPORT uint32_t verbose_init(uint64_t)
{
    const platform::scoped_lock lock(init_mutex);
    const selection chosen = read_environment();
    warn_of_unknown(chosen);
    return apply(chosen);
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
