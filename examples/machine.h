/*
 * machine.h - the shared libraries of the machine that the program runs on, and their users,
 * as records.
 */
#ifndef EXAMPLES_MACHINE_H
#define EXAMPLES_MACHINE_H

#include "vs_kvs.h"

#include <stdbool.h>
#include <stdint.h>

struct library {
    char *soname;
    vs_objects_kvs_rec *object;       /* its id is a hash of the soname, unique in the machine */
    vs_clients_info_kvs_rec *clients; /* the processes that map it, one of each session */
};

struct machine {
    struct library *libraries; /* ordered by soname */
    uint32_t library_count;
    vs_client_objects_reg_kvs_rec **sessions; /* what they map; a session's id is the jid */
    uint32_t session_count;
    uint32_t process_count; /* processes that map a library */
    uint32_t hidden_count;  /* processes that could not be looked at */
    uint32_t lost_count;    /* files that could not be opened, or are damaged */
    uint32_t clash_count;   /* libraries left out because another one has their id */
};

/*
 * Finds the libraries that running processes map, and those that lie in the same folders. It fails,
 * after a line on standard error, without memory or a list of processes. *machine_p is to be
 * released with machine_free either way.
 */
bool machine_explore(struct machine *machine_p);
void machine_free(struct machine *machine);

/*
 * Notes that a client uses a library: in the library's list, unless the job is there already, and
 * in the job's session. False when there is no memory.
 */
bool machine_add_use(struct machine *machine, struct library *library,
                     const vs_client_info_entry *client);

/* The library that is used most, or least; there is one at least. */
struct library *machine_pick_library(const struct machine *machine, bool most);

/* Removes a library; the sessions that use it keep its id. */
void machine_remove_library(struct machine *machine, struct library *library);

#endif
