/*
 * Looks through the running processes for the shared libraries they map, then through the folders
 * of these libraries for others. Files are opened below the root folder of the process that maps
 * them, so that the libraries of a container are its own. Everything that is looked at may vanish
 * or change meanwhile, which is no error: what cannot be looked at is counted and left out.
 */
#define _POSIX_C_SOURCE 200809L

#include "machine.h"

#include "elf_versions.h"

#include <ctype.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#define NO_LIBRARY UINT32_MAX

/* A file that has been read, and the index of the library in it. */
struct seen_file {
    dev_t device;
    ino_t inode;
    uint32_t library;
};

/* What is needed while exploring only. */
struct exploration {
    struct machine *machine;
    struct seen_file *files;
    uint32_t file_count;
    char **folders;
    uint32_t folder_count;
};

/* ---- libraries and their users ---- */

/* FNV-1a, but never 0, which is no id. */
static uint32_t id_of(const char *soname)
{
    uint32_t hash = UINT32_C(2166136261);
    for (const char *at = soname; *at != '\0'; ++at)
        hash = (hash ^ (unsigned char)*at) * UINT32_C(16777619);
    return hash != 0 ? hash : 1;
}

static void free_library(struct library *library)
{
    free(library->soname);
    free(library->object);
    free(library->clients);
}

/* The highest version that a library defines is the selected one. */
static vs_objects_kvs_rec *object_of(const struct elf_library *elf)
{
    vs_objects_kvs_rec *const object =
        malloc(sizeof *object + elf->version_count * sizeof object->supp_versions[0]);
    if (object == NULL)
        return NULL;
    *object = (vs_objects_kvs_rec){
        .vs_object_id = id_of(elf->soname),
        .is_changed = 1, /* as a bulk population stores it */
        .supp_count = elf->version_count,
    };
    for (uint32_t i = 0; i < elf->version_count; ++i)
        object->selected_version = object->supp_versions[i] = elf->versions[i];
    return object;
}

static bool append_library(struct machine *machine, const struct elf_library *elf)
{
    struct library *const grown =
        realloc(machine->libraries, (machine->library_count + 1) * sizeof *grown);
    if (grown == NULL)
        return false;
    machine->libraries = grown;
    struct library library = {
        .soname = strdup(elf->soname),
        .object = object_of(elf),
        .clients = calloc(1, sizeof *library.clients),
    };
    if (library.soname == NULL || library.object == NULL || library.clients == NULL) {
        free_library(&library);
        return false;
    }
    library.clients->vs_object_id = library.object->vs_object_id;
    grown[machine->library_count++] = library;
    return true;
}

/*
 * Adds a library, unless there is one of this name already or another one has its id. *index_p
 * receives where the library of this name is.
 */
static bool add_library(struct machine *machine, const struct elf_library *elf, uint32_t *index_p)
{
    const uint32_t id = id_of(elf->soname);
    uint32_t at = 0;
    while (at < machine->library_count && machine->libraries[at].object->vs_object_id != id)
        ++at;
    if (at == machine->library_count && !append_library(machine, elf))
        return false;
    if (strcmp(machine->libraries[at].soname, elf->soname) == 0) {
        *index_p = at;
    } else {
        ++machine->clash_count;
        fprintf(stderr, "host_inventory: %s is left out: %s has its id 0x%08x\n", elf->soname,
                machine->libraries[at].soname, (unsigned)id);
    }
    return true;
}

static bool add_client(struct library *library, const vs_client_info_entry *client)
{
    vs_clients_info_kvs_rec *list = library->clients;
    for (uint32_t i = 0; i < list->clients_count; ++i)
        if (list->clients[i].jid == client->jid)
            return true;
    list = realloc(list, sizeof *list + (list->clients_count + 1) * sizeof *client);
    if (list == NULL)
        return false;
    list->clients[list->clients_count++] = *client;
    library->clients = list;
    return true;
}

/* Returns a session's element, new and empty if there was none; null without memory. */
static vs_client_objects_reg_kvs_rec **find_or_add_session(struct machine *machine, uint32_t jid)
{
    for (uint32_t i = 0; i < machine->session_count; ++i)
        if (machine->sessions[i]->jid == jid)
            return &machine->sessions[i];
    vs_client_objects_reg_kvs_rec **const grown =
        realloc(machine->sessions, (machine->session_count + 1) * sizeof *grown);
    if (grown == NULL)
        return NULL;
    machine->sessions = grown;
    vs_client_objects_reg_kvs_rec *const session = calloc(1, sizeof *session);
    if (session == NULL)
        return NULL;
    session->jid = jid;
    grown[machine->session_count] = session;
    return &grown[machine->session_count++];
}

