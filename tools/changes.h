// A change of the store's journal as a sentence and as JSON.
//
// A journal is taken as it is: records that are not what their database holds, databases of other
// programs and kinds that are not known are shown as bytes.
#pragma once

#include "tools/records.h"

#include <string>

namespace vskvs {

inline uint32_t key_of(kvs_rec_hdl handle) { return static_cast<uint32_t>(handle); }

// The database that a change was made to; null if it is none of the library's.
const database *database_of(const kvs_change &change);

struct change_text {
    std::string subject; // "object 0x2a"
    std::string what;    // ": selected_version 2 -> 3", which continues the subject
};

// The texts are not made printable.
change_text describe(const kvs_change &change);

// `user` is the name of the user who made it.
json to_json(const kvs_change &change, const std::string &user);

} // namespace vskvs
