// The functions of kvs.h that read the journal.
#include "kvs.h"
#include "platform/base/clock.h"
#include "platform/base/export.h"
#include "platform/kvs/journal_reader.h"

using namespace platform;

PLATFORM_EXPORT uint32_t kvs_journal_open(kvs_hdl hdl, uint64_t first, kvs_journal **journal_pp)
{
    if (journal_pp == nullptr)
        return KVS_RC_NULL_ARG;
    return open_reader(hdl, first, journal_pp);
}

PLATFORM_EXPORT uint32_t kvs_journal_next(kvs_journal *journal_p, kvs_change *change_p)
{
    if (journal_p == nullptr || change_p == nullptr)
        return KVS_RC_NULL_ARG;
    for (;;) {
        if (const uint32_t status = fetch_entry(journal_p); status != 0)
            return status;
        if (take_change(journal_p, change_p))
            return 0;
    }
}

PLATFORM_EXPORT uint32_t kvs_journal_wait(kvs_journal *journal_p, uint32_t milliseconds)
{
    if (journal_p == nullptr)
        return KVS_RC_NULL_ARG;
    return wait_for_entry(journal_p,
                          clock_ns(CLOCK_MONOTONIC) + uint64_t{milliseconds} * 1'000'000);
}

PLATFORM_EXPORT void kvs_journal_close(kvs_journal *journal_p) { close_reader(journal_p); }
