// Descriptors and managed files. What the files hold is followed by the counts that the calls give:
// whatever fails, no byte may be elsewhere, and none that was written before may be lost.
#include "scenario.h"

#include "rm/file/file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <unistd.h>

namespace fault
{

namespace
{

constexpr uint32_t kReadWrite = RM_O_RDWR | RM_O_CREAT;
constexpr const char* kDigits = "0123456789";
constexpr uint32_t kDigitCount = 10;
constexpr int16_t kFewHandles = 4;

constexpr const char* kNames[] = {"f0", "f1", "f2", "f3", "f4", "f5", "f6"};
constexpr std::size_t kFiles = sizeof(kNames) / sizeof(kNames[0]);
Model models[kFiles];

// A file that says ESPIPE is a device without offsets: where its bytes go is its own matter.
bool isDevice()
{
    return wasHit("lseek", ESPIPE);
}

void verifyModels()
{
    for (std::size_t i = 0; i < kFiles && !isDevice(); ++i) {
        if (fileExists(kNames[i])) {
            expect(fileIsModel(kNames[i], models[i]), "unharmed",
                   "%s does not hold what was written", kNames[i]);
        } else {
            expect(models[i].size == 0, "unharmed", "%s is gone", kNames[i]);
        }
    }
}

// A file with ten digits in it.
void prepare(std::size_t number)
{
    writeFile(kNames[number], kDigits);
    models[number].put(0, kDigits, kDigitCount);
}

bool isPartOf(const Model& model, uint32_t offset, const char* bytes, uint32_t count)
{
    return isDevice() ||
           (offset + count <= model.size && std::memcmp(model.bytes + offset, bytes, count) == 0);
}

// --- Descriptors

void moveDescriptor(int32_t fd, int32_t offset, uint32_t* position)
{
    uint32_t reached = 0;
    if (RM_STATUS(rm_flSeek, (fd, offset, 0, &reached), 0, -1) == 0) {
        expect(reached == static_cast<uint32_t>(offset), "effect", "the descriptor is at %u",
               reached);
        *position = reached;
    }
}

uint32_t placeOf(int32_t fd)
{
    pauseFaults();
    const off_t place = lseek(fd, 0, SEEK_CUR);
    resumeFaults();
    return static_cast<uint32_t>(place);
}

void useDescriptors()
{
    int32_t fd = -1;
    prepare(0);
    if (RM_ERRNO(rm_flOpen, (kNames[0], kReadWrite, 0, 0600, &fd)) != 0) {
        return;
    }
    uint32_t position = 0;
    moveDescriptor(fd, 4, &position);
    const int32_t written = RM(rm_flWrite)(fd, "abcdefgh", 8);
    expect(written >= 0 && written <= 8, "status", "rm_flWrite gave %d", written);
    expectWithoutFault(written == 8, "rm_flWrite gave %d", written);
    models[0].put(position, "abcdefgh", static_cast<uint32_t>(written));
    position += static_cast<uint32_t>(written);
    moveDescriptor(fd, 0, &position);
    char bytes[16];
    int32_t count = 0;
    const int16_t status = RM_ERRNO(rm_flRead, (fd, bytes, 8, &count));
    expect(status != 0 ||
               (count >= 0 && isPartOf(models[0], position, bytes, static_cast<uint32_t>(count))),
           "effect", "other bytes were read");
    moveDescriptor(fd, 5, &position);
    position = placeOf(fd);
    uint32_t size = 0;
    if (RM_STATUS(rm_flSize, (fd, &size), 0, -1) == 0) {
        expect(size == models[0].size, "effect", "a size of %u for %u", size, models[0].size);
        // The size is known also where the way back is refused.
        expectWithoutFault(placeOf(fd) == position, "the descriptor stands at %u, not at %u",
                           placeOf(fd), position);
    }
    if (RM_STATUS(rm_flSetSize, (fd, 1500), 0, -1) == 0) {
        expectWithoutFault(placeOf(fd) == 0, "the descriptor stands at %u, not at 0", placeOf(fd));
        uint32_t extended = 0;
        if (RM_STATUS(rm_flSize, (fd, &extended), 0, -1) == 0) {
            expect(extended == 1500, "effect", "extended to %u", extended);
        }
    }
    static_cast<void>(RM_STATUS(rm_flSetWriteThrough, (fd), 0));
    static_cast<void>(RM_STATUS(rm_flSync, (fd), 0));
    static_cast<void>(RM_STATUS(rm_flClose, (fd), 0, -1));
}

void usePaths()
{
    writeFile("old", "bytes");
    static_cast<void>(RM_STATUS(rm_fileValidate, ("old"), 0, -1));
    if (RM_STATUS(rm_flRename, ("old", "new"), 0, -1) == 0) {
        expect(!fileExists("old") && fileHolds("new", "bytes"), "effect", "it was not renamed");
        if (RM_STATUS(rm_flRemove, ("new"), 0, -1) == 0) {
            expect(!fileExists("new"), "effect", "it was not removed");
        } else {
            expect(fileHolds("new", "bytes"), "unharmed", "it was removed all the same");
        }
    } else {
        expect(fileHolds("old", "bytes"), "unharmed", "it was renamed all the same");
    }
    const double space = RM(rm_flGetDiskFreeSpace)(".");
    expect(space >= 0.0 || (wasHit() && space == -1.0), "status", "free space of %f", space);
    char* name = RM_POINTER(rm_flTempName, ());
    expect(!fileExists(name), "effect", "%s is there", name);
    RM(rm_freeMemory)(name, 0);
}

// --- Managed files

void append(int16_t handle, std::size_t file, uint32_t* position, const char* text)
{
    const auto length = static_cast<uint32_t>(std::strlen(text));
    const uint32_t count = RM(rm_fileWrite)(handle, text, length);
    expect(count <= length, "status", "rm_fileWrite gave %u", count);
    expectWithoutFault(count == length, "rm_fileWrite gave %u", count);
    models[file].put(*position, text, count);
    *position += count;
}

void writeAt(int16_t handle, std::size_t file, uint32_t offset, const char* text)
{
    const auto length = static_cast<uint32_t>(std::strlen(text));
    const uint32_t count = RM(rm_fileSeekWrite)(handle, offset, text, length);
    expect(count <= length, "status", "rm_fileSeekWrite gave %u", count);
    expectWithoutFault(count == length, "rm_fileSeekWrite gave %u", count);
    models[file].put(offset, text, count);
}

void readAt(int16_t handle, std::size_t file, uint32_t offset, uint32_t length)
{
    char bytes[64];
    const uint32_t count = RM(rm_fileSeekRead)(handle, offset, bytes, length);
    expect(count <= length && isPartOf(models[file], offset, bytes, count), "effect",
           "%u other bytes were read", count);
    expectWithoutFault(count == length, "rm_fileSeekRead gave %u", count);
}

void print(int16_t handle, std::size_t file, uint32_t* position, int number)
{
    char text[32];
    const auto length = static_cast<uint32_t>(std::snprintf(text, sizeof(text), "<%d>\n", number));
    const uint16_t count = RM(rm_filePrintf)(handle, "<%d>\n", number);
    expect(count == length || count == 0, "status", "rm_filePrintf gave %u", count);
    expectWithoutFault(count == length, "rm_filePrintf gave %u", count);
    models[file].put(*position, text, count);
    *position += count;
}

void close(int16_t handle)
{
    RM(rm_fileClose)(handle);
    expect(file::usedEntry(handle) == nullptr, "effect", "handle %d is still in use", handle);
}

void useFiles()
{
    prepare(0);
    static_cast<void>(RM_STATUS(rm_fileSetWriteThrough, (), 0));
    RM(rm_fileHandleLimit)(40);
    const int16_t handle = RM_HANDLE(rm_fileOpen, (kNames[0], kReadWrite, 0, 0, 0));
    if (handle < 0) {
        return;
    }
    uint32_t position = RM(rm_fileSeek)(handle, kDigitCount);
    expect(position == kDigitCount || (wasHit() && position == UINT32_MAX), "status",
           "rm_fileSeek gave %u", position);
    position = RM(rm_filePosition)(handle);
    append(handle, 0, &position, "more of it");
    append(handle, 0, &position, ", and the end");
    readAt(handle, 0, 2, 5);
    writeAt(handle, 0, 3, "---");
    static_cast<void>(RM(rm_fileSeek)(handle, 0));
    position = RM(rm_filePosition)(handle);
    char bytes[8];
    const uint32_t count = RM(rm_fileRead)(handle, bytes, sizeof(bytes));
    expect(isPartOf(models[0], position, bytes, count), "effect", "other bytes were read");
    const uint32_t length = RM(rm_fileLength)(handle);
    expect(length == models[0].size || (wasHit() && length == 0), "effect", "a length of %u",
           length);
    static_cast<void>(RM_STATUS(rm_fileSync, (handle), 0));
    expect(RM(rm_fileRemove)(kNames[0]) == -1, "effect", "a file in use was removed");
    uint32_t open = 0;
    RM(rm_fileCounts)(&open, nullptr, nullptr, nullptr);
    expect(open >= 1, "effect", "no file counts as open");
    close(handle);
}

// More files than descriptors: each operation parks one and opens another again.
void parkFiles()
{
    fileHandleLimit = kFewHandles;
    int16_t handles[kFiles];
    uint32_t positions[kFiles] = {};
    for (std::size_t i = 0; i < kFiles; ++i) {
        const uint16_t mode = i % 3 == 1 ? FILE_STREAM : 0;
        if (mode == 0) {
            prepare(i);
        }
        handles[i] = RM_HANDLE(rm_fileOpen, (kNames[i], kReadWrite, mode, 0, 0));
    }
    for (std::size_t i = 0; i < kFiles; ++i) {
        // A handle that has vanished with a failure is another's by number only.
        if (file::usedEntry(handles[i]) == nullptr) {
            continue;
        }
        if (i % 3 == 1) {
            print(handles[i], i, &positions[i], 5);
        } else if (i % 3 == 0) {
            append(handles[i], i, &positions[i], "ab");
        } else {
            readAt(handles[i], i, 1, 3);
        }
    }
    uint32_t parked = 0;
    RM(rm_fileCounts)(nullptr, &parked, nullptr, nullptr);
    expectWithoutFault(parked >= 3, "only %u files are parked", parked);
    for (const int16_t handle : handles) {
        if (file::usedEntry(handle) != nullptr) {
            close(handle);
        }
    }
}

// A log file that is parked between its lines.
void parkLog()
{
    fileHandleLimit = kFewHandles;
    for (std::size_t i = 0; i < kFiles - 1; ++i) {
        RM_HANDLE(rm_fileOpen, (kNames[i], kReadWrite, 0, 0, 0));
        RM(rm_systemLogWrite)("file %zu", i);
    }
}

void growFiles()
{
    rmDiskFull = 0;
    prepare(0);
    const int16_t handle = RM_HANDLE(rm_fileOpen, (kNames[0], kReadWrite, 0, 0, 1000));
    const int16_t large = RM_HANDLE(rm_fileOpen, (kNames[1], kReadWrite, 0, 1300, 0));
    if (handle >= 0) {
        writeAt(handle, 0, kDigitCount, "appended");
        rminfree = 1e18;
        writeAt(handle, 0, 1200, "far behind");
        expectWithoutFault(rmDiskFull == 1, "the disk does not count as full");
    }
    if (large >= 0) {
        const uint32_t length = RM(rm_fileLength)(large);
        expectWithoutFault(length == 1300, "the file has %u bytes", length);
    }
}

void useFatalMode()
{
    prepare(0);
    const int16_t handle = RM(rm_fileOpen)(kNames[0], kReadWrite, FILE_FATAL, 0, 0);
    expect(handle >= 0, "status", "an open in fatal mode gave %d", handle);
    uint32_t position = 0;
    append(handle, 0, &position, "xyz");
    writeAt(handle, 0, 5, "##");
    char bytes[4];
    static_cast<void>(RM(rm_fileRead)(handle, bytes, sizeof(bytes)));
    readAt(handle, 0, 0, 4);
    const int16_t printed = RM(rm_fileOpen)(kNames[1], kReadWrite, FILE_FATAL | FILE_STREAM, 0, 0);
    expect(printed >= 0, "status", "an open in fatal mode gave %d", printed);
    uint32_t end = 0;
    print(printed, 1, &end, 1);
    close(printed);
}

void usePathsOfFiles()
{
    writeFile("old", "bytes");
    if (RM_STATUS(rm_fileRename, ("old", "new"), 0, -1) == 0) {
        expect(fileHolds("new", "bytes"), "effect", "it was not renamed");
        if (RM_STATUS(rm_fileRemove, ("new"), 0, -1) == 0) {
            expect(!fileExists("new"), "effect", "it was not removed");
        }
    } else {
        expect(fileHolds("old", "bytes"), "unharmed", "it was renamed all the same");
    }
    char* name = RM_POINTER(rm_fileTempName, (nullptr));
    expect(!fileExists(name), "effect", "%s is there", name);
    RM(rm_freeMemory)(name, 0);
}

// --- Copy and move

constexpr uint32_t kCopied = 9000;
char pattern[kCopied + 1];

void makeSources()
{
    for (uint32_t i = 0; i < kCopied; ++i) {
        pattern[i] = static_cast<char>('a' + i % 23);
    }
    writeFile("source", {pattern, kCopied});
    writeFile("moved", {pattern, kCopied});
    writeFile("kept", "a file that stays open");
}

void copyFiles()
{
    makeSources();
    // So that no copy meets handle 0.
    if (RM_HANDLE(rm_fileOpen, ("kept", RM_O_RDONLY, 0, 0, 0)) != 0) {
        return;
    }
    const int32_t copied = RM_STATUS(rm_fileCopy, ("source", "copy"), 0, RM_COPY_FAILED);
    expectWithoutFault(copied != 0 || fileHolds("copy", {pattern, kCopied}), "the copy differs");
}

// No byte is lost: it is where it was, or where it was to go.
void verifyCopies()
{
    const std::string_view whole = {pattern, kCopied};
    expect(pattern[0] == '\0' || fileHolds("source", whole), "unharmed", "the source has changed");
    expect(pattern[0] == '\0' || fileHolds("moved", whole) || fileHolds("target", whole),
           "unharmed", "what was moved is lost");
}

void moveFiles()
{
    makeSources();
    if (RM_HANDLE(rm_fileOpen, ("kept", RM_O_RDONLY, 0, 0, 0)) != 0) {
        return;
    }
    if (RM_STATUS(rm_fileMove, ("moved", "target"), 0, RM_COPY_FAILED) == 0) {
        expect(fileHolds("target", {pattern, kCopied}), "effect", "it did not arrive");
    }
}

// Where renaming is never possible, a move copies: the target is on another disk then.
void moveFar()
{
    makeSources();
    if (RM_HANDLE(rm_fileOpen, ("kept", RM_O_RDONLY, 0, 0, 0)) != 0) {
        return;
    }
    refuseRenames();
    if (RM_STATUS(rm_fileMove, ("moved", "target"), 0, RM_COPY_FAILED) == 0) {
        expect(fileHolds("target", {pattern, kCopied}), "effect", "it did not arrive");
    }
}

constexpr Scenario kScenarios[] = {
    {"descriptors", useDescriptors, verifyModels, Hosts::kSome, false},
    {"paths", usePaths, nullptr, Hosts::kSome, false},
    {"files", useFiles, verifyModels, Hosts::kSome, false},
    {"files-without-input", useFiles, verifyModels, Hosts::kFew, false, true},
    {"parking", parkFiles, verifyModels, Hosts::kFew, false},
    {"parked-log", parkLog, nullptr, Hosts::kFew, false},
    {"growth", growFiles, verifyModels, Hosts::kSome, false},
    {"fatal-mode", useFatalMode, verifyModels, Hosts::kSome, false},
    {"paths-of-files", usePathsOfFiles, nullptr, Hosts::kFew, false},
    {"copy", copyFiles, verifyCopies, Hosts::kFew, false},
    {"move", moveFiles, verifyCopies, Hosts::kFew, false},
    {"move-far", moveFar, verifyCopies, Hosts::kFew, false},
};

}  // namespace

std::span<const Scenario> fileScenarios()
{
    return kScenarios;
}

}  // namespace fault
