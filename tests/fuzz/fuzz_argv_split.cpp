// A command line of any bytes, split into words.
//
// Input: the text.
#include "fuzz.h"

#include "rm.h"

#include <utility>

namespace
{
constexpr std::string_view kSpace = " \t\n\v\f\r";

std::vector<std::string> wordsOf(std::string_view text)
{
    std::vector<std::string> words;
    std::string word;
    for (const char c : text) {
        if (kSpace.find(c) == std::string_view::npos) {
            word += c;
        } else if (!word.empty()) {
            words.push_back(std::exchange(word, {}));
        }
    }
    if (!word.empty()) {
        words.push_back(word);
    }
    return words;
}

// The text as the words leave it: zeros in the place of all white space.
std::string withoutSpace(std::string text)
{
    for (char& c : text) {
        c = kSpace.find(c) != std::string_view::npos ? '\0' : c;
    }
    return text + '\0';
}
}  // namespace

void rmfuzz::fuzzInput(Input& input)
{
    Text text(input.text());
    const std::vector<std::string> expected = wordsOf(text.original());
    int count = -1;
    char* none = nullptr;
    char** argv = &none;
    FUZZ_CHECK(StrToArgv(text.writable(), &count, &argv, 0) == RM_SUCCESS);
    FUZZ_CHECK(count == static_cast<int>(expected.size()));
    if (expected.empty()) {
        FUZZ_CHECK(argv == nullptr && text.unchanged());
        return;
    }
    FUZZ_CHECK(argv != nullptr && argv != &none);
    std::size_t from = 0;
    for (std::size_t i = 0; i < expected.size(); ++i) {
        from = text.original().find(expected[i], from);
        FUZZ_CHECK(argv[i] == text.get() + from);
        FUZZ_CHECK(argv[i] == expected[i]);
        from += expected[i].size();
    }
    FUZZ_CHECK(text.bytes() == withoutSpace(text.original()));
    rm_freeMemory(argv, 0);
}
