// What the tests of the platform share: a state directory for each, and children that check.
#pragma once

#include "state_dir.h"

#include <functional>
#include <gtest/gtest.h>

// A directory that lives as long as the test; VS_STATE_DIR names its `state`.
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

// Starts `work` in a forked child, which exits with status 1 when a check failed.
inline pid_t start_in_child(const std::function<void()> &work)
{
    return start([&] {
        work();
        fflush(nullptr);
        _exit(testing::Test::HasFailure());
    });
}

// True when `work` ended in a child without a failed check.
inline bool passes_in_child(const std::function<void()> &work)
{
    return finish(start_in_child(work)) == 0;
}

inline unsigned mode_of(const fs::path &path)
{
    return static_cast<unsigned>(fs::status(path).permissions());
}
