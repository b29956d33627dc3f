// Stands in for libFuzzer: gives a target every file of its corpus, then mutations of them, the
// same in every run.
//
//   fuzz_TARGET CORPUS [MUTATIONS]
#include "fuzz.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <map>
#include <random>
#include <vector>

namespace {

using bytes = std::vector<uint8_t>;

void mutate(bytes &input, const bytes &other, std::mt19937 &roll)
{
    const auto position = [&](const bytes &in) {
        return static_cast<ptrdiff_t>(roll() % (in.size() + 1));
    };
    const auto at = input.begin() + position(input), end = input.begin() + position(input);
    const uint8_t values[] = {0, 1, 0x7F, 0x80, 0xFF, static_cast<uint8_t>(roll())};
    switch (roll() % 5) {
    case 0:
        input.insert(at, 1 + roll() % 8, values[roll() % 6]);
        break;
    case 1:
        input.erase(std::min(at, end), std::max(at, end));
        break;
    case 2:
        input.insert(at, other.begin() + position(other) / 2, other.end());
        break;
    default:
        if (at != input.end())
            *at =
                roll() % 2 == 0 ? values[roll() % 6] : static_cast<uint8_t>(*at ^ 1u << roll() % 8);
    }
}

} // namespace

int main(int count, char **arguments)
{
    need(count > 1, "the corpus is not given");
    std::map<fs::path, bytes> corpus;
    for (const auto &entry : fs::directory_iterator(arguments[1])) {
        std::ifstream from(entry.path(), std::ios::binary);
        corpus[entry.path()].assign(std::istreambuf_iterator<char>(from), {});
    }
    need(!corpus.empty(), "the corpus is empty");
    for (const auto &[path, input] : corpus)
        LLVMFuzzerTestOneInput(input.data(), input.size());
    std::mt19937 roll(1);
    const auto any = [&] { return std::next(corpus.begin(), roll() % corpus.size())->second; };
    const int mutations = count > 2 ? std::atoi(arguments[2]) : 1000;
    for (int i = 0; i < mutations; ++i) {
        bytes input = any();
        for (auto left = 1 + roll() % 6; left != 0; --left)
            mutate(input, any(), roll);
        LLVMFuzzerTestOneInput(input.data(), input.size());
    }
    printf("fuzz: %zu files and %d mutations\n", corpus.size(), mutations);
    return 0;
}
