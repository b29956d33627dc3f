/* A library whose unload hook queries the unload and writes the answer down. With HOOK_JUMPS there
 * are two hooks that end in a jump to the query, whose return address then belongs to the loader or
 * to the C library. */
#include "loader.h"
#include "ringlog.h"

#include <stdio.h>
#include <stdlib.h>

#ifdef HOOK_JUMPS
__attribute__((destructor)) static void on_unload(void) { __in_unload(); }
#else
__attribute__((destructor)) static void on_unload(void)
{
    FILE *answer = fopen(getenv("UNLOAD_ANSWER_FILE"), "w");
    if (answer != NULL) {
        fprintf(answer, "%d", __in_unload() != 0);
        fclose(answer);
    }
}
#endif

__attribute__((constructor)) static void on_load(void)
{
    uint64_t handle = 0;
    ringlog_init2("asker", 0, 0, 1, 1, 0, &handle);
#if defined(HOOK_JUMPS) && !defined(NO_HANDLERS)
    atexit(on_unload);
#endif
}
