/*
 * lockwatch.h - the threads of a process that wait for a mutex.
 *
 * A thread records its wait before it blocks and removes the record afterwards, so that a person
 * who inspects a process that hangs sees which thread waits for what. A thread has at most one
 * record; a second one replaces the first. None of these functions blocks, allocates or fails.
 */
#ifndef PLATFORM_LOCKWATCH_H
#define PLATFORM_LOCKWATCH_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* One waiting thread. */
typedef struct lockwatch_wait {
    const void *mutex;
    const char *place; /* the text given by the thread, valid while it waits */
    uint32_t code;     /* the number given by the thread */
    int32_t tid;       /* the waiting thread */
    uint64_t since_ns; /* start of the wait, CLOCK_MONOTONIC */
} lockwatch_wait;

/* Records that the calling thread is about to block on `mutex`. With 128 threads recorded already
 * this does nothing. */
void lockwatch_set_mutex_block(const void *mutex, const char *place, uint32_t code);

/* Records that the calling thread no longer waits. */
void lockwatch_unset_mutex_block(void);

/* Copies up to `capacity` of the recorded waits of the process into `waits`; returns how many were
 * copied. One that changes while it is read is left out. */
uint32_t lockwatch_list(lockwatch_wait *waits, uint32_t capacity);

#ifdef __cplusplus
}
#endif

#endif
