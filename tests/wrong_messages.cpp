// Messages that must not compile: one for each WRONG, and none for 0.
#include "core/layout.h"
#include "core/report.h"

using namespace vs_kvs;

#ifndef WRONG
#define WRONG 0
#endif

#if WRONG == 0
constexpr errors<object_id, status_text> right{0x50300010299, "%s: id 0x%X: %s"};

// A list of fields that leaves one out, at the end or before it, does not cover its record.
constexpr field all_fields[] = {VS_KVS_FIELD(vs_client_info_entry, jid),
                                VS_KVS_FIELD(vs_client_info_entry, pid),
                                VS_KVS_FIELD(vs_client_info_entry, client_data)};
constexpr field a_gap[] = {all_fields[0], all_fields[2]};
static_assert(cover(all_fields, sizeof(vs_client_info_entry)));
static_assert(!cover(std::span(all_fields).first(2), sizeof(vs_client_info_entry)));
static_assert(!cover(a_gap, sizeof(vs_client_info_entry)));
#elif WRONG == 1 // an argument too many in the identifier
constexpr errors<object_id, status_text> wrong{0x50400010299, "%s: id 0x%X: %s"};
#elif WRONG == 2 // a string that the mask lacks
constexpr errors<object_id, status_text> wrong{0x10300010299, "%s: id 0x%X: %s"};
#elif WRONG == 3 // a conversion of another kind
constexpr errors<object_id, status_text> wrong{0x50300010299, "%s: id %s: %s"};
#elif WRONG == 4 // a fact that the text leaves out
constexpr errors<object_id, status_text> wrong{0x50300010299, "%s: id 0x%X"};
#elif WRONG == 5 // no operation's name at the beginning
constexpr errors<object_id> wrong{0x10200010299, "is: 0x%X"};
#elif WRONG == 6 // a debug text with an identifier
constexpr debug<object_id> wrong{0x10200010299, "%s: id 0x%X"};
#elif WRONG == 7 // an address in a trace record
constexpr errors<record_address> wrong{0x10200010299, "%s: at %p"};
#else
struct wrong {
    static constexpr char operation[] = "vs_kvs_operation";
    static constexpr errors<object_id> message{0x10200010299, "%s: id 0x%X"};
#if WRONG == 8 // reported, and not in the operation's list
    static constexpr auto traced = std::tuple{};
    void run() { report<wrong, message>(object_id{1}); }
#else          // a report without one of the message's facts
    static constexpr auto traced = std::tuple{message};
    void run() { report<wrong, message>(job_id{1}); }
#endif
};
#endif