static bool register_library(vs_client_objects_reg_kvs_rec **session_p, uint32_t id)
{
    vs_client_objects_reg_kvs_rec *session = *session_p;
    for (uint32_t i = 0; i < session->vs_count; ++i)
        if (session->vs_array[i] == id)
            return true;
    session = realloc(session, sizeof *session + (session->vs_count + 1) * sizeof id);
    if (session == NULL)
        return false;
    session->vs_array[session->vs_count++] = id;
    *session_p = session;
    return true;
}

bool machine_add_use(struct machine *machine, struct library *library,
                     const vs_client_info_entry *client)
{
    vs_client_objects_reg_kvs_rec **const session_p = find_or_add_session(machine, client->jid);
    return session_p != NULL && register_library(session_p, library->object->vs_object_id) &&
           add_client(library, client);
}

/* ---- files and folders ---- */

static bool read_file(struct exploration *x, int fd, uint32_t *index_p)
{
    struct elf_library elf;
    const enum elf_result result = elf_library_read(fd, &elf);
    if (result != ELF_LIBRARY) {
        x->machine->lost_count += result == ELF_DAMAGED;
        return result != ELF_OUT_OF_MEMORY;
    }
    const bool ok = add_library(x->machine, &elf, index_p);
    free(elf.soname);
    free(elf.versions);
    return ok;
}

/* As read_file, but each file is read once, whatever its paths. */
static bool look_at_file(struct exploration *x, int fd, const struct stat *file, uint32_t *index_p)
{
    for (uint32_t i = 0; i < x->file_count; ++i) {
        if (x->files[i].inode == file->st_ino && x->files[i].device == file->st_dev) {
            *index_p = x->files[i].library;
            return true;
        }
    }
    struct seen_file *const grown = realloc(x->files, (x->file_count + 1) * sizeof *grown);
    if (grown == NULL)
        return false;
    x->files = grown;
    if (!read_file(x, fd, index_p))
        return false;
    grown[x->file_count++] = (struct seen_file){file->st_dev, file->st_ino, *index_p};
    return true;
}

/*
 * Finds the library in a file; *index_p receives NO_LIBRARY when there is none. Links are not
 * followed: what they lead to is found by itself.
 */
static bool find_library(struct exploration *x, const char *path, uint32_t *index_p)
{
    *index_p = NO_LIBRARY;
    const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) {
        x->machine->lost_count += errno != ELOOP;
        return true;
    }
    struct stat file;
    bool ok = true;
    if (fstat(fd, &file) != 0)
        ++x->machine->lost_count;
    else if (S_ISREG(file.st_mode))
        ok = look_at_file(x, fd, &file, index_p);
    (void)close(fd); /* nothing was written that could be lost */
    return ok;
}

static bool remember_folder(struct exploration *x, const char *file_path)
{
    const size_t length = (size_t)(strrchr(file_path, '/') - file_path);
    for (uint32_t i = 0; i < x->folder_count; ++i)
        if (strncmp(x->folders[i], file_path, length) == 0 && x->folders[i][length] == '\0')
            return true;
    char **const grown = realloc(x->folders, (x->folder_count + 1) * sizeof *grown);
    if (grown == NULL)
        return false;
    x->folders = grown;
    grown[x->folder_count] = strndup(file_path, length);
    return grown[x->folder_count] != NULL && ++x->folder_count != 0;
}

/* The folders of a container's libraries need not exist outside of it. */
static bool explore_folder(struct exploration *x, const char *folder_path)
{
    DIR *const folder = opendir(folder_path);
    if (folder == NULL)
        return true;
    bool ok = true;
    const struct dirent *entry;
    while (ok && (entry = readdir(folder)) != NULL) {
        char path[PATH_MAX];
        uint32_t ignored;
        const int length = snprintf(path, sizeof path, "%s/%s", folder_path, entry->d_name);
        if (length > 0 && (size_t)length < sizeof path)
            ok = find_library(x, path, &ignored);
    }
    (void)closedir(folder);
    return ok;
}

/* ---- processes ---- */

static FILE *open_process_file(uint32_t pid, const char *name)
{
    char path[64];
    (void)snprintf(path, sizeof path, "/proc/%u/%s", (unsigned)pid, name);
    return fopen(path, "r");
}

/*
 * Describes a process as a client, with the beginning of its command name as the client's data.
 * Session 0 is one that cannot be seen from here: its processes pass for sessions of their own.
 */
static bool describe_client(uint32_t pid, vs_client_info_entry *client_p)
{
    FILE *const file = open_process_file(pid, "comm");
    if (file == NULL)
        return false;
    char command[64];
    const bool is_read = fgets(command, sizeof command, file) != NULL;
    (void)fclose(file);
    const pid_t session = getsid((pid_t)pid);
    if (!is_read || session < 0)
        return false;

    *client_p = (vs_client_info_entry){.jid = session != 0 ? (uint32_t)session : pid, .pid = pid};
    const size_t length = strcspn(command, "\n");
    const size_t room = sizeof client_p->client_data;
    memcpy(client_p->client_data, command, length < room ? length : room);
    return true;
}

