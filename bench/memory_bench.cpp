// How much memory a listing takes at its peak, beside what it hands out.
//
// The program's own malloc, calloc, realloc and free stand before those of the C library and count
// the bytes in use, by malloc_usable_size, of this library, the platform and the engine.
//
// Usage: memory_bench     with $VS_STATE_DIR; prints the peak and what was handed out, in bytes.
#include "service.h"

#include <algorithm>

namespace {

size_t live = 0, peak = 0;

void *count_in(void *block)
{
    live += malloc_usable_size(block);
    peak = std::max(peak, live);
    return block;
}

void count_out(void *block) { live -= malloc_usable_size(block); }

} // namespace

extern "C" {

void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
void __libc_free(void *block);

void *malloc(size_t size) { return count_in(__libc_malloc(size)); }

void *calloc(size_t count, size_t size) { return count_in(__libc_calloc(count, size)); }

void *realloc(void *block, size_t size)
{
    count_out(block);
    return count_in(__libc_realloc(block, size));
}

void free(void *block)
{
    count_out(block);
    __libc_free(block);
}
}

int main()
{
    bench::service service;
    const size_t before = live;
    peak = live;
    const bench::listing all = service.list();
    printf("%zu %zu\n", peak - before, all.bytes());
}
