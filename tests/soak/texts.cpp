// Text streams, strings and paths.
//
// Why: small calls that everything else is built on, compared with what one byte at a time gives.
#include "soak.h"
#include "tests/models/textstream_model.h"

#include "rm.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace soak
{
namespace
{
void startNothing() {}

// --- Streams

std::string anyLine()
{
    return plan.text(plan.once(12) ? 400 + plan.below(900) : plan.below(90));
}

std::string writeStream(const std::string& path)
{
    std::string text;
    FileStream* const stream = rm_fileStreamOpen(path.c_str(), "w");
    SOAK_CHECK(stream != nullptr, "%s cannot be opened", path.c_str());
    for (uint32_t lines = plan.below(25); lines > 0; --lines) {
        const std::string line = anyLine();
        const uint32_t length = rm_fileStreamPuts(stream, line.c_str());
        SOAK_CHECK(length == line.size(), "%u of %zu bytes were put", length, line.size());
        text += line + "\n";
    }
    rm_fileStreamClose(stream);
    SOAK_CHECK(slurp(path) == text, "what was put is not in the file");
    return text;
}

void readPieces(FileStream* stream, const std::string& text)
{
    rmtest::TextReaderModel model(text);
    char buffer[700];
    for (bool more = true; more;) {
        const auto size = static_cast<int32_t>(2 + plan.below(sizeof buffer - 2));
        const auto expected = model.gets(size);
        const char* const got = rm_fileStreamGets(stream, buffer, size);
        SOAK_CHECK((got != nullptr) == expected.found && (got == nullptr || expected.bytes == got),
                   "a piece of %d bytes is another one", size);
        more = got != nullptr;
    }
}

void readLines(FileStream* stream, const std::string& text)
{
    char* line = nullptr;
    uint32_t size = 0;
    std::size_t at = 0;
    while (rm_fileStreamGetLine(stream, &line, &size) != nullptr) {
        const std::size_t length = std::strlen(line);
        SOAK_CHECK(text.compare(at, length, line) == 0 && line[length - 1] == '\n',
                   "the line at %zu is another one", at);
        at += length;
    }
    SOAK_CHECK(at == text.size(), "%zu bytes of %zu were read", at, text.size());
    rm_zFreeMemory(static_cast<void*>(&line), 0);
}

void stepStreams()
{
    const std::string path = own("text");
    const std::string text = writeStream(path);
    FileStream* const stream = rm_fileStreamOpen(path.c_str(), "r");
    SOAK_CHECK(stream != nullptr, "%s cannot be read", path.c_str());
    if (plan.once(2)) {
        readPieces(stream, text);
    } else {
        readLines(stream, text);
    }
    rm_fileStreamClose(stream);
    SOAK_CHECK(rm_fileRemove(path.c_str()) == 0, "%s is not removed", path.c_str());
}

// --- Strings

char upper(char c)
{
    return static_cast<char>(c >= 'a' && c <= 'z' ? c - 32 : c);
}

std::string anyText()
{
    std::string text(plan.below(24), ' ');
    for (char& c : text) {
        constexpr char kBytes[] = "aAbB01 \t\xe4\xc4zZ";
        c = kBytes[plan.below(sizeof kBytes - 1)];
    }
    return text;
}

int sign(int value)
{
    return (value > 0) - (value < 0);
}

void compareTexts()
{
    const std::string a = anyText();
    const std::string b = plan.once(3) ? a : anyText();
    std::string upperA = a;
    std::string upperB = b;
    std::transform(a.begin(), a.end(), upperA.begin(), upper);
    std::transform(b.begin(), b.end(), upperB.begin(), upper);
    std::string copy = a;
    SOAK_CHECK(StrUpper(copy.data()) == copy.data() && copy == upperA, "upper case of \"%s\"",
               a.c_str());
    SOAK_CHECK(stricmp(a.c_str(), b.c_str()) == sign(upperA.compare(upperB)),
               "\"%s\" against \"%s\"", a.c_str(), b.c_str());
    const uint32_t n = plan.below(10);
    SOAK_CHECK(
        strnicmp(a.c_str(), b.c_str(), n) == sign(upperA.substr(0, n).compare(upperB.substr(0, n))),
        "%u bytes of \"%s\" against \"%s\"", n, a.c_str(), b.c_str());
    const bool digits = a.find_first_not_of("0123456789") == std::string::npos;
    SOAK_CHECK(AllDigits(a.c_str()) == (digits ? 1 : 0), "digits in \"%s\"", a.c_str());
    char buffer[12];
    const auto size = static_cast<int>(1 + plan.below(sizeof buffer));
    StrncpyZ(buffer, a.c_str(), size);
    SOAK_CHECK(a.substr(0, static_cast<std::size_t>(size) - 1) == buffer, "a copy of \"%s\"",
               a.c_str());
}

void splitAndJoin()
{
    std::vector<std::string> words(1 + plan.below(8));
    std::vector<const char*> pointers;
    std::string line;
    std::string joined;
    for (std::string& word : words) {
        word = plan.text(1 + plan.below(12));
        pointers.push_back(word.c_str());
        line += (plan.once(2) ? " " : " \t ") + word;
        joined += word;
    }
    int count = 0;
    char** argv = nullptr;
    SOAK_CHECK(StrToArgv(line.data(), &count, &argv, 0) == RM_SUCCESS &&
                   count == static_cast<int>(words.size()),
               "%d words and not %zu", count, words.size());
    for (std::size_t i = 0; i < words.size(); ++i) {
        SOAK_CHECK(words[i] == argv[i], "word %zu is \"%s\"", i, argv[i]);
    }
    rm_freeMemory(static_cast<void*>(argv), 0);
    char* const all = StrArrayCat(pointers.data(), static_cast<int16_t>(words.size()), 0);
    SOAK_CHECK(joined == all, "joined: \"%s\"", all);
    rm_freeMemory(all, 0);
    char buffer[40];
    const int16_t status =
        StrArrayCatBuf(pointers.data(), static_cast<uint16_t>(words.size()), buffer, sizeof buffer);
    SOAK_CHECK(status == (joined.size() < sizeof buffer ? 0 : -1) &&
                   joined.substr(0, sizeof buffer - 1) == buffer,
               "joined in a buffer: %d \"%s\"", status, buffer);
}

// Lines without their newlines; what does not fit is dropped.
void trimLines()
{
    std::string text;
    std::vector<std::string> lines(1 + plan.below(4));
    for (std::string& line : lines) {
        line = plan.text(plan.below(40));
        text += line + "\n";
    }
    std::FILE* const stream = fmemopen(text.data(), text.size(), "r");
    char buffer[24];
    for (const std::string& line : lines) {
        const char* const got = FgetsTrim(buffer, sizeof buffer, stream);
        SOAK_CHECK(got != nullptr && line.substr(0, sizeof buffer - 1) == got, "\"%s\" is \"%s\"",
                   line.c_str(), got == nullptr ? "nothing" : got);
    }
    SOAK_CHECK(FgetsTrim(buffer, sizeof buffer, stream) == nullptr, "a line behind the last one");
    static_cast<void>(std::fclose(stream));
}

void stepTexts()
{
    if (plan.once(8)) {
        trimLines();
    } else if (plan.once(2)) {
        compareTexts();
    } else {
        splitAndJoin();
    }
}

// --- Paths

void plainPath()
{
    const std::string directory = plan.text(plan.below(20)) + (plan.once(2) ? "/" : "");
    const std::string base = plan.text(1 + plan.below(12));
    const std::string extension = plan.text(1 + plan.below(4));
    std::string expected = directory;
    if (!directory.empty() && directory.back() != '/') {
        expected += '/';
    }
    expected += base + "." + extension;
    char* const made = makeAllocPath(directory.c_str(), base.c_str(), extension.c_str(), 0);
    SOAK_CHECK(expected == made, "\"%s\" and not \"%s\"", made, expected.c_str());
    SOAK_CHECK(expected.substr(expected.rfind('/') + 1) == pathBaseExt(made),
               "the last part of \"%s\" is \"%s\"", made, pathBaseExt(made));
    rm_freeMemory(made, 0);
    char buffer[24];
    const int16_t status =
        makePath(buffer, sizeof buffer, directory.c_str(), base.c_str(), extension.c_str());
    SOAK_CHECK(status == (expected.size() < sizeof buffer ? 0 : -1) &&
                   expected.substr(0, sizeof buffer - 1) == buffer,
               "in a buffer: %d \"%s\"", status, buffer);
}

// The values of the local environment are in upper case.
void cataloguePath()
{
    rm_putLocalEnv("CATPATH=/soak/data");
    char* const here = makeAllocPath("./x", "base", "dat", 0);
    char* const above = allocWithCatPath("../x");
    SOAK_CHECK(std::strcmp(here, "/SOAK/DATA/x/base.dat") == 0, "\"%s\"", here);
    SOAK_CHECK(std::strcmp(above, "/SOAK/x") == 0, "\"%s\"", above);
    rm_freeMemory(here, 0);
    rm_freeMemory(above, 0);
    rm_putLocalEnv("CATPATH");
    SOAK_CHECK(allocWithCatPath("./x") == nullptr, "without CATPATH there is a path");
}

void stepPaths()
{
    if (plan.once(8)) {
        cataloguePath();
    } else {
        plainPath();
    }
}
}  // namespace

const Family kStreams = {"text streams", 15, startNothing, stepStreams, nullptr, nullptr, false};
const Family kTexts = {"strings", 100, startNothing, stepTexts, nullptr, nullptr, false};
const Family kPaths = {"paths", 50, startNothing, stepPaths, nullptr, nullptr, false};

}  // namespace soak
