// The part of the loader query that the services take care of.
#pragma once

namespace platform {

// Makes sure that the end of the process will be noticed for libraries that came by dlopen. The
// load hook of every library that asks opens a trace buffer; that is where this is called.
void watch_process_end();

} // namespace platform
