// The store as a whole.
#pragma once

#include <functional>
#include <string>

namespace vskvs {

// From now on, a long wait for another process is reported on standard error.
void announce_waits();

// Opens the databases, creating what is missing, as the bulk operations require.
void initialize(const std::string &command);

// Does the work in one batch of the store, which is committed when `work` returns and aborted when
// it throws. `work` is done a second time when the batch outgrew its room.
void change_all(const std::function<void()> &work);

// Verifies the whole store; then does the work while no other thread or process can change the
// store.
void look_at_all(const std::function<void()> &work);

} // namespace vskvs
