// Opening the databases, and batches of changes.
#include "tools/store.h"

#include "tools/output.h"
#include "tools/records.h"
#include "vs_kvs.h"

#include <csignal>
#include <cstdio>

namespace vskvs {
namespace {

// While it exists, the terminal does not stop the process, but afterwards.
class stop_guard {
public:
    stop_guard()
    {
        sigset_t stops;
        sigemptyset(&stops);
        for (const int each : {SIGTSTP, SIGTTIN, SIGTTOU})
            sigaddset(&stops, each);
        sigprocmask(SIG_BLOCK, &stops, &before_);
    }
    stop_guard(const stop_guard &) = delete;
    stop_guard &operator=(const stop_guard &) = delete;
    ~stop_guard() { sigprocmask(SIG_SETMASK, &before_, nullptr); }

private:
    sigset_t before_;
};

// A batch that is aborted unless it is committed. Within it nothing can be bound, so all databases
// are bound before.
class batch {
public:
    batch()
    {
        kvs_hdl handle = 0;
        for (const database *const db : databases)
            handle = bind(*db, db->name);
        require(kvs_batch_begin(handle), "store");
    }
    batch(const batch &) = delete;
    batch &operator=(const batch &) = delete;
    ~batch()
    {
        if (is_open_)
            kvs_batch_abort();
    }

    void commit()
    {
        is_open_ = false;
        require(kvs_batch_commit(), "store");
    }

private:
    const stop_guard unstopped_; // all others that write would wait for a batch that is stopped
    bool is_open_ = true;
};

} // namespace

void announce_waits()
{
    kvs_set_wait_notice([](const char *line) { complain(line); });
}

void initialize(const std::string &command)
{
    const uint32_t status = vs_kvs_initialize(0);
    if (status == 0)
        return;
    fputc('\n', stderr); // the library's own line has no line end
    require(status, command);
}

void change_all(const std::function<void()> &work)
{
    for (const bool may_repeat : {true, false}) {
        batch changes;
        try {
            work();
            changes.commit();
            return;
        } catch (const status_failure &error) {
            if (error.status != KVS_RC_BATCH_FULL || !may_repeat)
                throw;
        }
    }
}

void look_at_all(const std::function<void()> &work)
{
    require(kvs_verify(bind(*databases[0], databases[0]->name)), "store");
    const batch unchanged;
    work();
}

} // namespace vskvs
