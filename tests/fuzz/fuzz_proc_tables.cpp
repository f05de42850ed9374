// What the system tells of processes and objects, as rmipc reads it: processes choose their names,
// and the tables have changed over the years.
//
// Input: the text, which is read as each of the kinds.
#include "fuzz.h"
#include "tools/rmipc/procfs.h"

#include <algorithm>

namespace
{
using namespace rmipc;

// What was read says itself, when it is written down in the usual form, once more.
void checkStat(std::string_view text)
{
    const auto stat = parseStat(text);
    if (!stat) {
        return;
    }
    FUZZ_CHECK(text.find("(" + stat->name + ")") != std::string_view::npos);
    const std::string usual = "1 (" + stat->name + ") " + stat->state +
                              " 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 " +
                              std::to_string(stat->threads) + " 18 " + std::to_string(stat->start);
    const auto again = parseStat(usual);
    FUZZ_CHECK(again && again->name == stat->name && again->state == stat->state &&
               again->threads == stat->threads && again->start == stat->start);
}

void checkMappings(std::string_view text)
{
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
        const auto mapping = parseMapping(line);
        if (!mapping) {
            continue;
        }
        FUZZ_CHECK(mapping->id >= 0 && line.find("/SYSV") != std::string_view::npos);
        char key[16];
        std::snprintf(key, sizeof(key), "%08x", static_cast<unsigned>(mapping->key));
        const auto again = parseMapping("0-1 rw-s 0 00:01 " + std::to_string(mapping->id) +
                                        " /SYSV" + key + " (deleted)");
        FUZZ_CHECK(again && again->id == mapping->id && again->key == mapping->key);
    }
}

void checkTable(const std::string& text)
{
    const Table table{text};
    const std::vector<std::string_view> words = wordsOf(text);
    FUZZ_CHECK(table.rows() <= words.size());
    FUZZ_CHECK(!table.isSound() || std::ranges::find(words, "key") != words.end());
    for (std::size_t row = 0; row < table.rows() + 1; ++row) {
        for (const std::string_view column : {"key", "shmid", "nsems", "no such column"}) {
            const auto value = table.at<int64_t>(row, column);
            const auto small = table.at<int32_t>(row, column);
            const auto positive = table.at<uint64_t>(row, column);
            FUZZ_CHECK(!value || row < table.rows());
            FUZZ_CHECK(!small || value == *small);
            FUZZ_CHECK(!value || *value <= 0 || positive == static_cast<uint64_t>(*value));
            FUZZ_CHECK(!value || std::ranges::find(words, column) != words.end());
        }
    }
}
}  // namespace

void rmfuzz::fuzzInput(Input& input)
{
    const std::string text = input.rest();
    checkStat(text);
    checkMappings(text);
    checkTable(text);
}
