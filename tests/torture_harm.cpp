// A store that runs out of something, and one that somebody else is after.
#include "torture.h"

#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include "ringlog.h"
#include "vs_kvs.h"

namespace torture {
namespace {

constexpr uid_t somebody = 65534;
constexpr int not_here = 77; // exit status of what this system does not allow

void skip(bool when, const char *why)
{
    if (!when)
        return;
    std::printf("torture: skipped: %s\n", why);
    std::fflush(stdout);
    _exit(not_here);
}

std::string content_of(const fs::path &path)
{
    std::ifstream from(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(from), {}};
}

bool runs_on_shadow_memory()
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return true;
#else
    return content_of("/proc/self/maps").find("/valgrind/") != std::string::npos;
#endif
}

std::uint32_t bind(const char *name = "vs_objects")
{
    kvs_appdesc about;
    kvs_hdl hdl = 0;
    kvs_appdesc_init(&about);
    return kvs_init(name, &about, 0, &hdl);
}

std::uint32_t open_buffer(const char *name)
{
    std::uint64_t handle = 0;
    return ringlog_init2(name, 0, 0, 8, 8, 0, &handle);
}

void set_mode(const fs::path &of, mode_t mode) { need(chmod(of.c_str(), mode) == 0, of.c_str()); }

void become_somebody()
{
    need(geteuid() != 0 || (setresgid(somebody, somebody, somebody) == 0 &&
                            setresuid(somebody, somebody, somebody) == 0),
         "becoming another user");
}

fs::path make_for_somebody(const char *name)
{
    const fs::path dir = use_new_state(name);
    set_mode(root, 0755);
    fs::create_directory(dir);
    set_mode(dir, 0700);
    need(geteuid() != 0 || chown(dir.c_str(), somebody, somebody) == 0, "giving a directory away");
    return dir;
}

void limit(__rlimit_resource what, rlim_t value)
{
    rlimit now{};
    getrlimit(what, &now);
    now.rlim_cur = std::min(value, now.rlim_max);
    need(setrlimit(what, &now) == 0, "setting a limit");
}

// ---- exhaustion ----

void change_often(std::uint64_t seed, contents &all)
{
    for (int left = 50; left != 0; --left) {
        const std::uint32_t status = change(seed++, 1, all, true);
        need(status == 0, "changing", status);
    }
    need(stored() == all, "the contents after changing");
}

// Adds big records while `narrow` has made something scarce, one by one and in a batch, until one
// is refused; `widen` ends the scarcity. What was acknowledged is there and nothing else, and work
// goes on.
void run_out(const std::function<void()> &narrow, const std::function<void()> &widen,
             std::initializer_list<std::uint32_t> allowed)
{
    dice roll{1};
    contents all;
    open_databases();
    change_often(0, all);
    for (const bool batch : {false, true}) {
        contents tried = all;
        narrow();
        std::uint32_t status = batch ? kvs_batch_begin(g_kvs_hdl_vs_objects_db) : 0;
        for (std::uint32_t key = 100; status == 0 && key < 300; ++key)
            status = insert(roll, 0, batch ? key + 200 : key, 50'000, tried, true);
        if (batch && status == 0)
            status = kvs_batch_commit();
        else if (batch)
            kvs_batch_abort();
        widen();
        need(std::find(allowed.begin(), allowed.end(), status) != allowed.end(),
             batch ? "a batch with little left" : "a change with nothing left", status);
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
    signal(SIGXFSZ, SIG_IGN);
    const fs::path data = use_new_state("harm") / "store.mdb";
    run_out([&] { limit(RLIMIT_FSIZE, fs::file_size(data) + 1'000'000); },
            [] { limit(RLIMIT_FSIZE, RLIM_INFINITY); }, {KVS_RC_NO_SPACE});
}

void full_disk()
{
    const fs::path disk = use_new_state("harm"), filler = disk / "filler";
    fs::create_directories(disk);
    skip(unshare(CLONE_NEWNS) != 0 ||
             mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
             mount("none", disk.c_str(), "tmpfs", 0, "size=16m,mode=0700") != 0,
         "a small disk needs the right to mount one");
    run_out([&] { std::ofstream(filler) << std::string(8'000'000, 'x'); },
            [&] { fs::remove(filler); }, {KVS_RC_NO_SPACE});
}

void no_memory()
{
    skip(runs_on_shadow_memory(), "sanitizers and valgrind do not bear a limit on memory");
    use_new_state("harm");
    run_out(
        [] { limit(RLIMIT_AS, std::stoull(content_of("/proc/self/statm")) * 4096 + 12'000'000); },
        [] { limit(RLIMIT_AS, RLIM_INFINITY); },
        {KVS_RC_NO_MEMORY, VS_FAULT_NO_MEMORY, KVS_RC_BATCH_FULL});
}

// One more descriptor at a time until they suffice; once it is open the store needs none.
void no_descriptors()
{
    use_new_state("harm");
    const auto count_open = [] {
        return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    };
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const auto open_before = count_open();
    std::uint32_t status = KVS_RC_NO_DESCRIPTORS;
    rlim_t most = 3;
    for (; status == KVS_RC_NO_DESCRIPTORS && most < 64; ++most) {
        limit(RLIMIT_NOFILE, most);
        status = bind();
        limit(RLIMIT_NOFILE, before.rlim_cur);
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
    const fs::path state = make_for_somebody("harm");
    become_somebody();
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

// ---- privilege ----

void other_users()
{
    skip(geteuid() != 0, "only root can act for another user");
    const fs::path state = use_new_state("harm");
    set_mode(root, 0755);
    umask(0);
    need(in_child(open_databases) == 0, "making the store");
    for (const auto &entry : fs::recursive_directory_iterator(state))
        need(entry.status().permissions() == fs::perms(entry.is_directory() ? 0700 : 0600),
             entry.path().c_str());
    for (const mode_t mode : {0700u, 0755u}) {
        need((fs::status(state).permissions() == fs::perms(0700)), "the directory's mode");
        set_mode(state, mode);
        need(in_child([&] {
                 become_somebody();
                 for (const char *const name :
                      {"store.mdb", "store.mdb-lock", "ringlog/install/vs/vs"})
                     for (const int how : {O_RDONLY, O_WRONLY})
                         need(open((state / name).c_str(), how) < 0 && errno == EACCES, name);
                 need(unlink((state / "store.mdb").c_str()) != 0, "removing the store");
                 need(open((state / "new").c_str(), O_CREAT | O_WRONLY, 0600) < 0, "adding a file");
                 need(bind() == (mode == 0700 ? KVS_RC_STATE_DIR : KVS_RC_ACCESS), "the store");
             }) == 0,
             "keeping another user out");
        set_mode(state, 0700);
    }
    set_mode(state, 0777);
    need(bind() == KVS_RC_STATE_DIR, "a directory that others may write to");
}

void planted_links()
{
    const fs::path outside = root / "outside", victim = outside / "victim";
    fs::create_directories(outside);
    std::ofstream(victim) << "secret";
    struct {
        const char *place;
        fs::path leads_to;
        std::uint32_t store, trace; // the statuses
    } const links[] = {
        {"store.mdb", victim, KVS_RC_STATE_DIR, 0},
        {"store.mdb-lock", victim, KVS_RC_STATE_DIR, 0},
        {"store.mdb.new", victim, 0, 0}, // what is left of an unfinished one is not looked at
        {"ringlog", outside, 0, RINGLOG_RC_BAD_NAME},
        {"ringlog/a", outside, 0, RINGLOG_RC_BAD_NAME},
        {"ringlog/a/b", victim, 0, RINGLOG_RC_BAD_NAME},
    };
    for (const auto &link : links) {
        const fs::path state = use_new_state("harm");
        fs::create_directories((state / link.place).parent_path());
        set_mode(state, 0700);
        fs::create_symlink(link.leads_to, state / link.place);
        need(in_child([&] {
                 need(bind("../../outside/db") == link.store, "a link in the store's way");
                 need(open_buffer("a/b") == link.trace, "a link in the buffer's way");
                 for (const char *const name : {"..", "../x", "a/../../../outside/x", "/tmp/x"})
                     need(open_buffer(name) == RINGLOG_RC_BAD_NAME, name);
             }) == 0,
             link.place);
        need(content_of(victim) == "secret" &&
                 ++fs::directory_iterator(outside) == fs::directory_iterator(),
             "what a link leads to");
    }
}

// A store that the tool finds by a variable it does not find as a set-user-ID program.
void set_user_id()
{
    struct statvfs about {};
    skip(geteuid() != 0, "only root can make a program of another user");
    skip(statvfs(root.c_str(), &about) != 0 || (about.f_flag & ST_NOSUID) != 0,
         "the file system knows no set-user-ID programs");
    const char *const variables[] = {"VS_STATE_DIR", "XDG_STATE_HOME", "HOME"};
    const fs::path tool = root / "tool";
    fs::copy_file(VSKVS, tool);
    need(chown(tool.c_str(), somebody, somebody) == 0, "giving a program away");
    const auto run = [&](const char *command, mode_t mode) {
        set_mode(tool, mode);
        return in_child([&] {
            if (mode == 0755)
                become_somebody();
            for (const int output : {STDOUT_FILENO, STDERR_FILENO})
                dup2(open("/dev/null", O_WRONLY), output);
            execl(tool.c_str(), "vskvs", command, nullptr);
            _exit(99);
        });
    };
    for (const char *const variable : variables) {
        const fs::path state = make_for_somebody("harm");
        for (const char *const other : variables)
            unsetenv(other);
        setenv(variable, state.c_str(), 1);
        const int made = run("init", 0755);
        skip(made == 99 || made == 127, "another user cannot run the tool");
        need(made == 0 && run("check", 0755) == 0, "a plain program heeds the variable");
        need(run("check", 04755) == 1, variable);
    }
}

struct ordeal {
    const char *name;
    void (*run)();
};

bool go_through(const char *what, std::initializer_list<ordeal> ordeals)
{
    unsigned withstood = 0, skipped = 0;
    for (const ordeal &it : ordeals) {
        const int status = in_child([&] { alarm(5 * patience), it.run(); });
        withstood += status == 0;
        skipped += status == not_here;
        if (status != 0 && status != not_here)
            std::fprintf(stderr, "torture %s: %s: exit status %d\n", what, it.name, status);
    }
    const auto failed = static_cast<unsigned>(ordeals.size()) - withstood - skipped;
    std::printf("torture %s: %zu ordeals, %u withstood, %u skipped, %u failed\n", what,
                ordeals.size(), withstood, skipped, failed);
    return failed == 0;
}

} // namespace

bool exhaustion(unsigned, std::uint64_t)
{
    return go_through("exhaustion", {{"a limit on the file's size", file_size_limit},
                                     {"a full disk", full_disk},
                                     {"no memory", no_memory},
                                     {"no descriptors", no_descriptors},
                                     {"no permission", no_permission}});
}

bool privilege(unsigned, std::uint64_t)
{
    return go_through("privilege", {{"other users", other_users},
                                    {"planted links", planted_links},
                                    {"a set-user-ID program", set_user_id}});
}

} // namespace torture
