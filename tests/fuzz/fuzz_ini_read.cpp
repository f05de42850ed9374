// Questions to an INI file of any bytes.
//
// Input: flags, size of the buffer (2 bytes), section, 0, key, 0, file.
#include "fuzz.h"
#include "ini_model.h"

#include "rm.h"

#include <cstdlib>

namespace
{
using rmfuzz::Buffer;
using rmfuzz::MaybeText;
using rmfuzz::Text;

enum Flag : uint8_t {
    kNoSection = 1,
    kNoKey = 2,
    kWithValues = 4,
    kDefaultFile = 8,  // asks through the call that builds the path itself
};

constexpr std::size_t kEntriesTried = 3;  // of a list

struct Question {
    MaybeText section;
    MaybeText key;
    bool withValues;
    bool ofDefaultFile;
};

// The name of the default file, so that both ways lead to it.
const std::string& filePath()
{
    static const std::string path = rmfuzz::pathOf("corvane.ini");
    return path;
}

// Bytes of a buffer into which every answer of the file fits.
int16_t roomyFor(const std::string& file)
{
    constexpr std::size_t kEndOfList = 2;
    return static_cast<int16_t>(std::min<std::size_t>(file.size() + kEndOfList + 1, INT16_MAX));
}

int16_t ask(const Question& question, Buffer* buffer, int16_t size)
{
    const Text section(question.section.value_or(""));
    const Text key(question.key.value_or(""));
    const char* sectionText = question.section ? section.get() : nullptr;
    const char* keyText = question.key ? key.get() : nullptr;
    const uint16_t withValues = question.withValues ? 1 : 0;
    const int16_t result = question.ofDefaultFile
                               ? rm_iniGet(sectionText, keyText, buffer->data(), size, withValues)
                               : rm_iniGetPrivate(sectionText, keyText, buffer->data(), size,
                                                  withValues, filePath().c_str());
    buffer->check();
    FUZZ_CHECK(section.unchanged() && key.unchanged());
    return result;
}

// The first bytes of the buffer are the list, the others are as they were.
void checkList(const std::vector<std::string>& entries, const Buffer& buffer, int16_t result)
{
    const auto size = static_cast<int64_t>(buffer.size());
    FUZZ_CHECK(result == (entries.empty() || size <= 1 ? RM_NOT_FOUND : RM_SUCCESS));
    const std::string expected = rmfuzz::listed(entries, size);
    FUZZ_CHECK(buffer.contents().substr(0, expected.size()) == expected);
    FUZZ_CHECK(buffer.untouched(expected.size()));
    FUZZ_CHECK(size == 0 || expected.size() <= buffer.size());
}

void checkValue(const MaybeText& value, const Buffer& buffer, int16_t result)
{
    FUZZ_CHECK(result == (value ? RM_SUCCESS : RM_NOT_FOUND));
    if (!value) {
        FUZZ_CHECK(buffer.untouched());
    } else if (buffer.size() > 0) {
        const std::string text = buffer.text();
        FUZZ_CHECK(value->starts_with(text));
        // Cut only where the buffer ends; whether its last byte serves is not looked at here.
        FUZZ_CHECK(text.size() == value->size() || text.size() + 2 >= buffer.size());
    }
}

void checkAnswer(const Question& question, const std::string& file, int16_t size)
{
    Buffer buffer(size);
    const int16_t result = ask(question, &buffer, size);
    rmfuzz::IniReader reader(file);
    if (!question.section) {
        checkList(reader.sections(), buffer, result);
    } else if (!question.key) {
        checkList(reader.entries(*question.section, question.withValues), buffer, result);
    } else {
        checkValue(reader.value(*question.section, *question.key), buffer, result);
    }
}

std::vector<std::string> listOf(const Question& question, int16_t roomy)
{
    Buffer buffer(roomy);
    std::vector<std::string> entries;
    if (ask(question, &buffer, roomy) == RM_SUCCESS) {
        const char* at = buffer.data();
        // An entry without a name looks like the end of the list.
        while (*at != '\0') {
            entries.emplace_back(at);
            at += entries.back().size() + 1;
        }
    }
    return entries;
}

// What the list of a section shows is there for who asks for it by name: the first of that name.
void checkListedEntries(const std::string& section, int16_t roomy)
{
    const std::vector<std::string> lines = listOf({section, {}, true, false}, roomy);
    const std::vector<std::string> keys = listOf({section, {}, false, false}, roomy);
    for (std::size_t i = 0; i < std::min(kEntriesTried, lines.size()); ++i) {
        const std::size_t equals = lines[i].find('=');
        if (equals == std::string::npos) {
            continue;
        }
        const std::string key = lines[i].substr(0, equals);
        FUZZ_CHECK(key.empty() || i >= keys.size() || keys[i] == key);
        const auto first = std::find_if(lines.begin(), lines.end(), [&key](const auto& line) {
            const std::size_t end = line.find('=');
            return end != std::string::npos && rmfuzz::sameName(line.substr(0, end), key);
        });
        Buffer buffer(roomy);
        FUZZ_CHECK(ask({section, key, false, false}, &buffer, roomy) == RM_SUCCESS);
        FUZZ_CHECK(buffer.text() == first->substr(first->find('=') + 1));
    }
}
}  // namespace

void rmfuzz::fuzzInput(Input& input)
{
    const uint8_t flags = input.byte();
    const int16_t size = input.int16();
    const std::string section = input.text();
    const std::string key = input.text();
    const std::string file = input.rest();
    writeFile(filePath(), file);

    const Question question = {(flags & kNoSection) != 0 ? MaybeText() : MaybeText(section),
                               (flags & kNoKey) != 0 ? MaybeText() : MaybeText(key),
                               (flags & kWithValues) != 0, (flags & kDefaultFile) != 0};
    static const bool catPathIsSet = setenv("CATPATH", directory().c_str(), 1) == 0;
    FUZZ_CHECK(catPathIsSet);
    checkAnswer(question, file, size);
    checkAnswer(question, file, roomyFor(file));
    checkListedEntries(section, roomyFor(file));
    FUZZ_CHECK(readFile(filePath()) == file);
}
