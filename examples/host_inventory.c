/*
 * host_inventory - keeps an inventory of the machine it runs on in the three databases.
 *
 * Each shared library is a VS object: its id is a hash of its soname, the versions it defines are
 * the supported ones, and the highest is selected. The processes that map it are its clients, one
 * of each session, and the libraries that a session maps are the registration of that job.
 *
 * The program populates an empty store and then does what a daemon does with the state it keeps: it
 * selects, adds, updates, reads, deletes, and meets refusals. What the store has to hold it knows
 * from its own picture of the machine; a second process (this program with --list) finds out from
 * the store alone, and the two have to agree. The exit status is 0 only if every check held.
 * machine.c and elf_versions.c find the libraries; here is how the databases are used.
 */
#define _POSIX_C_SOURCE 200809L

#include "fault.h"
#include "kvs.h"
#include "machine.h"
#include "vs_kvs.h"

#include <errno.h>
#include <inttypes.h>
#include <limits.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

/* ---- outcomes ---- */

/*
 * Whether an operation had the expected outcome; a line on standard error if it had not. `id` is
 * the VS object or the job that the operation was about, 0 if it was about none.
 */
static bool expect(uint32_t expected, uint32_t status, const char *operation, uint32_t id)
{
    if (status == expected)
        return true;
    fprintf(stderr, "host_inventory: %s", operation);
    if (id != 0)
        fprintf(stderr, "(0x%08" PRIx32 ")", id);
    fprintf(stderr, " gave 0x%08" PRIx32 ", %s", status, fault_strerror(status));
    if (expected != 0)
        fprintf(stderr, "; expected was 0x%08" PRIx32, expected);
    fputc('\n', stderr);
    return false;
}

static bool succeeds(uint32_t status, const char *operation, uint32_t id)
{
    return expect(0, status, operation, id);
}

/* As expect, for a refusal that is worth showing. */
static bool refuses(uint32_t expected, uint32_t status, const char *operation, uint32_t id)
{
    if (!expect(expected, status, operation, id))
        return false;
    const fault_entry *const entry = fault_find(status);
    printf("  %s(0x%08" PRIx32 ") refused: %s, %s\n", operation, id,
           entry != NULL ? entry->name : "unnamed", fault_strerror(status));
    return true;
}

/* A check that failed, other than by a status. */
static bool fails(const char *what, const char *why)
{
    fprintf(stderr, "host_inventory: %s: %s\n", what, why);
    return false;
}

/* ---- totals ---- */

/* What the databases hold, in a few numbers that do not depend on the order of the records. */
struct totals {
    uint32_t records[3]; /* of each database, by its selector */
    uint32_t clients;
    uint64_t checksum;
};

#define TOTALS_LINE_SIZE 160

static void format_totals(const struct totals *totals, char line[TOTALS_LINE_SIZE])
{
    (void)snprintf(line, TOTALS_LINE_SIZE,
                   "%" PRIu32 " libraries, %" PRIu32 " client lists with %" PRIu32
                   " clients, %" PRIu32 " registrations, checksum %016" PRIx64,
                   totals->records[VS_KVS_DB_OBJECTS], totals->records[VS_KVS_DB_CLIENTS_INFO],
                   totals->clients, totals->records[VS_KVS_DB_CLIENT_OBJECTS_REG],
                   totals->checksum);
}

/* The checksum is the sum of the records' FNV-1a hashes, each of them started with the database. */
static void count_record(struct totals *totals, uint32_t database, const void *record,
                         size_t length)
{
    const uint64_t prime = UINT64_C(1099511628211);
    const unsigned char *const bytes = record;
    uint64_t hash = (UINT64_C(14695981039346656037) ^ database) * prime;
    for (size_t i = 0; i < length; ++i)
        hash = (hash ^ bytes[i]) * prime;
    totals->checksum += hash;
    ++totals->records[database];
}

static void count_object(struct totals *totals, const vs_objects_kvs_rec *record)
{
    count_record(totals, VS_KVS_DB_OBJECTS, record,
                 sizeof *record + record->supp_count * sizeof record->supp_versions[0]);
}