/* The path of an executable mapping of a file, or null when the line describes something else. */
static const char *mapped_path(char *line)
{
    char permissions[5] = "";
    int path_at = 0;
    if (sscanf(line, "%*s %4s %*s %*s %*s %n", permissions, &path_at) != 1)
        return NULL;
    line[strcspn(line, "\n")] = '\0';
    return permissions[2] == 'x' && line[path_at] == '/' ? line + path_at : NULL;
}

static bool explore_mapping(struct exploration *x, const vs_client_info_entry *client,
                            const char *path, bool *is_user_p)
{
    char outer_path[PATH_MAX + 32];
    const int length =
        snprintf(outer_path, sizeof outer_path, "/proc/%u/root%s", (unsigned)client->pid, path);
    if (length < 0 || (size_t)length >= sizeof outer_path)
        return true;
    uint32_t index;
    if (!find_library(x, outer_path, &index))
        return false;
    if (index == NO_LIBRARY)
        return true;
    *is_user_p = true;
    return remember_folder(x, path) &&
           machine_add_use(x->machine, &x->machine->libraries[index], client);
}

static bool explore_process(struct exploration *x, uint32_t pid)
{
    FILE *const maps = open_process_file(pid, "maps");
    if (maps == NULL) {
        x->machine->hidden_count += errno != ENOENT;
        return true;
    }
    bool ok = true;
    bool is_user = false;
    vs_client_info_entry client;
    if (describe_client(pid, &client)) {
        char *line = NULL;
        size_t room = 0;
        while (ok && getline(&line, &room, maps) > 0) {
            const char *const path = mapped_path(line);
            ok = path == NULL || explore_mapping(x, &client, path, &is_user);
        }
        free(line);
        x->machine->hidden_count += ok && !feof(maps);
    }
    x->machine->process_count += is_user;
    (void)fclose(maps);
    return ok;
}

static bool explore_processes(struct exploration *x)
{
    DIR *const folder = opendir("/proc");
    if (folder == NULL) {
        fprintf(stderr, "host_inventory: /proc: %s\n", strerror(errno));
        return false;
    }
    bool ok = true;
    const struct dirent *entry;
    while (ok && (entry = readdir(folder)) != NULL)
        if (isdigit((unsigned char)entry->d_name[0]))
            ok = explore_process(x, (uint32_t)strtoul(entry->d_name, NULL, 10));
    (void)closedir(folder);
    if (!ok)
        fprintf(stderr, "host_inventory: out of memory\n");
    return ok;
}

/* ---- the machine ---- */

static int compare_sonames(const void *left, const void *right)
{
    return strcmp(((const struct library *)left)->soname, ((const struct library *)right)->soname);
}

bool machine_explore(struct machine *machine_p)
{
    *machine_p = (struct machine){0};
    struct exploration x = {.machine = machine_p};
    bool ok = explore_processes(&x);
    for (uint32_t i = 0; ok && i < x.folder_count; ++i) {
        ok = explore_folder(&x, x.folders[i]);
        if (!ok)
            fprintf(stderr, "host_inventory: out of memory\n");
    }
    for (uint32_t i = 0; i < x.folder_count; ++i)
        free(x.folders[i]);
    free(x.folders);
    free(x.files);
    if (ok && machine_p->library_count == 0) {
        fprintf(stderr, "host_inventory: no process maps a shared library\n");
        return false;
    }
    if (ok)
        qsort(machine_p->libraries, machine_p->library_count, sizeof *machine_p->libraries,
              compare_sonames);
    return ok;
}

/* How much a library is used; of those used alike, the one with more versions weighs more. */
static uint64_t weight(const struct library *library)
{
    return (uint64_t)library->clients->clients_count << 32 | library->object->supp_count;
}

struct library *machine_pick_library(const struct machine *machine, bool most)
{
    struct library *picked = machine->libraries;
    for (uint32_t i = 1; i < machine->library_count; ++i) {
        struct library *const other = &machine->libraries[i];
        if (weight(most ? other : picked) > weight(most ? picked : other))
            picked = other;
    }
    return picked;
}

void machine_remove_library(struct machine *machine, struct library *library)
{
    free_library(library);
    const struct library *const end = machine->libraries + machine->library_count--;
    memmove(library, library + 1, (size_t)(end - (library + 1)) * sizeof *library);
}

void machine_free(struct machine *machine)
{
    for (uint32_t i = 0; i < machine->library_count; ++i)
        free_library(&machine->libraries[i]);
    for (uint32_t i = 0; i < machine->session_count; ++i)
        free(machine->sessions[i]);
    free(machine->libraries);
    free(machine->sessions);
}
