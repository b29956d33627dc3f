// The small services of the platform, and the state directory that the others share.
#include "fault.h"
#include "jobctl.h"
#include "loader.h"
#include "lockwatch.h"
#include "pinfo.h"
#include "ringlog.h"
#include "scratch.h"
#include "verbose.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <regex>
#include <set>
#include <thread>

namespace {

struct services : scratch {
    uint32_t open_buffer() { return ringlog_init2("probe", 0, 0, 1, 1, 0, &handle); }
    uint32_t start(const char *names) { return setenv("VS_VERBOSE", names, 1), verbose_init(0); }
    uint64_t handle = 0;
    const fs::path log = root / "log";
};

TEST_F(services, state_dir_is_private_and_trusted)
{
    const fs::path state = root / "state", user = root / "u";
    EXPECT_TRUE(open_buffer() == 0 && mode_of(state) == 0700 && mode_of(state / "ringlog") == 0700);
    for (const unsigned mode : {0720u, 0702u, 0755u})
        EXPECT_EQ((fs::permissions(state, fs::perms{mode}), open_buffer() == 0), mode == 0755);
    fs::rename(state / "ringlog", root / "moved");
    fs::create_directory_symlink(root / "moved", state / "ringlog");
    EXPECT_EQ(open_buffer(), RINGLOG_RC_BAD_NAME);
    fs::create_directory(user);
    const bool root_acts = chown(user.c_str(), 12345, 0) == 0;
    for (const char *bad : {"", "relative", "/proc/none", "/etc/passwd", user.c_str()})
        EXPECT_TRUE((setenv("VS_STATE_DIR", bad, 1), open_buffer() == RINGLOG_RC_STATE_DIR) ||
                    (user == bad && !root_acts));
    unsetenv("VS_STATE_DIR");
    fs::permissions(root, fs::perms{0755});
    EXPECT_TRUE(passes_in_child([&] {
        EXPECT_TRUE(!root_acts || seteuid(12345) == 0);
        EXPECT_EQ((setenv("HOME", user.c_str(), 1), setenv("XDG_STATE_HOME", "", 1)), 0);
        EXPECT_TRUE(open_buffer() == 0 && fs::exists(user / ".local/state/vs/ringlog"));
        setenv("XDG_STATE_HOME", user.c_str(), 1);
        EXPECT_TRUE(open_buffer() == 0 && fs::exists(user / "vs/ringlog"));
    }));
}

TEST_F(services, prints_follow_the_environment_in_whole_lines)
{
    setenv("VS_VERBOSE_FILE", log.c_str(), 1);
    const std::string head = R"([-\d]{10} [:\d]{8}\.\d{6} \[)" + std::to_string(getpid());
    const std::regex lines(head + R"(\] (\w)(\w+): \1\2\n)"), prefix(head + R"(\] kvs: )");
    struct {
        std::string on, value, unknown;
    } const rows[] = {{"", "", ""},
                      {"k", "kvs", ""},
                      {"", "tuna", "tuna"},
                      {"c", "common", ""},
                      {"k", "tuna,kvs", "tuna"},
                      {"kp", "kvs,platform,", ""},
                      {"p", "`,\x1b[,platform", "`,?["},
                      {"kc", "0x60000000", ""},
                      {"p", "268435456", ""},
                      {"k", "kvs,0x,12abc,0x100000000", "0x,12abc,0x100000000"},
                      {"k", std::string(200, 'w') + ",kvs", std::string(127, 'w')},
                      {"", "0", ""},
                      {"kcp", "all", ""}};
    char *const name = program_invocation_short_name;
    char hostile[] = "\x1b\u202e\xff";
    for (const auto &[on, value, unknown] : rows) {
        program_invocation_short_name = hostile;
        testing::internal::CaptureStderr();
        EXPECT_TRUE(start(value.c_str()) == 0 && start(value.c_str()) == 0) << value;
        program_invocation_short_name = name;
        const std::string warning = "???: VS_VERBOSE: ignoring \"" + unknown +
                                    "\"; known: kvs, common, platform, all, or a mask\n";
        EXPECT_EQ(testing::internal::GetCapturedStderr(), unknown.empty() ? "" : warning);
        std::ofstream(log).flush();
        verbose_printf_local(DBG_VS_KVS, "%s", "kvs");
        verbose_printf_local(DBG_VS_COMMON, "%s", "common\n");
        verbose_printf_local(DBG_VS_PLATFORM, "%s", "platform");
        EXPECT_EQ(std::regex_replace(content_of(log), lines, "$1"), on) << value;
    }
    fs::remove(log);
    EXPECT_EQ(start("kvs"), 0u);
    fs::create_symlink(log, root / "link");
    EXPECT_EQ(mkfifo((root / "pipe").c_str(), 0600), 0);
    EXPECT_EQ(mkfifo((root / "read").c_str(), 0600), 0);
    const int reader = open((root / "read").c_str(), O_RDONLY | O_NONBLOCK);
    for (const char *bad : {"link", "no/such", "pipe", "read"})
        EXPECT_EQ((setenv("VS_VERBOSE_FILE", (root / bad).c_str(), 1), start("all")),
                  VERBOSE_RC_FILE);
    verbose_printf_local(DBG_VS_KVS, "a\tb\x01\x7f\x1b[%s\n\n", "c\u009b\u202e\xff\u00e9");
    verbose_printf_local(DBG_VS_KVS, "%s\u00e9", std::string(3999, 'y').c_str());
    EXPECT_EQ(std::regex_replace(content_of(log), prefix, ""),
              "a\tb???[c???\u00e9?\n" + std::string(3999, 'y') + "\n");
    EXPECT_EQ((setenv("VS_VERBOSE_FILE", "/dev/full", 1), start("kvs")), 0u);
    errno = 4711;
    verbose_printf_local(DBG_VS_KVS, "lost");
    EXPECT_EQ(errno, 4711);
    const int writer = open((root / "read").c_str(), O_WRONLY);
    EXPECT_EQ(close(reader), 0);
    for (const char *to : {log.c_str(), ""}) // past the limit, and into a pipe without a reader
        EXPECT_TRUE(passes_in_child([&] {
            setenv("VS_VERBOSE_FILE", to, 1);
            EXPECT_TRUE(start("kvs") == 0 && dup2(writer, STDERR_FILENO) >= 0);
            limit(RLIMIT_FSIZE, 1);
            verbose_printf_local(DBG_VS_KVS, "%s", "lost");
        }));
    close(writer);
}

TEST_F(services, every_status_has_words)
{
    std::set<std::pair<uint32_t, std::string>> defined{{0, "success"}}, listed;
    const std::regex define(R"(#define (\w+_RC_\w+|VS_FAULT_\w+|VS_\w+_OPEN)\W+UINT32_C.(\w+))");
    for (const char *of :
         {"kvs", "ringlog", "verbose", "jobctl", "pinfo", "../../include/vs_kvs"}) {
        const std::string header = content_of(fs::path(PLATFORM_INCLUDE_DIR) / of += ".h");
        for (std::sregex_iterator at(header.begin(), header.end(), define), end; at != end; ++at)
            defined.emplace(std::stoul((*at)[2], nullptr, 0), (*at)[1]);
    }
    size_t count = 0;
    std::set<std::string> texts{""};
    for (const fault_entry *i = fault_catalogue(&count), *end = i + count; i != end; ++i) {
        listed.emplace(i->status, i->name);
        EXPECT_TRUE(texts.insert(i->text).second) << i->text;
        EXPECT_TRUE(fault_find(i->status) == i && fault_strerror(i->status) == i->text);
    }
    EXPECT_EQ(defined, listed);
    EXPECT_STREQ(fault_strerror(EBUSY), "Device or resource busy");
    EXPECT_STREQ(fault_strerror(4095), "unknown status 0x00000FFF");
}

TEST_F(services, jobs_and_processes_have_ids_and_names)
{
    uint32_t id = 5;
    char name[PATH_MAX] = "before";
    const std::string program = fs::read_symlink("/proc/self/exe");
    const std::string leaf = fs::path(program).filename();
    const auto self = static_cast<uint32_t>(getpid());
    const auto size_for = [](const std::string &text) {
        return static_cast<uint32_t>(text.size()) + 1;
    };
    EXPECT_EQ(jobctl_get_job_id(&id), JOBCTL_RC_NOT_A_JOB);
    for (const char *bad : {"", "0", "-1", "+1", " 1", "1 ", "0x10", "1a", "1`", "4294967296"})
        EXPECT_EQ((setenv("VS_JOB_ID", bad, 1), jobctl_get_job_id(&id)), JOBCTL_RC_BAD_JOB_ID);
    EXPECT_EQ((setenv("VS_JOB_NAME", "seven_b", 1), setenv("VS_JOB_ID", "4294967295", 1)), 0);
    EXPECT_EQ(jobctl_get_jobctl_name(name, 7), JOBCTL_RC_NAME_TOO_LONG);
    EXPECT_EQ(pinfo_get_name(self, name, size_for(leaf) - 1), PINFO_RC_NAME_TOO_LONG);
    EXPECT_EQ(pinfo_get_name(INT32_MAX, name, size_for(program)), PINFO_RC_NO_SUCH_PROCESS);
    EXPECT_TRUE(id == 5 && name == std::string("before"));
    EXPECT_TRUE(jobctl_get_job_id(&id) == 0 && id == UINT32_MAX);
    EXPECT_TRUE(jobctl_get_jobctl_name(name, 8) == 0 && name == std::string("seven_b"));
    EXPECT_TRUE(pinfo_get_name(self, name, size_for(leaf)) == 0 && name == leaf);
    EXPECT_TRUE(pinfo_get_name(self, name, size_for(program) - 1) == 0 && name == leaf);
    EXPECT_TRUE(pinfo_get_name(self, name, size_for(program)) == 0 && name == program);
}

TEST_F(services, waits_are_noted)
{
    lockwatch_wait waits[130];
    lockwatch_set_mutex_block(&handle, "here", 7);
    EXPECT_TRUE(lockwatch_list(waits, 130) == 1 && waits->mutex == &handle && waits->code == 7);
    EXPECT_TRUE(passes_in_child([&] { EXPECT_EQ(lockwatch_list(waits, 130), 0u); }));
    EXPECT_EQ((lockwatch_unset_mutex_block(), lockwatch_list(waits, 130)), 0u);
}

TEST_F(services, unload_differs_from_the_end_of_the_process)
{
    const fs::path answer = root / "answer";
    setenv("UNLOAD_ANSWER_FILE", answer.c_str(), 1);
    setenv("VS_VERBOSE_FILE", log.c_str(), 1);
    // Returns how often a hook got each of the answers, "the process ends" first.
    const auto answers = [&] {
        const std::string text = content_of(log);
        const auto count = [&](const char *of) {
            const std::regex answer_line(of);
            return std::distance(std::sregex_iterator(text.begin(), text.end(), answer_line), {});
        };
        fs::remove(log);
        return std::pair(count("hook: the process ends\n"), count("hook: explicit unload\n"));
    };
    const auto end = [&] { start("platform"), exit(0); };
    // Before dlopen only libraries that came with the program have hooks.
    EXPECT_TRUE(passes_in_child(end));
    const auto [at_start, unloaded] = answers();
    EXPECT_TRUE(at_start >= 2 && unloaded == 0);
    // Such a child has lost what only the other thread refers to, which counts as leaked.
    std::thread([&] { finish(start_in_child(end)); }).join();
    EXPECT_EQ(answers(), std::pair(at_start, 0l));
    void *const hook = dlopen(UNLOAD_HOOK, RTLD_NOW), *jumper = dlopen(UNLOAD_JUMPER, RTLD_NOW);
    ASSERT_TRUE(hook != nullptr && jumper != nullptr) << dlerror();
    EXPECT_TRUE(passes_in_child(end) && content_of(answer) == "0");
    EXPECT_EQ(answers(), std::pair(at_start + 3, 0l));
    EXPECT_TRUE(start("platform") == 0 && dlclose(hook) == 0 && dlclose(jumper) == 0);
    EXPECT_TRUE(content_of(answer) == "1");
    EXPECT_EQ(answers(), std::pair(0l, 3l));
}

} // namespace
