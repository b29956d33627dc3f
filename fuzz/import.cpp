// Files of JSON lines, through the commands that read them. A line that is refused is refused by a
// failure, and nothing else.
#include "databases.h"
#include "fuzz.h"
#include "tools/commands.h"
#include "tools/store.h"
#include "vs_kvs.h"

#include <fcntl.h>
#include <sys/mman.h>

OWN_STATE_DIR(true);

using namespace vskvs;

// A process is meant to open the databases once; opening them again waits and fails.
static void reset_databases()
{
    for (const vs_kvs::database_entry &entry : vs_kvs::database_entries)
        *entry.handle = VS_KVS_HDL_UNSET;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // A store that is not empty is restored to only after the whole dump was found good: by a
    // refusal. What the commands print goes to standard output.
    static const bool is_ready = [] {
        initialize("fuzz");
        return clients.insert({1, 0}) == 0 && dup2(open("/dev/null", O_WRONLY), 1) == 1;
    }();
    need(is_ready, "a store");
    static const int file = memfd_create("import", MFD_CLOEXEC);
    need(ftruncate(file, 0) == 0 && pwrite(file, data, size, 0) == static_cast<ssize_t>(size),
         "a file");
    arguments given;
    given.file = "/proc/self/fd/" + std::to_string(file);
    for (const bool update : {false, true})
        try {
            reset_databases();
            given.update = update;
            import_objects(given);
        } catch (const failure &) {
        }
    change_all([] {
        for (const words &record : read_all(objects))
            need(objects.erase(record[0]) == 0, "an imported object");
    });
    try {
        reset_databases();
        restore(given);
        need(false, "restored to a store that is not empty");
    } catch (const failure &) {
    }
    return 0;
}
