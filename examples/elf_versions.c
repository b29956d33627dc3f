/*
 * Reads the name and the version definitions of a shared library with libelf. Files come as they
 * are: libelf checks that what it returns lies within the file, and the walk along the version
 * definitions goes forward only, so that a damaged file ends it and never keeps it going.
 *
 * The file is read and not mapped, since a mapped file that is truncated kills its reader.
 */
#define _POSIX_C_SOURCE 200809L

#include "elf_versions.h"

#include <ctype.h>
#include <gelf.h>
#include <limits.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>

/* The version in the name of a version definition, 0 when there is none. */
static uint32_t version_in(const char *name)
{
    const char *const underscore = strrchr(name, '_');
    const char *at = underscore != NULL ? underscore + 1 : name;
    uint32_t version = 0;
    for (int shift = 16; shift >= 0 && isdigit((unsigned char)*at); shift -= 8) {
        char *end = NULL;
        const unsigned long component = strtoul(at, &end, 10);
        if (component > UINT8_MAX)
            return 0;
        version |= (uint32_t)component << shift;
        if (*end == '\0')
            return version;
        if (*end != '.')
            return 0;
        at = end + 1;
    }
    return 0;
}

static int compare_versions(const void *left, const void *right)
{
    const uint32_t a = *(const uint32_t *)left;
    const uint32_t b = *(const uint32_t *)right;
    return (a > b) - (a < b);
}

static void sort_versions(struct elf_library *library)
{
    qsort(library->versions, library->version_count, sizeof *library->versions, compare_versions);
    uint32_t kept = 0;
    for (uint32_t i = 0; i < library->version_count; ++i)
        if (kept == 0 || library->versions[kept - 1] != library->versions[i])
            library->versions[kept++] = library->versions[i];
    library->version_count = kept;
}

/* The name of the version definition that stands at `offset`; null when it is damaged. */
static const char *definition_name(Elf *elf, const GElf_Shdr *section, Elf_Data *data,
                                   size_t offset, const GElf_Verdef *definition)
{
    const size_t name_offset = offset + definition->vd_aux;
    GElf_Verdaux name;
    if (name_offset > data->d_size || gelf_getverdaux(data, (int)name_offset, &name) == NULL)
        return NULL;
    return elf_strptr(elf, section->sh_link, name.vda_name);
}

static enum elf_result read_versions(Elf *elf, Elf_Scn *scn, const GElf_Shdr *section,
                                     struct elf_library *library)
{
    Elf_Data *const data = elf_getdata(scn, NULL);
    if (data == NULL || data->d_size > INT_MAX || library->versions != NULL)
        return ELF_DAMAGED;
    library->versions = malloc((data->d_size / sizeof(Elf64_Verdef) + 1) * sizeof(uint32_t));
    if (library->versions == NULL)
        return ELF_OUT_OF_MEMORY;

    GElf_Verdef definition;
    for (size_t offset = 0;; offset += definition.vd_next) {
        if (offset > data->d_size || gelf_getverdef(data, (int)offset, &definition) == NULL)
            return ELF_DAMAGED;
        const char *const name = definition_name(elf, section, data, offset, &definition);
        if (name == NULL)
            return ELF_DAMAGED;
        const uint32_t version = (definition.vd_flags & VER_FLG_BASE) != 0 ? 0 : version_in(name);
        if (version != 0)
            library->versions[library->version_count++] = version;
        if (definition.vd_next == 0)
            break;
        if (definition.vd_next < sizeof(Elf64_Verdef))
            return ELF_DAMAGED;
    }
    sort_versions(library);
    return ELF_LIBRARY;
}

static bool is_printable(const char *text)
{
    while (*text != '\0' && !iscntrl((unsigned char)*text))
        ++text;
    return *text == '\0';
}

static enum elf_result read_soname(Elf *elf, Elf_Scn *scn, const GElf_Shdr *section,
                                   struct elf_library *library)
{
    Elf_Data *const data = elf_getdata(scn, NULL);
    if (data == NULL)
        return ELF_DAMAGED;
    GElf_Dyn entry;
    int i = 0;
    do {
        if (gelf_getdyn(data, i++, &entry) == NULL)
            return ELF_DAMAGED;
        if (entry.d_tag == DT_SONAME && library->soname == NULL) {
            const char *const name = elf_strptr(elf, section->sh_link, entry.d_un.d_val);
            if (name == NULL || *name == '\0' || !is_printable(name))
                return ELF_DAMAGED;
            library->soname = strdup(name);
            if (library->soname == NULL)
                return ELF_OUT_OF_MEMORY;
        }
    } while (entry.d_tag != DT_NULL);
    return ELF_LIBRARY;
}

static enum elf_result read_sections(Elf *elf, struct elf_library *library)
{
    (void)elf_errno(); /* clears an earlier error: the end of the sections sets none */
    for (Elf_Scn *scn = elf_nextscn(elf, NULL); scn != NULL; scn = elf_nextscn(elf, scn)) {
        GElf_Shdr section;
        enum elf_result result = ELF_LIBRARY;
        if (gelf_getshdr(scn, &section) == NULL)
            return ELF_DAMAGED;
        if (section.sh_type == SHT_DYNAMIC)
            result = read_soname(elf, scn, &section, library);
        else if (section.sh_type == SHT_GNU_verdef)
            result = read_versions(elf, scn, &section, library);
        if (result != ELF_LIBRARY)
            return result;
    }
    if (elf_errno() != 0)
        return ELF_DAMAGED;
    return library->soname != NULL ? ELF_LIBRARY : ELF_OTHER;
}

enum elf_result elf_library_read(int fd, struct elf_library *library_p)
{
    if (elf_version(EV_CURRENT) == EV_NONE)
        return ELF_DAMAGED;
    Elf *const elf = elf_begin(fd, ELF_C_READ, NULL);
    if (elf == NULL)
        return ELF_DAMAGED;
    struct elf_library library = {0};
    enum elf_result result = ELF_OTHER;
    GElf_Ehdr header;
    if (elf_kind(elf) == ELF_K_ELF)
        result = gelf_getehdr(elf, &header) == NULL ? ELF_DAMAGED
                 : header.e_type == ET_DYN          ? read_sections(elf, &library)
                                                    : ELF_OTHER;
    (void)elf_end(elf); /* gives the number of references left, never an error */
    if (result == ELF_LIBRARY) {
        *library_p = library;
    } else {
        free(library.soname);
        free(library.versions);
    }
    return result;
}
