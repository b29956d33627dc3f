/*
 * lockwatch.h - the mutex-wait annotation service: which threads of this process wait for a mutex.
 *
 * A thread that is about to block says so, and takes the note back when it is through, so that a
 * person looking at a process that stands still sees who waits for what. A thread has at most one
 * note; a second one replaces the first. None of these functions blocks, allocates or fails.
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
    const char *place; /* the text that the thread gave; it must stay valid while the note stands */
    uint32_t code;     /* the number that the thread gave */
    int32_t tid;       /* the waiting thread */
    uint64_t since_ns; /* when the note was set, CLOCK_MONOTONIC */
} lockwatch_wait;

/* The calling thread is about to block on `mutex`. When the table of 128 notes is full the note is
 * dropped. */
void lockwatch_set_mutex_block(const void *mutex, const char *place, uint32_t code);

/* The calling thread no longer waits. Without a note of its own this does nothing. */
void lockwatch_unset_mutex_block(void);

/* Copies up to `room` notes of the process into `waits`; returns how many were copied. A note that
 * changes while it is read is left out. */
uint32_t lockwatch_list(lockwatch_wait *waits, uint32_t room);

#ifdef __cplusplus
}
#endif

#endif
