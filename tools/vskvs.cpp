// vskvs - inspects, changes, checks and dumps the state of the version-selection service.
//
// This file is the process: its environment, its trace buffers and its exit status.
#include "tools/command_line.h"
#include "tools/store.h"
#include "verbose.h"
#include "vs_kvs.h"

#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace vskvs {
namespace {

// The library opens a trace buffer in the state directory when it is loaded, before main. So the
// option that names the directory is looked for before anything is loaded, and the program starts
// itself again with the directory in its environment.
const char *chosen_state_dir = nullptr; // as the command line gives it

void choose_state_dir(int argc, char **argv, char **environment)
{
    // A file size limit is an error like others, also for the trace buffers.
    signal(SIGXFSZ, SIG_IGN);

    // A descriptor that is closed would become one of the store's files, and what is written to
    // standard error would go there.
    int spare = open("/dev/null", O_RDWR);
    while (spare >= 0 && spare <= STDERR_FILENO)
        spare = open("/dev/null", O_RDWR);
    close(spare);

    static char setting[PATH_MAX + 16] = "VS_STATE_DIR=";
    constexpr size_t name_length = sizeof "VS_STATE_DIR=" - 1;
    constexpr char option[] = "--state-dir";
    constexpr size_t option_length = sizeof option - 1;
    static char *changed[4096];
    const char *dir = nullptr;
    for (int i = 1; i < argc && strcmp(argv[i], "--") != 0; ++i)
        if (strncmp(argv[i], option, option_length) == 0) {
            if (argv[i][option_length] == '=')
                dir = argv[i] + option_length + 1;
            else if (argv[i][option_length] == '\0' && i + 1 < argc)
                dir = argv[i + 1];
        }
    if (dir == nullptr || *dir == '\0' || strlen(dir) >= PATH_MAX / 2)
        return;
    char *to = setting + name_length;
    if (*dir != '/' && getcwd(to, PATH_MAX / 2) != nullptr) {
        to += strlen(to);
        *to++ = '/';
    }
    strcpy(to, dir);
    size_t count = 0;
    changed[count++] = setting;
    for (char **at = environment; *at != nullptr && count < std::size(changed) - 1; ++at) {
        if (strcmp(*at, setting) == 0) {
            chosen_state_dir = dir;
            return;
        }
        if (strncmp(*at, setting, name_length) != 0)
            changed[count++] = *at;
    }
    execve("/proc/self/exe", argv, changed);
}
__attribute__((section(".preinit_array"), used)) auto *const before_all = &choose_state_dir;

// The tool's own operations go to one pair of trace buffers, for all runs, under a job id that no
// job has: a pair for each process id would fill the disk.
void name_the_job()
{
    setenv("VS_JOB_ID", "4294967295", 0); // -1 in the buffers' names
    setenv("VS_JOB_NAME", "vskvs", 0);
}

// The tool works without trace buffers too, and warnings of the set-up would only hide the
// command's own output.
void set_up_reports()
{
    verbose_init(0); // its warning is about what the user asked for
    fflush(stderr);
    const int stderr_copy = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (stderr_copy >= 0 && nowhere >= 0 && dup2(nowhere, STDERR_FILENO) >= 0) {
        vs_kvs_debug_init(0);
        dup2(stderr_copy, STDERR_FILENO);
    }
    close(nowhere);
    close(stderr_copy);
}

// Executes the command line. The output is flushed when this returns.
void carry_out(command_line &line, int argc, char **argv)
{
    try {
        line.app().parse(argc, argv);
        line.check_state_dir(chosen_state_dir);
        name_the_job();
        announce_waits();
        if (line.needs_reports())
            set_up_reports();
        line.run();
    } catch (const CLI::CallForHelp &) {
        print(line.app().help());
    } catch (const CLI::CallForVersion &version) {
        print(version.what() + std::string("\n"));
    }
    flush();
}

int run(int argc, char **argv)
{
    command_line line;
    try {
        carry_out(line, argc, argv);
        return 0;
    } catch (const CLI::ParseError &error) {
        line.app().exit(error);
        return 2;
    } catch (const wrong_usage &error) {
        complain(error.what());
        return 2;
    } catch (const std::bad_alloc &) {
        complain("out of memory");
    } catch (const std::exception &error) {
        fflush(stdout);
        complain(error.what());
    }
    return 1;
}

} // namespace

} // namespace vskvs

int main(int argc, char **argv) { return vskvs::run(argc, argv); }
