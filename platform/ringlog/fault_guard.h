// Protection against SIGBUS in the mappings of trace buffers.
#pragma once

namespace platform {

// Installs the signal handler, once. The caller serialises the calls.
void install_fault_guard();

} // namespace platform
