// Prints docs/messages.md from the lists of messages. A test compares the
// two; after a change of the messages, write the page again with `messages_page >
// docs/messages.md`.

#include "startup/messages.h"

#include <cinttypes>
#include <cstdio>
#include <string>

namespace {

using namespace vs_kvs;

constexpr const char *buffer_names[] = {"api", "errors", "common"};

// The text with each conversion replaced by the name of its fact.
template <channel To, class... Facts>
std::string sentence_of(const message<To, Facts...> &of)
{
    const char *const names[] = {Facts::name..., ""}, *const *name = names;
    std::string sentence;
    for (const char *at = of.text + (of.names_operation ? 4 : 0); *at != '\0'; ++at)
        if (*at != '%')
            sentence += *at;
        else
            sentence += '<' + std::string(*name++) + '>', ++at;
    return sentence;
}

template <channel To, class... Facts>
void print(const message<To, Facts...> &of)
{
    printf("| `%#" PRIx64 "` | %s | `%s` |\n", of.id, buffer_names[static_cast<int>(To)],
           sentence_of(of).c_str());
}

template <class... Messages>
void print_table(const char *title, const std::tuple<Messages...> &messages)
{
    printf("\n## %s\n\n| Identifier | Buffer | Message |\n|---|---|---|\n", title);
    std::apply([](const auto &...each) { (print(each), ...); }, messages);
}

} // namespace

int main()
{
    puts("# Trace messages\n\n"
         "Every message that the library leaves in a trace buffer, under the operation that\n"
         "leaves it, in the order in which the operation reaches them. How to read an\n"
         "identifier and where the buffers are is described in [trace.md](trace.md).");
    print_table("Any operation", common_messages);
    for_each_operation(
        []<class Operation>(Operation) { print_table(Operation::operation, Operation::traced); });
}
