// The library's reporting sites, flattened into one table, and trace records told with their help.
#pragma once

#include "ringlog.h"
#include "tools/output.h"

#include <string>

namespace vskvs {

// A trace record as a person reads it.
struct told_record {
    std::string operation; // empty when the record does not name one
    std::string sentence;  // what the debug print of the same site says, without the operation
    json facts;            // by name, or "argument_1" and so on where the site is unknown
};

// A record of an unknown site, or one that does not fit its site, is told raw.
told_record tell(const ringlog_record &record);

} // namespace vskvs
