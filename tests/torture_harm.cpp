// A store that runs out of something, and one that another user attacks.
#include "torture.h"
#include "vs_kvs.h"

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

namespace torture {
namespace {

constexpr uid_t other_user = 65534;
constexpr int not_here = 77; // exit status of what this system does not allow

void skip(bool when, const char *why)
{
    if (!when)
        return;
    printf("torture: skipped: %s\n", why);
    fflush(stdout);
    _exit(not_here);
}

uint32_t bind(const char *name = "vs_objects")
{
    kvs_appdesc about;
    kvs_hdl hdl = 0;
    kvs_appdesc_init(&about);
    return kvs_init(name, &about, 0, &hdl);
}

void set_mode(const fs::path &of, mode_t mode) { need(chmod(of.c_str(), mode) == 0, of.c_str()); }

void become_other_user()
{
    need(geteuid() != 0 || (setresgid(other_user, other_user, other_user) == 0 &&
                            setresuid(other_user, other_user, other_user) == 0),
         "becoming another user");
}

fs::path make_for_other_user()
{
    const fs::path dir = use_new_state("harm");
    set_mode(root, 0755);
    fs::create_directory(dir);
    set_mode(dir, 0700);
    need(geteuid() != 0 || chown(dir.c_str(), other_user, other_user) == 0,
         "giving a directory away");
    return dir;
}

// ---- exhaustion ----

void change_often(uint64_t seed, contents &all)
{
    for (int left = 50; left != 0; --left) {
        const uint32_t status = change(seed++, 1, all, true);
        need(status == 0, "changing", status);
    }
    need(stored() == all, "the contents after changing");
}

// Adds big records while `narrow` has made something scarce, one by one and in a batch, until one
// is refused; `widen` ends the scarcity. Checks that exactly what was acknowledged is stored, and
// that changes succeed again.
void run_out(const std::function<void()> &narrow, const std::function<void()> &widen,
             std::initializer_list<uint32_t> allowed)
{
    dice roll{1};
    contents all;
    open_databases();
    change_often(0, all);
    for (const bool batch : {false, true}) {
        contents tried = all;
        narrow();
        uint32_t status = batch ? kvs_batch_begin(g_kvs_hdl_vs_objects_db) : 0;
        for (uint32_t key = 100; status == 0 && key < 300; ++key)
            status = insert(roll, 0, batch ? key + 200 : key, 50'000, tried, true);
        if (batch)
            status = status == 0 ? kvs_batch_commit() : (kvs_batch_abort(), status);
        widen();
        need(std::ranges::count(allowed, status) == 1, "a change with nothing left", status);
        need(tried.size() > all.size(), "not even one record fits");
        if (!batch)
            all = tried;
        need(stored() == all, "the contents after a refusal");
        change_often(batch ? 200 : 100, all);
    }
    need(in_child([&] { need(stored() == all, "the contents"); }) == 0, "another process");
}

void file_size_limit()
{
    const fs::path data = use_new_state("harm") / "store.mdb";
    // A new store is written in pieces of any length.
    uint32_t status = KVS_RC_NO_SPACE;
    for (rlim_t most = 1000; status == KVS_RC_NO_SPACE && most < 4'000'000; most += 50'000) {
        limit(RLIMIT_FSIZE, most);
        status = bind();
        limit(RLIMIT_FSIZE, RLIM_INFINITY);
        need(most > 1'000'000 || status == KVS_RC_NO_SPACE, "making a store too large", status);
    }
    need(status == 0, "making a store", status);
    run_out([&] { limit(RLIMIT_FSIZE, fs::file_size(data) + 1'000'000); },
            [] { limit(RLIMIT_FSIZE, RLIM_INFINITY); }, {KVS_RC_NO_SPACE});
}

// Allows one more descriptor at a time until opening succeeds; an open store needs no more.
void no_descriptors()
{
    use_new_state("harm");
    const auto count_open = [] {
        return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    };
    const auto open_before = count_open();
    uint32_t status = KVS_RC_NO_DESCRIPTORS;
    rlim_t most = 3;
    for (; status == KVS_RC_NO_DESCRIPTORS && most < 64; ++most) {
        const rlim_t before = limit(RLIMIT_NOFILE, most);
        status = bind();
        limit(RLIMIT_NOFILE, before);
        need(status == 0 || count_open() == open_before, "descriptors left open");
    }
    need(most > 6 && status == 0, "running out of descriptors", status);
    contents all;
    open_databases();
    limit(RLIMIT_NOFILE, 0);
    change_often(0, all);
}

void no_permission()
{
    const fs::path state = make_for_other_user();
    become_other_user();
    for (const char *const name : {".", "store.mdb", "store.mdb-lock"}) {
        set_mode(state / name, 0500);
        need(in_child([] { _exit(bind() != KVS_RC_ACCESS); }) == 0, name);
        set_mode(state / name, 0700);
        need(in_child(open_databases) == 0, "permission given again");
    }
    set_mode(state, 0500); // the files are there, and that is all the store needs
    contents all;
    open_databases();
    change_often(0, all);
    set_mode(state, 0700);
}

// ---- surroundings ----

void enter_new_namespace(int kind)
{
    skip(unshare(kind) != 0 && unshare(CLONE_NEWUSER | kind) != 0,
         "this system does not let the test make namespaces");
}

void expect_no_proc()
{
    const fs::path output = root / "output";
    enter_new_namespace(CLONE_NEWNS);
    mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
    skip(mount("none", "/proc", "tmpfs", 0, nullptr) != 0, "/proc cannot be hidden here");
    need(bind() == KVS_RC_NO_PROC, "binding without /proc");
    if (memory_is_taken()) // a sanitized program does not start without /proc
        return;
    need(in_child([&] {
             dup2(open(output.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
             execl(VSKVS, "vskvs", "check", nullptr);
         }) == 1,
         "the tool without /proc");
    need(content_of(output).find("/proc is not mounted") != std::string::npos, "the tool's words");
}

void no_proc()
{
    use_new_state("harm");
    for (const bool has_store : {false, true}) {
        if (has_store)
            need(in_child(open_databases) == 0, "with /proc");
        const int status = in_child(expect_no_proc);
        skip(status == not_here, "no mount namespaces");
        need(status == 0, "without /proc");
    }
}

// Processes of different PID namespaces may have the same PID, by which the engine tells them
// apart. So they may use a store one after the other only.
void other_pid_namespace()
{
    use_new_state("harm");
    const auto bind_elsewhere = [] {
        return in_child([] {
            enter_new_namespace(CLONE_NEWPID);
            const int status = in_child([] {
                const uint32_t found = bind();
                _exit(found == 0 ? 0 : found == KVS_RC_OTHER_NAMESPACE ? 1 : 2);
            });
            _exit(status);
        });
    };
    const int before = bind_elsewhere();
    skip(before == not_here, "no PID namespaces");
    need(before == 0, "in another PID namespace first");
    need(in_child([&] {
             contents all;
             open_databases();
             need(bind_elsewhere() == 1, "in another PID namespace meanwhile");
             change_often(0, all);
         }) == 0,
         "while another one tries");
    need(bind_elsewhere() == 0, "in another PID namespace afterwards");
    need(in_child(open_databases) == 0, "back again");
}

// ---- privilege ----

void other_users()
{
    skip(geteuid() != 0, "only root can act for another user");
    const fs::path state = use_new_state("harm");
    set_mode(root, 0755);
    umask(0);
    need(in_child(open_databases) == 0, "making the store");
    need(fs::status(state).permissions() == fs::perms(0700), "the directory's mode");
    for (const auto &entry : fs::recursive_directory_iterator(state))
        need(entry.status().permissions() == fs::perms(entry.is_directory() ? 0700 : 0600),
             entry.path().c_str());
    for (const mode_t mode : {0700u, 0755u}) {
        set_mode(state, mode);
        const uint32_t expected = mode == 0700 ? KVS_RC_STATE_DIR : KVS_RC_ACCESS;
        need(in_child([&] { become_other_user(), _exit(bind() != expected); }) == 0,
             "another user");
    }
    set_mode(state, 0777);
    need(bind() == KVS_RC_STATE_DIR, "a directory that others may write to");
}

// Replaces each file by a link that leads out of the directory, and by a pipe. What is left
// of an unfinished store is replaced.
void planted_files()
{
    const fs::path outside = root / "outside", victim = outside / "victim";
    fs::create_directories(outside);
    std::ofstream(victim) << "secret";
    for (const std::string name :
         {"store.mdb", "store.mdb-lock", "store.mdb-open", "store.mdb.new"})
        for (const bool is_link : {true, false}) {
            const fs::path state = use_new_state("harm"), place = state / name;
            fs::create_directory(state);
            set_mode(state, 0700);
            const int planted =
                is_link ? symlink(victim.c_str(), place.c_str()) : mkfifo(place.c_str(), 0600);
            need(planted == 0, "planting");
            const uint32_t expected = name.ends_with(".new") ? 0 : KVS_RC_STATE_DIR;
            need(in_child([&] { alarm(patience), _exit(bind("../outside/db") != expected); }) == 0,
                 name.c_str());
            need(content_of(victim) == "secret" &&
                     ++fs::directory_iterator(outside) == fs::directory_iterator(),
                 "what lies outside");
        }
}

// The tool ignores the variables that name a store when it runs as a set-user-ID program.
void set_user_id()
{
    struct statvfs about {};
    skip(geteuid() != 0 || statvfs(root.c_str(), &about) != 0 || (about.f_flag & ST_NOSUID) != 0,
         "only root can make a set-user-ID program of another user, and not everywhere");
    const char *const variables[] = {"VS_STATE_DIR", "XDG_STATE_HOME", "HOME"};
    const fs::path tool = root / "tool";
    fs::copy_file(VSKVS, tool);
    need(chown(tool.c_str(), other_user, other_user) == 0, "giving a program away");
    const auto check = [&] {
        for (const int output : {STDOUT_FILENO, STDERR_FILENO})
            dup2(open("/dev/null", O_WRONLY), output);
        execl(tool.c_str(), "vskvs", "check", nullptr);
        _exit(not_here);
    };
    for (const char *const variable : variables) {
        const fs::path state = make_for_other_user();
        for (const char *const other : variables)
            unsetenv(other);
        setenv(variable, state.c_str(), 1);
        set_mode(tool, 0755);
        const int found = in_child([&] { become_other_user(), open_databases(), check(); });
        skip(found == not_here || found == 127, "another user cannot run the tool");
        need(found == 0, "a plain program heeds the variable");
        set_mode(tool, 04755);
        need(in_child(check) == 1, variable);
    }
}

struct test_case {
    const char *name;
    void (*run)();
};

bool run_cases(const char *what, std::initializer_list<test_case> cases)
{
    unsigned skipped = 0, failed = 0;
    for (const test_case &it : cases) {
        const int status = in_child([&] { alarm(5 * patience), it.run(); });
        skipped += status == not_here;
        if (status == 0 || status == not_here)
            continue;
        fprintf(stderr, "torture %s: %s: exit status %d\n", what, it.name, status);
        ++failed;
    }
    printf("torture %s: %zu cases, %u skipped, %u failed\n", what, cases.size(), skipped, failed);
    return failed == 0;
}

} // namespace

bool exhaustion(unsigned, uint64_t)
{
    return run_cases("exhaustion", {{"a limit on the file's size", file_size_limit},
                                    {"no descriptors", no_descriptors},
                                    {"no permission", no_permission},
                                    {"no /proc", no_proc},
                                    {"another PID namespace", other_pid_namespace}});
}

bool privilege(unsigned, uint64_t)
{
    return run_cases("privilege", {{"other users", other_users},
                                   {"planted files", planted_files},
                                   {"a set-user-ID program", set_user_id}});
}

} // namespace torture
