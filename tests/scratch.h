// What the tests of the platform share: a state directory of their own, and children to do harm in.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace fs = std::filesystem;

// A directory that lives as long as the test; its `state` is named to the platform.
class scratch : public testing::Test {
protected:
    scratch()
    {
        setenv("VS_STATE_DIR", (root / "state").c_str(), 1);
        for (const char *name : {"VS_VERBOSE", "VS_VERBOSE_FILE", "XDG_STATE_HOME"})
            unsetenv(name);
    }
    ~scratch() override { fs::remove_all(root); }

    static fs::path make_root()
    {
        std::string path = fs::temp_directory_path() / "vs_test.XXXXXX";
        return mkdtemp(path.data());
    }

    const fs::path root = make_root();
};

// Starts `work` in a forked child.
inline pid_t start_in_child(const std::function<void()> &work)
{
    const pid_t child = fork();
    if (child == 0) {
        work();
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    return child;
}

// True when `work` came to its end in a child without a failed check.
inline bool passes_in_child(const std::function<void()> &work)
{
    const pid_t child = start_in_child(work);
    int outcome = -1;
    return child > 0 && waitpid(child, &outcome, 0) == child && outcome == 0;
}

inline unsigned mode_of(const fs::path &path)
{
    return static_cast<unsigned>(fs::status(path).permissions());
}

inline std::string content_of(const fs::path &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}