static void count_client_list(struct totals *totals, const vs_clients_info_kvs_rec *record)
{
    totals->clients += record->clients_count;
    count_record(totals, VS_KVS_DB_CLIENTS_INFO, record,
                 sizeof *record + record->clients_count * sizeof record->clients[0]);
}

static void count_registration(struct totals *totals, const vs_client_objects_reg_kvs_rec *record)
{
    count_record(totals, VS_KVS_DB_CLIENT_OBJECTS_REG, record,
                 sizeof *record + record->vs_count * sizeof record->vs_array[0]);
}

/* The totals that the databases have to have. */
static struct totals totals_of(const struct machine *machine)
{
    struct totals totals = {{0}, 0, 0};
    for (uint32_t i = 0; i < machine->library_count; ++i) {
        count_object(&totals, machine->libraries[i].object);
        count_client_list(&totals, machine->libraries[i].clients);
    }
    for (uint32_t i = 0; i < machine->session_count; ++i)
        count_registration(&totals, machine->sessions[i]);
    return totals;
}

/* A listing of an empty database gives a warning and leaves its results as they were. */
static bool lists(uint32_t status, const char *operation)
{
    return status == VS_FAULT_KVS_DB_EMPTY || succeeds(status, operation, 0);
}

/* The totals that they have. A listing hands out an array and its records, all to be freed. */
static bool read_totals(struct totals *totals_p)
{
    *totals_p = (struct totals){{0}, 0, 0};
    uint32_t count = 0;
    vs_objects_kvs_rec **objects = NULL;
    bool ok =
        lists(vs_kvs_get_vs_objects_all_recs(&count, &objects), "vs_kvs_get_vs_objects_all_recs");
    for (uint32_t i = 0; i < count; ++i) {
        count_object(totals_p, objects[i]);
        free(objects[i]);
    }
    free(objects);

    count = 0;
    vs_clients_info_kvs_rec **client_lists = NULL;
    ok = ok && lists(vs_kvs_get_clients_info_all_recs(&count, &client_lists),
                     "vs_kvs_get_clients_info_all_recs");
    for (uint32_t i = 0; i < count; ++i) {
        count_client_list(totals_p, client_lists[i]);
        free(client_lists[i]);
    }
    free(client_lists);

    count = 0;
    vs_client_objects_reg_kvs_rec **registrations = NULL;
    ok = ok && lists(vs_kvs_get_client_objects_reg_all_recs(&count, &registrations),
                     "vs_kvs_get_client_objects_reg_all_recs");
    for (uint32_t i = 0; i < count; ++i) {
        count_registration(totals_p, registrations[i]);
        free(registrations[i]);
    }
    free(registrations);
    return ok;
}

/* ---- the second process ---- */

/* All that --list does. Each database is found by its name, without vs_kvs_initialize. */
static bool print_stored_totals(void)
{
    struct totals totals;
    char line[TOTALS_LINE_SIZE];
    if (!read_totals(&totals))
        return false;
    format_totals(&totals, line);
    return puts(line) >= 0 && fflush(stdout) == 0;
}

