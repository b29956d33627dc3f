// The library's messages, flattened into one table, and trace records as sentences with their help.
#pragma once

#include "ringlog.h"
#include "tools/output.h"

#include <string>

namespace vskvs {

// A trace record as a sentence.
struct trace_sentence {
    std::string operation; // empty when the record does not name one
    std::string sentence;  // the debug print of the same message, without the operation
    json facts;            // by name, or "argument_1" and so on where the message is unknown
};

// A record of an unknown message, or one that does not fit its message, is shown raw.
trace_sentence decode(const ringlog_record &record);

} // namespace vskvs
