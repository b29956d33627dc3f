// What may not interrupt a thread that changes files.
#pragma once

#include <csignal>
#include <ctime>
#include <initializer_list>
#include <pthread.h>

namespace platform {

// While it exists, the thread is not cancelled. Costs no system call.
class cancellation_guard {
public:
    cancellation_guard() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state_); }
    cancellation_guard(const cancellation_guard &) = delete;
    cancellation_guard &operator=(const cancellation_guard &) = delete;
    ~cancellation_guard() { pthread_setcancelstate(state_, nullptr); }

private:
    int state_ = 0;
};

// While it exists, the thread is not cancelled, and a write beyond the limit of a file's size fails
// with EFBIG instead of ending the process with SIGXFSZ. Nor does a terminal stop the process while
// it has but this thread: others would wait for the locks that it holds. It is stopped afterwards.
class interruption_guard {
public:
    interruption_guard()
    {
        const sigset_t signals = set_of({SIGXFSZ, SIGTSTP, SIGTTIN, SIGTTOU});
        pthread_sigmask(SIG_BLOCK, &signals, &old_mask_);
        // A signal stays pending only where it is blocked.
        was_pending_ = sigismember(&old_mask_, SIGXFSZ) == 1 && is_pending();
    }
    interruption_guard(const interruption_guard &) = delete;
    interruption_guard &operator=(const interruption_guard &) = delete;
    ~interruption_guard()
    {
        if (!was_pending_ && is_pending()) {
            const sigset_t signals = set_of({SIGXFSZ});
            const timespec at_once{};
            sigtimedwait(&signals, nullptr, &at_once);
        }
        pthread_sigmask(SIG_SETMASK, &old_mask_, nullptr);
    }

private:
    static sigset_t set_of(std::initializer_list<int> members)
    {
        sigset_t signals;
        sigemptyset(&signals);
        for (const int each : members)
            sigaddset(&signals, each);
        return signals;
    }
    static bool is_pending()
    {
        sigset_t pending;
        return sigpending(&pending) == 0 && sigismember(&pending, SIGXFSZ) == 1;
    }

    cancellation_guard uncancelled_;
    bool was_pending_ = false;
    sigset_t old_mask_;
};

} // namespace platform
