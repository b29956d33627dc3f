// Prints docs/messages.md: the trace messages as the reporting sites have them. A test compares the
// two; after a change of the sites, write the page anew with `messages_page > docs/messages.md`.
#include "clients/messages.h"
#include "objects/messages.h"
#include "registrations/messages.h"

#include <cinttypes>
#include <cstdio>
#include <string>

namespace {

using namespace vs_kvs;

constexpr const char *buffer_names[] = {"api", "errors", "common"};

// The text with the names of the facts in the places of the conversions.
template <channel To, class... Facts>
std::string sentence(const site<To, Facts...> &of)
{
    const char *const names[] = {Facts::name..., ""}, *const *name = names;
    std::string told;
    for (const char *at = of.text + (of.names_operation ? 4 : 0); *at != '\0'; ++at)
        if (*at != '%')
            told += *at;
        else
            told += '<' + std::string(*name++) + '>', ++at;
    return told;
}

template <channel To, class... Facts>
void print(const site<To, Facts...> &of)
{
    printf("| `%#" PRIx64 "` | %s | `%s` |\n", of.id, buffer_names[static_cast<int>(To)],
           sentence(of).c_str());
}

template <class... Sites>
void print_table(const char *title, const std::tuple<Sites...> &sites)
{
    printf("\n## %s\n\n| Identifier | Buffer | Message |\n|---|---|---|\n", title);
    std::apply([](const auto &...each) { (print(each), ...); }, sites);
}

template <class... Operations>
void print_operations(operation_list<Operations...>)
{
    (print_table(Operations::operation, Operations::traced), ...);
}

} // namespace

int main()
{
    puts("# Trace messages\n\n"
         "Every message that the library leaves in a trace buffer, under the operation that\n"
         "leaves it, in the order in which the operation reaches them. How to read an\n"
         "identifier and where the buffers are is told in [trace.md](trace.md).");
    print_table("Any operation", common_messages);
    print_operations(startup::operations{});
    print_operations(objects::operations{});
    print_operations(clients::operations{});
    print_operations(registrations::operations{});
}
