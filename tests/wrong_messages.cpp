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
#elif WRONG == 8 // reported, and not in the operation's list
struct operation_without {
    static constexpr char operation[] = "vs_kvs_operation";
    static constexpr errors<object_id> unlisted{0x10200010299, "%s: id 0x%X"};
    static constexpr auto traced = std::tuple{};
};
void wrong() { report<operation_without, operation_without::unlisted>(object_id{1}); }
#elif WRONG == 9 // a report without one of the message's facts
struct operation_with {
    static constexpr char operation[] = "vs_kvs_operation";
    static constexpr errors<object_id> listed{0x10200010299, "%s: id 0x%X"};
    static constexpr auto traced = std::tuple{listed};
};
void wrong() { report<operation_with, operation_with::listed>(job_id{1}); }
#endif
