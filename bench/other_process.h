// Another process of this program: it runs one work beside the one that is measured, or measures a
// work that needs a process of its own.
#pragma once

#include "work.h"

#include <csignal>
#include <initializer_list>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace bench {

class other_process {
public:
    // Its arguments are given after its name; `state_dir` is where its stores lie.
    other_process(const std::initializer_list<std::string> &arguments, const std::string &state_dir)
    {
        int ends[2];
        must(pipe(ends) == 0, "pipe");
        pid_ = fork();
        must(pid_ >= 0, "fork");
        if (pid_ == 0) {
            std::vector<char *> argv{const_cast<char *>("bench")};
            for (const std::string &each : arguments)
                argv.push_back(const_cast<char *>(each.c_str()));
            argv.push_back(nullptr);
            prctl(PR_SET_PDEATHSIG, SIGKILL); // ends with a benchmark that failed
            setenv("VS_STATE_DIR", state_dir.c_str(), 1);
            dup2(ends[1], STDOUT_FILENO);
            close(ends[0]);
            close(ends[1]);
            execv("/proc/self/exe", argv.data());
            _exit(1);
        }
        close(ends[1]);
        said_ = ends[0];
    }
    other_process(const other_process &) = delete;
    other_process &operator=(const other_process &) = delete;
    ~other_process()
    {
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
        close(said_);
    }

    // Sends a signal that keep_doing() understands.
    void ask(int signal) const { kill(pid_, signal); }

    // Waits for the number that it prints.
    double number() const
    {
        char text[64] = {};
        must(::read(said_, text, sizeof text - 1) > 0, "the other process", "ended too early");
        return std::atof(text);
    }

private:
    pid_t pid_ = -1;
    int said_ = -1;
};

// Sends a number to the parent process.
inline void say(double number)
{
    printf("%.9f\n", number);
    fflush(stdout);
}

constexpr int count_now = SIGUSR1, end_now = SIGTERM;
inline volatile std::sig_atomic_t asked_to_end = 0, asked_to_count = 0;

// Repeats one work until this process is signalled to end. Says when it has begun, and at the end
// how often it has done the work since it was signalled to count.
template <class Work>
void keep_doing(const Work &work)
{
    std::signal(count_now, [](int) { asked_to_count = 1; });
    std::signal(end_now, [](int) { asked_to_end = 1; });
    work();
    say(1);
    uint64_t done = 0;
    while (asked_to_end == 0) {
        work();
        done += asked_to_count != 0;
    }
    say(static_cast<double>(done));
}

} // namespace bench