/* Turns this process into one that writes its list into a pipe. */
static void become_list(const int ends[2])
{
    char program[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", program, sizeof program - 1);
    if (length > 0 && dup2(ends[1], STDOUT_FILENO) >= 0) {
        program[length] = '\0';
        (void)close(ends[0]);
        (void)close(ends[1]);
        (void)execl(program, "host_inventory", "--list", (char *)NULL);
    }
    (void)fails("--list", strerror(errno));
    _exit(EXIT_FAILURE);
}

/* Reads the line, and closes the pipe. */
static bool read_list(int pipe_end, char line[TOTALS_LINE_SIZE])
{
    FILE *const list = fdopen(pipe_end, "r");
    if (list == NULL) {
        (void)close(pipe_end);
        return false;
    }
    const bool is_read = fgets(line, TOTALS_LINE_SIZE, list) != NULL;
    (void)fclose(list);
    if (is_read)
        line[strcspn(line, "\n")] = '\0';
    return is_read;
}

static bool list_in_second_process(char line[TOTALS_LINE_SIZE])
{
    int ends[2];
    if (fflush(stdout) != 0 || pipe(ends) != 0)
        return fails("second process", strerror(errno));
    const pid_t child = fork();
    if (child == 0)
        become_list(ends);
    if (child < 0)
        (void)fails("fork", strerror(errno));
    (void)close(ends[1]);
    const bool is_read = read_list(ends[0], line);
    int state = 0;
    while (child > 0 && waitpid(child, &state, 0) < 0)
        if (errno != EINTR)
            return fails("waitpid", strerror(errno));
    return (is_read && WIFEXITED(state) && WEXITSTATUS(state) == EXIT_SUCCESS) ||
           fails("second process", "it gave no list");
}

static bool verify_in_second_process(const struct machine *machine)
{
    char expected[TOTALS_LINE_SIZE];
    char listed[TOTALS_LINE_SIZE];
    const struct totals totals = totals_of(machine);
    format_totals(&totals, expected);
    if (!list_in_second_process(listed))
        return false;
    printf("  a second process reads %s\n", listed);
    return strcmp(expected, listed) == 0 || fails("the store has to hold", expected);
}

/* ---- populating ---- */

static bool open_empty_store(void)
{
    struct totals totals;
    if (!succeeds(vs_kvs_initialize(0), "vs_kvs_initialize", 0) || !read_totals(&totals))
        return false;
    uint32_t count = 0;
    for (size_t i = 0; i < sizeof totals.records / sizeof totals.records[0]; ++i)
        count += totals.records[i];
    return count == 0 || fails("the store holds records already",
                               "please give it an empty state directory (VS_STATE_DIR)");
}

static bool store_libraries(const struct machine *machine)
{
    const uint32_t count = machine->library_count;
    vs_object_sel_entry *const entries = calloc(count, sizeof *entries);
    const uint32_t **const versions = calloc(count, sizeof *versions);
    uint32_t *const version_counts = calloc(count, sizeof *version_counts);
    bool ok = (entries != NULL && versions != NULL && version_counts != NULL) ||
              fails("population", "out of memory");
    for (uint32_t i = 0; ok && i < count; ++i) {
        const vs_objects_kvs_rec *const object = machine->libraries[i].object;
        entries[i].vs_object_id = object->vs_object_id;
        entries[i].selected_version = object->selected_version;
        versions[i] = object->supp_versions;
        version_counts[i] = object->supp_count;
    }
    ok = ok && succeeds(vs_kvs_insert_vs_objects(entries, count, versions, version_counts),
                        "vs_kvs_insert_vs_objects", 0);
    free(entries);
    free(versions);
    free(version_counts);
    return ok;
}

static bool store_machine(const struct machine *machine)
{
    kvs_rec_hdl unused; /* the record's handle, for calls to the record store */
    bool ok = store_libraries(machine);
    for (uint32_t i = 0; ok && i < machine->library_count; ++i) {
        const vs_clients_info_kvs_rec *const list = machine->libraries[i].clients;
        ok = succeeds(vs_kvs_insert_clients_info_rec(list, &unused),
                      "vs_kvs_insert_clients_info_rec", list->vs_object_id);
    }
    for (uint32_t i = 0; ok && i < machine->session_count; ++i)
        ok = succeeds(vs_kvs_insert_client_objects_reg_rec(machine->sessions[i], &unused),
                      "vs_kvs_insert_client_objects_reg_rec", machine->sessions[i]->jid);
    return ok;
}

/*
 * One batch for all: it costs one write to disk instead of one for each record, and a process that
 * is killed meanwhile leaves the store empty, so that the next one can begin again.
 */
static bool populate(const struct machine *machine)
{
    if (!succeeds(kvs_batch_begin(g_kvs_hdl_vs_objects_db), "kvs_batch_begin", 0))
        return false;
    if (!store_machine(machine)) {
        (void)succeeds(kvs_batch_abort(), "kvs_batch_abort", 0);
        return false;
    }
    return succeeds(kvs_batch_commit(), "kvs_batch_commit", 0);
}

/* ---- showing ---- */

/* The components of a version, or "-" for none. */
static const char *version_text(uint32_t version, char text[12])
{
    if (version == 0)
        return "-";
    (void)snprintf(text, 12, "%d.%d.%d", (int)(version >> 16 & 0xFF), (int)(version >> 8 & 0xFF),
                   (int)(version & 0xFF));
    return text;
}

/* A line of the table, from what is stored. A stored record of length 0 would read as null. */
static bool print_library(const struct library *library, int width)
{
    const uint32_t id = library->object->vs_object_id;
    vs_objects_kvs_rec *object = NULL;
    vs_clients_info_kvs_rec *list = NULL;
    bool ok = succeeds(vs_kvs_get_vs_object_rec(id, &object), "vs_kvs_get_vs_object_rec", id) &&
              succeeds(vs_kvs_get_clients_info_rec(id, &list), "vs_kvs_get_clients_info_rec", id);
    if (ok && object != NULL && list != NULL) {
        char text[12];
        printf("%-*s  0x%08" PRIx32 "  %8s  %8" PRIu32 "  %7" PRIu32 "\n", width, library->soname,
               object->vs_object_id, version_text(object->selected_version, text),
               object->supp_count, list->clients_count);
    } else if (ok) {
        ok = fails(library->soname, "an empty record is stored");
    }
    free(object);
    free(list);
    return ok;
}

static bool print_table(const struct machine *machine)
{
    int width = 0;
    for (uint32_t i = 0; i < machine->library_count; ++i) {
        const int length = (int)strlen(machine->libraries[i].soname);
        width = length > width ? length : width;
    }
    printf("%-*s  %-10s  %8s  %8s  %7s\n", width, "LIBRARY", "ID", "SELECTED", "VERSIONS",
           "CLIENTS");
    bool ok = true;
    for (uint32_t i = 0; ok && i < machine->library_count; ++i)
        ok = print_library(&machine->libraries[i], width);
    printf("%" PRIu32 " libraries; %" PRIu32 " processes in %" PRIu32 " sessions map them\n"
           "not looked at: %" PRIu32 " processes, %" PRIu32
           " files; left out for their ids: %" PRIu32 " libraries\n",
           machine->library_count, machine->process_count, machine->session_count,
           machine->hidden_count, machine->lost_count, machine->clash_count);
    return ok;
}

/* ---- changing ---- */

/* Selects the version before the selected one, as after a bad update, and reads the record. */
static bool select_another_version(struct library *library)
{
    vs_objects_kvs_rec *const object = library->object;
    const uint32_t id = object->vs_object_id;
    const uint32_t wanted = object->supp_count > 1 ? object->supp_versions[object->supp_count - 2]
                                                   : object->selected_version + 1;
    if (!succeeds(vs_kvs_update_vs_object_selected_version(id, wanted),
                  "vs_kvs_update_vs_object_selected_version", id))
        return false;
    char before[12];
    char after[12];
    printf("%s: %s is selected instead of %s\n", library->soname, version_text(wanted, after),
           version_text(object->selected_version, before));
    object->selected_version = wanted;

    vs_objects_kvs_rec *stored = NULL;
    bool ok = succeeds(vs_kvs_get_vs_object_rec(id, &stored), "vs_kvs_get_vs_object_rec", id);
    if (ok && (stored == NULL || stored->selected_version != wanted))
        ok = fails(library->soname, "the selection does not show in the record");
    free(stored);
    return ok;
}

/* The id of a new job: this process's id, or one beyond those that sessions have. */
static uint32_t unused_jid(const struct machine *machine)
{
    uint32_t jid = (uint32_t)getpid();
    for (uint32_t i = 0; i < machine->session_count; ++i)
        if (machine->sessions[i]->jid >= jid)
            jid = machine->sessions[i]->jid + 1;
    return jid;
}

/* This process becomes a job of its own that uses the library, and is not let in twice. */
static bool join(struct machine *machine, struct library *library)
{
    const uint32_t id = library->object->vs_object_id;
    const vs_client_objects_reg_kvs_rec registration = {.jid = unused_jid(machine)};
    const vs_client_info_entry client = {registration.jid, (uint32_t)getpid(), "joining"};
    const vs_client_info_entry changed = {client.jid, client.pid, "joined"};
    kvs_rec_hdl unused;
    if (!succeeds(vs_kvs_insert_client_objects_reg_rec(&registration, &unused),
                  "vs_kvs_insert_client_objects_reg_rec", client.jid) ||
        !succeeds(vs_kvs_add_new_client_objects_reg_object(client.jid, id),
                  "vs_kvs_add_new_client_objects_reg_object", id) ||
        !succeeds(vs_kvs_add_new_client_info(id, &client), "vs_kvs_add_new_client_info", id))
        return false;
    printf("%s: process %" PRIu32 " is registered and a client, and refused a second time\n",
           library->soname, client.pid);
    if (!refuses(VS_FAULT_KVS_REG_ALREADY_EXIST,
                 vs_kvs_add_new_client_objects_reg_object(client.jid, id),
                 "vs_kvs_add_new_client_objects_reg_object", id) ||
        !refuses(VS_FAULT_KVS_CLIENT_ALREADY_EXIST, vs_kvs_add_new_client_info(id, &client),
                 "vs_kvs_add_new_client_info", id))
        return false;

    if (!succeeds(vs_kvs_update_client_info(id, &changed), "vs_kvs_update_client_info", id))
        return false;
    return machine_add_use(machine, library, &changed) || fails("machine", "out of memory");
}

/* Reads of both databases that find neither the VS object nor its clients. */
static bool is_gone(uint32_t id)
{
    vs_objects_kvs_rec *object = NULL;
    vs_clients_info_kvs_rec *list = NULL;
    const bool ok = refuses(VS_FAULT_NO_SUCH_OBJECT, vs_kvs_get_vs_object_rec(id, &object),
                            "vs_kvs_get_vs_object_rec", id) &&
                    refuses(VS_FAULT_NO_SUCH_OBJECT, vs_kvs_get_clients_info_rec(id, &list),
                            "vs_kvs_get_clients_info_rec", id);
    free(object);
    free(list);
    return ok;
}

/* Deleting a VS object leaves its client list in place; a program deletes both. */
static bool retire(struct machine *machine, struct library *library)
{
    const uint32_t id = library->object->vs_object_id;
    if (!succeeds(vs_kvs_delete_vs_object(id), "vs_kvs_delete_vs_object", id) ||
        !succeeds(vs_kvs_delete_clients_info_rec(id), "vs_kvs_delete_clients_info_rec", id))
        return false;
    printf("%s: deleted\n", library->soname);
    machine_remove_library(machine, library);
    return is_gone(id);
}

/* ---- the whole ---- */

static bool take_inventory(struct machine *machine)
{
    if (!open_empty_store() || !machine_explore(machine) || !populate(machine))
        return false;
    const struct totals totals = totals_of(machine);
    if (!print_table(machine) || !store_machine(machine))
        return false;
    printf("populated again with the same records, which changes nothing\n");
    if (!verify_in_second_process(machine))
        return false;

    struct library *const most_used = machine_pick_library(machine, true);
    if (!select_another_version(most_used) || !join(machine, most_used) ||
        !verify_in_second_process(machine) ||
        !retire(machine, machine_pick_library(machine, false)) ||
        !verify_in_second_process(machine))
        return false;
    printf("inventory: %" PRIu32 " libraries, %" PRIu32 " clients, %" PRIu32
           " registrations stored; verified by a second process; selection changed and read back; "
           "duplicates refused; deletion seen\n",
           totals.records[VS_KVS_DB_OBJECTS], totals.clients,
           totals.records[VS_KVS_DB_CLIENT_OBJECTS_REG]);
    return true;
}

int main(int argc, char **argv)
{
    if (argc == 2 && strcmp(argv[1], "--list") == 0)
        return print_stored_totals() ? EXIT_SUCCESS : EXIT_FAILURE;
    if (argc != 1) {
        fprintf(stderr, "usage: host_inventory [--list]\n");
        return 2;
    }
    struct machine machine = {0};
    bool ok = take_inventory(&machine);
    machine_free(&machine);
    if (fflush(stdout) != 0 || ferror(stdout))
        ok = fails("standard output", "it could not be written");
    return ok ? EXIT_SUCCESS : EXIT_FAILURE;
}
