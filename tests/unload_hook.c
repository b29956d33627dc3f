/* A library whose unload hook queries the unload and writes the result to a file. With HOOK_JUMPS
 * it does so twice, by jumps to the query, whose return address then belongs to the C library and
 * to the loader. */
#include "loader.h"
#include "ringlog.h"

#include <search.h>
#include <stdio.h>
#include <stdlib.h>

#ifdef HOOK_JUMPS
static int compare(const void *left, const void *right)
{
    (void)left, (void)right;
    return __in_unload();
}

__attribute__((destructor)) static void on_unload(void)
{
    static size_t count = 1;
    lfind("", "", &count, 1, compare);
    __in_unload();
}
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
    ringlog_init2("hook", 0, 0, 1, 1, 0, &handle);
}
