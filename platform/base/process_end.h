// Whether the process ends, recorded before the unload hooks of the libraries run.
#pragma once

#include <atomic>
#include <cstddef>

namespace platform {

// Set by a handler given to atexit, which watch_process_end registers.
extern std::atomic<bool> process_ends;

// Set when the main thread calls exit(), if this library came with the program.
extern std::atomic<bool> main_thread_exits;

// The number of libraries that came with the program, which counts as one too; 0 if this one did
// not.
extern std::atomic<size_t> libraries_at_start;

// Called once, when this library is loaded. `address` is that of the function `name`, which it
// exports.
void start_watching(const char *name, const void *address);

// Registers the handler for libraries loaded by dlopen. The load hook of every library that queries
// the unload opens a trace buffer; that is where this is called.
void watch_process_end();

} // namespace platform
