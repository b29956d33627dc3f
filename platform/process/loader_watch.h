// The part of the unload query that other services of the platform call.
#pragma once

namespace platform {

// Ensures that the end of the process is recorded for libraries loaded by dlopen. The load hook of
// every library that queries the unload opens a trace buffer; that is where this is called.
void watch_process_end();

} // namespace platform
