/* A library whose unload hook writes down what the platform tells it about the unload. */
#include "loader.h"
#include "ringlog.h"

#include <stdio.h>
#include <stdlib.h>

__attribute__((constructor)) static void on_load(void)
{
    uint64_t handle = 0;
    ringlog_init2("asker", 0, 0, 1, 1, 0, &handle);
}

__attribute__((destructor)) static void on_unload(void)
{
    FILE *answer = fopen(getenv("UNLOAD_ANSWER_FILE"), "w");
    if (answer != NULL) {
        fprintf(answer, "%d", __in_unload() != 0);
        fclose(answer);
    }
}
