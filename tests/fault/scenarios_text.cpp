// Text streams, INI files, the local environment, text and path utilities.
#include "scenario.h"

#include "rm/rmutil/rmutil.h"

#include <cstdio>
#include <cstring>
#include <string_view>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace fault
{

namespace
{

// --- Streams

constexpr int kLines = 30;
char expected[4096];  // of the stream that is written
uint32_t expectedSize = 0;

void writeStream()
{
    FileStream* stream = RM_POINTER_OR_NULL(rm_fileStreamOpen, ("written", "w"));
    if (stream == nullptr) {
        return;
    }
    for (int i = 0; i < kLines; ++i) {
        char line[64];
        const int length = std::snprintf(line, sizeof(line), "line %d of a stream of lines", i);
        static_cast<void>(
            RM_STATUS(rm_fileStreamPuts, (stream, line), static_cast<uint32_t>(length)));
        std::memcpy(expected + expectedSize, line, static_cast<std::size_t>(length));
        expectedSize += static_cast<uint32_t>(length);
        expected[expectedSize++] = '\n';
    }
    RM(rm_fileStreamClose)(stream);
    expectWithoutFault(fileHolds("written", {expected, expectedSize}), "lines are missing");
}

void readStream()
{
    static char lines[4000];
    std::memset(lines, 'x', sizeof(lines));
    std::string_view("first\nsecond\n").copy(lines, sizeof(lines));
    lines[700] = '\n';
    lines[3999] = '\n';
    writeFile("read", {lines, sizeof(lines)});
    FileStream* stream = RM_POINTER_OR_NULL(rm_fileStreamOpen, ("read", "r"));
    if (stream == nullptr) {
        return;
    }
    char buffer[32];
    if (RM_POINTER_OR_NULL(rm_fileStreamGets, (stream, buffer, sizeof(buffer))) != nullptr) {
        expect(std::strncmp(buffer, "first\n", std::strlen(buffer)) == 0, "effect",
               "another line was read");
    }
    char* line = nullptr;
    uint32_t size = 0;
    for (int i = 0; i < 4; ++i) {
        const char* got = RM(rm_fileStreamGetLine)(stream, &line, &size);
        expectWithoutFault((got != nullptr) == (i < 3), "line %d is %s", i,
                           got == nullptr ? "missing" : "there");
        expect(got == nullptr || (std::strlen(got) < size && std::strlen(got) <= 3300), "effect",
               "a line of %zu bytes in %u", got == nullptr ? 0 : std::strlen(got), size);
    }
    RM(rm_freeMemory)(line, 0);
    RM(rm_fileStreamClose)(stream);
}

// --- INI files

constexpr const char* kOld =
    "; settings\n[one]\nkey=old\nother=kept\n\n[two]\nkey=second\n\n[three]\nkey=third\n";
constexpr const char* kNew =
    "; settings\n[one]\nkey=new\nother=kept\n\n[two]\nkey=second\n\n[three]\nkey=third\n";
constexpr const char* kNewer = "; settings\n[one]\nkey=new\nother=kept\n\n[three]\nkey=third\n";
constexpr const char* kCopy = "_temp_.ini";

// The file has one of its contents, whole; or it is gone, and then the copy has.
void verifyIni()
{
    const char* where = fileExists("s.ini") ? "s.ini" : kCopy;
    expect(fileHolds(where, kOld) || fileHolds(where, kNew) || fileHolds(where, kNewer), "unharmed",
           "the settings are damaged in %s", where);
}

void readIni()
{
    writeFile("s.ini", kOld);
    char text[64] = "untouched";
    if (RM_STATUS(rm_iniGetPrivate, ("one", "key", text, sizeof(text), 0, "s.ini"), 0,
                  RM_NOT_FOUND) == 0) {
        expect(std::strcmp(text, "old") == 0, "effect", "the value is %s", text);
    } else {
        expect(std::strcmp(text, "untouched") == 0, "effect", "the buffer was written");
    }
    if (RM_STATUS(rm_iniGetPrivate, ("one", nullptr, text, sizeof(text), 1, "s.ini"), 0,
                  RM_NOT_FOUND) == 0) {
        expect(std::memcmp(text, "key=old\0other=kept\0", 20) == 0, "effect", "another list");
    }
    if (RM_STATUS(rm_iniGetPrivate, (nullptr, nullptr, text, sizeof(text), 0, "s.ini"), 0,
                  RM_NOT_FOUND) == 0) {
        expect(std::memcmp(text, "one\0two\0three\0", 15) == 0, "effect", "another list");
    }
    expect(RM(rm_iniGetPrivate)("one", "none", text, sizeof(text), 0, "s.ini") == RM_NOT_FOUND,
           "status", "what is not there was found");
}

void writeIni()
{
    writeFile("s.ini", kOld);
    if (RM_STATUS(rm_iniSetPrivate, ("one", "key", "new", "s.ini"), 0, RM_CANNOT_OPEN,
                  RM_RENAME_FAILED) == 0) {
        expect(fileHolds("s.ini", kNew), "effect", "the value is not set");
        if (RM_STATUS(rm_iniSetPrivate, ("two", nullptr, nullptr, "s.ini"), 0, RM_CANNOT_OPEN,
                      RM_RENAME_FAILED) == 0) {
            expect(fileHolds("s.ini", kNewer), "effect", "the section is not deleted");
        }
    }
}

void useDefaultIni()
{
    writeFile("corvane.ini", "[ENVIRONMENT]\nNAME=old\n\n");
    writeFile("s.ini", kOld);
    static_cast<void>(RM_STATUS(rm_iniSet, ("ENVIRONMENT", "NAME", "value"), 0, RM_CANNOT_OPEN,
                                RM_RENAME_FAILED));
    char text[64] = "";
    static_cast<void>(
        RM_STATUS(rm_iniGet, ("ENVIRONMENT", "NAME", text, sizeof(text), 0), 0, RM_NOT_FOUND));
    if (!wasHit()) {
        expect(std::strcmp(text, "value") == 0, "effect", "the value is %s", text);
        const char* entry = RM_POINTER(rm_getLocalEnv, ("NAME"));
        expect(std::strcmp(entry, "VALUE") == 0, "effect", "the entry is %s", entry);
    }
}

int holder = -1;  // descriptor with the lock of the copy

// Another process rewrites a file of the directory, and takes too long.
void waitForTurn()
{
    constexpr int64_t kTurnMs = 14000;
    writeFile("s.ini", kOld);
    pauseFaults();
    holder = open(kCopy, O_WRONLY | O_CREAT, 0600);
    static_cast<void>(flock(holder, LOCK_EX));
    resumeFaults();
    const int64_t before = elapsedMs();
    const int16_t status = RM(rm_iniSetPrivate)("one", "key", "new", "s.ini");
    // Where locks cannot be asked for, all go on without.
    expect(status == RM_CANNOT_OPEN ||
               (wasHit() && (status == RM_SUCCESS || status == RM_RENAME_FAILED)),
           "status", "rm_iniSetPrivate gave %d", status);
    expectWithoutFault(elapsedMs() - before >= kTurnMs, "it was not waited for");
    char text[16];
    static_cast<void>(RM_STATUS(rm_iniGetPrivate, ("one", "key", text, sizeof(text), 0, "none.ini"),
                                RM_NOT_FOUND));
}

void verifyTurn()
{
    if (holder != -1) {
        close(holder);
        holder = -1;
        std::remove(kCopy);
    }
    verifyIni();
}

// Files that are not there, and nobody is about to make.
void useMissingIni()
{
    writeFile("s.ini", kOld);
    expect(RM(rm_iniSetPrivate)("one", "key", "new", "missing.ini") == RM_CANNOT_OPEN, "status",
           "a missing file was changed");
    char text[16];
    expect(RM(rm_iniGetPrivate)("one", "key", text, sizeof(text), 0, "missing.ini") == RM_NOT_FOUND,
           "status", "a missing file was read");
}

void setEnvironment()
{
    RM(rm_putLocalEnv)("Name=Value");
    RM(rm_putLocalEnv)("Second=2");
    RM(rm_putLocalEnv)("Name=Other");
    const char* value = RM_POINTER(rm_getLocalEnv, ("name"));
    expect(std::strcmp(value, "OTHER") == 0, "effect", "the entry is %s", value);
    const char* second = RM_POINTER(rm_getenv, ("SECOND"));
    expect(std::strcmp(second, "2") == 0, "effect", "the entry is %s", second);
    static_cast<void>(RM_POINTER_OR_NULL(rm_getenv, ("PATH")));
}

// --- Texts and paths

void useTexts()
{
    expect(RM(AllDigits)("0123") != 0, "effect", "digits are none");
    char text[32] = "One Two  three";
    expect(std::strcmp(RM(StrUpper)(text), "ONE TWO  THREE") == 0, "effect", "it is %s", text);
    expect(std::strcmp(RM(StrLower)(text), "one two  three") == 0, "effect", "it is %s", text);
    expect(RM(stricmp)(text, "ONE two  THREE") == 0, "effect", "they differ");
    expect(RM(strnicmp)(text, "ONE", 3) == 0, "effect", "they differ");
    int count = 0;
    char** words = nullptr;
    static_cast<void>(RM_STATUS(StrToArgv, (text, &count, &words, 0), 0));
    expect(count == 3 && std::strcmp(words[2], "three") == 0, "effect", "%d words", count);
    const char* parts[] = {"a", "b", "c"};
    const char* joined = RM_POINTER(StrArrayCat, (parts, 3, 0));
    expect(std::strcmp(joined, "abc") == 0, "effect", "joined as %s", joined);
    char buffer[16];
    static_cast<void>(RM_STATUS(StrArrayCatBuf, (parts, 3, buffer, sizeof(buffer)), 0));
    expect(std::strcmp(RM(StrncpyZ)(buffer, "longer than this", 5), "long") == 0, "effect",
           "it is %s", buffer);
}

void readLines()
{
    writeFile("lines", "short\nmuch longer than the buffer\nlast\n");
    pauseFaults();
    std::FILE* stream = std::fopen("lines", "r");
    resumeFaults();
    for (const char* line : {"short", "much lo", "last"}) {
        char buffer[8] = "";
        const char* got = RM_POINTER_OR_NULL(FgetsTrim, (buffer, sizeof(buffer), stream));
        if (got == nullptr) {
            expect(buffer[0] == '\0', "effect", "a text is in the buffer");
        } else if (!wasHit()) {
            expect(std::strcmp(buffer, line) == 0, "effect", "it is %s", buffer);
        }
    }
    pauseFaults();
    std::fclose(stream);
    resumeFaults();
}

void makePaths()
{
    RM(rm_putLocalEnv)("CATPATH=/DATA/BASE");
    expect(std::strcmp(RM(pathBaseExt)("/a/b.c"), "b.c") == 0, "effect", "another base");
    const char* parts[5];
    expect(RM(makePathInt)(parts, "dir", "base", "ext") == 5, "effect", "not five pieces");
    char* directory = RM_POINTER(allocWithCatPath, ("./sub"));
    expect(std::strcmp(directory, "/DATA/BASE/sub") == 0, "effect", "it is %s", directory);
    char* path = RM_POINTER(makeAllocPath, ("..", "base", "ext", 0));
    expect(std::strcmp(path, "/DATA/base.ext") == 0, "effect", "it is %s", path);
    char buffer[64];
    static_cast<void>(RM_STATUS(makePath, (buffer, sizeof(buffer), ".", "base", "ext"), 0));
    expect(std::strcmp(buffer, "/DATA/BASE/base.ext") == 0, "effect", "it is %s", buffer);
    RM(rm_freeMemory)(path, 0);
    RM(rm_freeMemory)(directory, 0);
}

constexpr Scenario kScenarios[] = {
    {"stream-writing", writeStream, nullptr, Hosts::kFew, false},
    {"stream-reading", readStream, nullptr, Hosts::kFew, false},
    {"ini-reading", readIni, verifyIni, Hosts::kFew, false},
    {"ini-writing", writeIni, verifyIni, Hosts::kFew, false},
    {"ini-without-input", writeIni, verifyIni, Hosts::kFew, false, true},
    {"ini-default", useDefaultIni, nullptr, Hosts::kFew, false},
    {"ini-turn", waitForTurn, verifyTurn, Hosts::kFew, false},
    {"ini-missing", useMissingIni, verifyIni, Hosts::kFew, false},
    {"environment", setEnvironment, nullptr, Hosts::kFew, false},
    {"texts", useTexts, nullptr, Hosts::kFew, false},
    {"lines", readLines, nullptr, Hosts::kFew, false},
    {"make-paths", makePaths, nullptr, Hosts::kFew, false},
};

}  // namespace

std::span<const Scenario> textScenarios()
{
    return kScenarios;
}

}  // namespace fault
