/*
 * elf_versions.h - what an ELF shared library says of itself: its name and the versions it defines.
 */
#ifndef EXAMPLES_ELF_VERSIONS_H
#define EXAMPLES_ELF_VERSIONS_H

#include <stdint.h>

enum elf_result {
    ELF_LIBRARY, /* a shared library with a name */
    ELF_OTHER,   /* something else */
    ELF_DAMAGED, /* an ELF file that contradicts itself, or could not be read to the end */
    ELF_OUT_OF_MEMORY,
};

/*
 * A version is the number at the end of the name of a version definition, a byte each for major,
 * minor and patch: GLIBC_2.34 is 0x00022200. Names that end otherwise (GLIBC_PRIVATE,
 * XZ_5.1.2alpha) or whose numbers do not fit (NCURSES6_TINFO_5.0.19991023) stand for no version.
 */
struct elf_library {
    char *soname;       /* the caller frees it */
    uint32_t *versions; /* ascending, each once; the caller frees it */
    uint32_t version_count;
};

/* Reads the file that is open as `fd`. *library_p is written when the result is ELF_LIBRARY. */
enum elf_result elf_library_read(int fd, struct elf_library *library_p);

#endif
