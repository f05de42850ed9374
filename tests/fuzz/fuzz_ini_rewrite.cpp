// Changes to an INI file of any bytes.
//
// Input: flags, section, 0, key, 0, value, 0, file.
#include "fuzz.h"
#include "ini_model.h"

#include "rm.h"

namespace
{
using rmfuzz::Buffer;
using rmfuzz::IniChange;
using rmfuzz::IniReader;
using rmfuzz::IniWriter;
using rmfuzz::MaybeText;
using rmfuzz::Text;

enum Flag : uint8_t {
    kNoKey = 1,
    kNoValue = 2,
};

const std::string& filePath()
{
    static const std::string path = rmfuzz::pathOf("settings.ini");
    return path;
}

bool holdsAnyOf(std::string_view text, std::string_view bytes)
{
    return text.find_first_of(bytes) != std::string_view::npos;
}

// True when the lines that the change writes are read as what they were meant for.
bool isPlain(const IniChange& change)
{
    return change.setsEntry() && !holdsAnyOf(change.section, "]\r\n") &&
           !holdsAnyOf(*change.key, "=\r\n") && !holdsAnyOf(*change.value, "\r\n") &&
           !holdsAnyOf(change.key->substr(0, 1), ";[ \t\v\f");
}

void apply(const IniChange& change)
{
    const Text section(change.section);
    const Text key(change.key.value_or(""));
    const Text value(change.value.value_or(""));
    const int16_t result =
        rm_iniSetPrivate(section.get(), change.key ? key.get() : nullptr,
                         change.value ? value.get() : nullptr, filePath().c_str());
    FUZZ_CHECK(result == RM_SUCCESS);
    FUZZ_CHECK(section.unchanged() && key.unchanged() && value.unchanged());
    FUZZ_CHECK(rmfuzz::directoryEntries() == std::vector<std::string>{"settings.ini"});
}

int16_t get(const MaybeText& section, const MaybeText& key, Buffer* buffer)
{
    const auto size = static_cast<int16_t>(buffer->size());
    const int16_t result = rm_iniGetPrivate(rmfuzz::orNull(section), rmfuzz::orNull(key),
                                            buffer->data(), size, 1, filePath().c_str());
    buffer->check();
    return result;
}

// Without the line ends that a copy adds where none was.
std::vector<std::string> linesOf(std::string_view file)
{
    std::vector<std::string> lines;
    while (!file.empty()) {
        lines.emplace_back(rmfuzz::upTo(file, "\n"));
        file.remove_prefix(std::min(lines.back().size() + 1, file.size()));
    }
    return lines;
}

// The first lines that both have, and the last ones.
std::size_t commonLines(const std::vector<std::string>& a, const std::vector<std::string>& b)
{
    const std::size_t most = std::min(a.size(), b.size());
    std::size_t head = 0;
    while (head < most && a[head] == b[head]) {
        ++head;
    }
    std::size_t tail = 0;
    while (head + tail < most && a[a.size() - 1 - tail] == b[b.size() - 1 - tail]) {
        ++tail;
    }
    return head + tail;
}

// A set adds an entry, replaces one, or makes a section of three lines: all others stay as they
// are.
void checkOtherLines(const IniChange& change, const std::string& before, const std::string& after)
{
    const std::vector<std::string> old = linesOf(before);
    const std::vector<std::string> now = linesOf(after);
    if (isPlain(change)) {
        FUZZ_CHECK(now.size() >= old.size() && now.size() <= old.size() + 3);
        FUZZ_CHECK(commonLines(old, now) + 1 >= old.size());
    } else if (!change.setsEntry()) {
        FUZZ_CHECK(now.size() <= old.size());
    }
}

// Where the rules say that what has been set is read.
void checkReadBack(const IniChange& change, const std::string& before, const std::string& after,
                   const IniWriter& writer)
{
    // Every list and value of the file fits.
    const auto roomy = std::min<int64_t>(static_cast<int64_t>(after.size()) + 3, INT16_MAX);
    Buffer buffer(roomy);
    Buffer sections(roomy);
    const std::vector<std::string> names = IniReader(after).sections();
    FUZZ_CHECK(get({}, {}, &sections) == (names.empty() ? RM_NOT_FOUND : RM_SUCCESS));
    const std::string list = rmfuzz::listed(names, roomy);
    FUZZ_CHECK(sections.contents().substr(0, list.size()) == list);
    if (!change.key) {
        return;
    }
    const MaybeText expected = IniReader(after).value(change.section, *change.key);
    FUZZ_CHECK(get(change.section, change.key, &buffer) == (expected ? RM_SUCCESS : RM_NOT_FOUND));
    FUZZ_CHECK(!expected || buffer.text() == *expected);
    // A section made by the change has nothing in it that could hide the entry. A zero in the file
    // ends it for who reads, and a carriage return may make two sections the same.
    if (isPlain(change) && writer.madeSection() &&
        !holdsAnyOf(before, std::string_view("\0\r", 2))) {
        FUZZ_CHECK(writer.wroteEntry() && expected == change.value);
    }
}
}  // namespace

void rmfuzz::fuzzInput(Input& input)
{
    const uint8_t flags = input.byte();
    const std::string section = input.text();
    const std::string key = input.text();
    const std::string value = input.text();
    const std::string before = input.rest();
    const IniChange change = {section, (flags & kNoKey) != 0 ? MaybeText() : MaybeText(key),
                              (flags & kNoValue) != 0 ? MaybeText() : MaybeText(value)};
    writeFile(filePath(), before);

    apply(change);
    const std::string after = readFile(filePath());
    IniWriter writer(change);
    FUZZ_CHECK(after == writer.rewrite(before));
    checkOtherLines(change, before, after);
    checkReadBack(change, before, after, writer);

    apply(change);
    const std::string again = readFile(filePath());
    FUZZ_CHECK(again == IniWriter(change).rewrite(after));
    FUZZ_CHECK(!isPlain(change) || again == after);
}
