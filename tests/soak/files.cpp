// Managed files of the worker's own: more than it may have descriptors for.
//
// Why: a handle stays good while the descriptor behind it comes and goes, and every byte is where
// it was written, whatever was parked in between. The model of a file is a string, and where its
// handle stands. Growth makes a file longer than what was written, by zeros.
//
// Lifecycle: a worker begins with an empty directory but for the diary. What a dead one has left
// there is nobody's.
#include "soak.h"

#include "rm.h"

#include <algorithm>
#include <cstring>
#include <filesystem>

namespace soak
{
namespace
{
constexpr uint32_t kMostFiles = 14;
constexpr uint32_t kMostSize = 60'000;

struct File {
    std::string path;
    std::string data;  // what was written, up to the last byte that was
    uint32_t growIncrement = 0;
    uint32_t position = 0;
    uint32_t written = 0;  // the largest size that growth can have made of it
    int16_t handle = RM_NONE;
    bool exists = false;
};

std::vector<File> files;
uint32_t names = 0;

std::string newName()
{
    return own("f" + std::to_string(++names));
}

void open(File& file)
{
    constexpr uint32_t kIncrements[] = {0, 512, 1000, 4096};
    uint32_t flags = RM_O_RDWR | RM_O_CREAT;
    if (file.exists && plan.once(6)) {
        flags |= RM_O_TRUNC;
        file.data.clear();
        file.written = 0;
    }
    file.growIncrement = kIncrements[plan.below(4)];
    const uint32_t initial = plan.once(4) ? plan.below(5000) : 0;
    file.handle = rm_fileOpen(file.path.c_str(), flags, plan.once(10) ? FILE_FATAL : 0, initial,
                              file.growIncrement);
    SOAK_CHECK(file.handle > 0, "%s cannot be opened", file.path.c_str());
    file.written = std::max(file.written, initial);
    file.position = 0;
    file.exists = true;
}

void close(File& file)
{
    rm_fileClose(file.handle);
    file.handle = RM_NONE;
}

void writeAt(File& file, uint32_t offset, const std::string& bytes)
{
    const auto end = static_cast<uint32_t>(offset + bytes.size());
    if (file.data.size() < end) {
        file.data.resize(end, '\0');
    }
    bytes.copy(file.data.data() + offset, bytes.size());
    file.position = end;
}

std::string someBytes()
{
    std::string bytes(1 + plan.below(plan.once(10) ? 9000 : 400), ' ');
    fill(bytes.data(), bytes.size(), plan.next());
    return bytes;
}

void seekWrite(File& file)
{
    const std::string bytes = someBytes();
    const auto size = static_cast<uint32_t>(bytes.size());
    const uint32_t offset =
        plan.once(3) ? static_cast<uint32_t>(file.data.size()) % kMostSize : plan.below(kMostSize);
    const uint32_t count = rm_fileSeekWrite(file.handle, offset, bytes.data(), size);
    SOAK_CHECK(count == size, "%u of %u bytes were written at %u", count, size, offset);
    writeAt(file, offset, bytes);
    const uint32_t step = std::max<uint32_t>(file.growIncrement, 1);
    file.written = std::max(file.written, (offset + size + step) / step * step);
}

void write(File& file)
{
    const std::string bytes = someBytes();
    if (file.position > kMostSize) {
        return;
    }
    const auto size = static_cast<uint32_t>(bytes.size());
    const uint32_t count = rm_fileWrite(file.handle, bytes.data(), size);
    SOAK_CHECK(count == size, "%u of %u bytes were written", count, size);
    writeAt(file, file.position, bytes);
}

// What growth has added is zeros.
void compare(const File& file, uint32_t offset, const std::string& got)
{
    for (std::size_t i = 0; i < got.size(); ++i) {
        const std::size_t at = offset + i;
        const char expected = at < file.data.size() ? file.data[at] : '\0';
        SOAK_CHECK(got[i] == expected, "%s: byte %zu of %zu is %d and not %d", file.path.c_str(),
                   at, file.data.size(), got[i], expected);
    }
}

void read(File& file, bool seeks)
{
    std::string bytes(1 + plan.below(plan.once(10) ? 9000 : 400), ' ');
    const auto size = static_cast<uint32_t>(bytes.size());
    const uint32_t length = rm_fileLength(file.handle);
    SOAK_CHECK(length >= file.data.size() &&
                   length <= std::max<std::size_t>(file.data.size(), file.written),
               "%s is %u bytes long: %zu were written, growth makes it %u", file.path.c_str(),
               length, file.data.size(), file.written);
    const uint32_t offset = seeks ? plan.below(kMostSize) : file.position;
    const uint32_t count = seeks ? rm_fileSeekRead(file.handle, offset, bytes.data(), size)
                                 : rm_fileRead(file.handle, bytes.data(), size);
    const uint32_t there = offset < length ? std::min(size, length - offset) : 0;
    SOAK_CHECK(count == there, "%s: %u bytes were read at %u of %u, and not %u", file.path.c_str(),
               count, offset, length, there);
    bytes.resize(count);
    compare(file, offset, bytes);
    file.position = offset + count;
}

void askPosition(File& file)
{
    if (plan.once(2)) {
        const uint32_t offset = plan.below(kMostSize);
        SOAK_CHECK(rm_fileSeek(file.handle, offset) == offset, "a seek to %u", offset);
        file.position = offset;
    }
    const uint32_t position = rm_filePosition(file.handle);
    SOAK_CHECK(position == file.position, "%s stands at %u and not %u", file.path.c_str(), position,
               file.position);
    SOAK_CHECK(rm_fileSync(file.handle) == 0, "a sync");
}

// Of a file that is closed.
void renameOrRemove(File& file)
{
    if (!file.exists) {
        return;
    }
    if (plan.once(2)) {
        const std::string name = newName();
        const int16_t status = plan.once(2) ? rm_fileRename(file.path.c_str(), name.c_str())
                                            : rm_fileMove(file.path.c_str(), name.c_str());
        SOAK_CHECK(status == 0, "%s cannot become %s: %d", file.path.c_str(), name.c_str(), status);
        SOAK_CHECK(rm_fileValidate(file.path.c_str()) != 0, "%s is still there", file.path.c_str());
        file.path = name;
        return;
    }
    SOAK_CHECK(rm_fileRemove(file.path.c_str()) == 0, "%s is not removed", file.path.c_str());
    SOAK_CHECK(rm_fileValidate(file.path.c_str()) != 0, "%s is still there", file.path.c_str());
    file = File();
    file.path = newName();
}

void stepClosed(File& file)
{
    if (plan.once(3)) {
        renameOrRemove(file);
    } else {
        open(file);
    }
}

void startFiles()
{
    for (const auto& entry : std::filesystem::directory_iterator(own(""))) {
        if (entry.path().filename() != "diary" && entry.path().filename() != "anchor") {
            std::filesystem::remove_all(entry.path());
        }
    }
    names = 0;
    files.assign(kMostFiles, File());
    for (File& file : files) {
        file.path = newName();
        open(file);
    }
}

void stepFiles()
{
    File& file = files[plan.below(kMostFiles)];
    if (file.handle == RM_NONE) {
        stepClosed(file);
        return;
    }
    switch (plan.below(16)) {
        case 0:
            close(file);
            break;
        case 1:
            SOAK_CHECK(rm_fileRemove(file.path.c_str()) == -1, "%s is open and can be removed",
                       file.path.c_str());
            break;
        case 2:
            askPosition(file);
            break;
        case 3:
        case 4:
            write(file);
            break;
        case 5:
        case 6:
            read(file, false);
            break;
        case 7:
        case 8:
        case 9:
        case 10:
            seekWrite(file);
            break;
        default:
            read(file, true);
    }
}

void checkFiles()
{
    File& file = files[plan.below(kMostFiles)];
    if (file.exists) {
        const std::string whole = slurp(file.path);
        SOAK_CHECK(whole.size() >= file.data.size(), "%s has lost %zu bytes", file.path.c_str(),
                   file.data.size() - whole.size());
        compare(file, 0, whole);
    }
}

void endFiles()
{
    for (File& file : files) {
        if (file.exists) {
            compare(file, 0, slurp(file.path));
        }
        if (file.handle != RM_NONE) {
            close(file);
        }
        if (file.exists) {
            SOAK_CHECK(rm_fileRemove(file.path.c_str()) == 0, "%s is not removed at the end",
                       file.path.c_str());
        }
    }
    files.clear();
}

// --- Copies, and files of text

void copy()
{
    const File& file = files[plan.below(kMostFiles)];
    if (!file.exists) {
        return;
    }
    const std::string copy = own("copy");
    const std::string moved = own("moved");
    const int32_t status = rm_fileCopy(file.path.c_str(), copy.c_str());
    SOAK_CHECK(status == RM_SUCCESS, "a copy of %s: %d", file.path.c_str(), status);
    SOAK_CHECK(slurp(copy) == slurp(file.path), "a copy is not as %s", file.path.c_str());
    SOAK_CHECK(rm_fileMove(copy.c_str(), moved.c_str()) == RM_SUCCESS, "a copy cannot be moved");
    compare(file, 0, slurp(moved));
    SOAK_CHECK(rm_fileRemove(moved.c_str()) == 0, "a copy is not removed");
}

// Lines written with a format, while others push the file out of its descriptor.
void printed()
{
    const std::string path = own("printed");
    const int16_t handle =
        rm_fileOpen(path.c_str(), RM_O_WRONLY | RM_O_CREAT | RM_O_TRUNC, FILE_STREAM, 0, 0);
    SOAK_CHECK(handle > 0, "%s cannot be opened", path.c_str());
    std::string expected;
    for (uint32_t i = 0, lines = plan.below(12); i < lines; ++i) {
        const std::string line = std::to_string(i) + " " + plan.text(plan.below(80)) + "\n";
        const uint16_t count = rm_filePrintf(handle, "%u %s", i, line.c_str() + line.find(' ') + 1);
        SOAK_CHECK(count == line.size(), "%u of %zu bytes were printed", count, line.size());
        expected += line;
        stepFiles();
    }
    rm_fileClose(handle);
    SOAK_CHECK(slurp(path) == expected, "what was printed is not in the file");
    SOAK_CHECK(rm_fileRemove(path.c_str()) == 0, "%s is not removed", path.c_str());
}

// The calls below the managed files.
void descriptors()
{
    char* const name = rm_fileTempName(nullptr);
    SOAK_CHECK(rm_fileValidate(name) != 0, "the temporary name %s is in use", name);
    rm_freeMemory(name, 0);
    const std::string path = own("raw");
    const std::string bytes = someBytes();
    const auto size = static_cast<int32_t>(bytes.size());
    int32_t fd = -1;
    SOAK_CHECK(rm_flOpen(path.c_str(), RM_O_RDWR | RM_O_CREAT | RM_O_EXCL, 0, 0600, &fd) == 0,
               "%s cannot be opened", path.c_str());
    SOAK_CHECK(rm_flWrite(fd, bytes.data(), size) == size, "a write");
    SOAK_CHECK(rm_flSetSize(fd, static_cast<uint32_t>(size) + 700) == 0, "a size");
    uint32_t length = 0;
    uint32_t position = 0;
    SOAK_CHECK(rm_flSize(fd, &length) == 0 && length == static_cast<uint32_t>(size) + 700,
               "%u bytes and not %d", length, size + 700);
    SOAK_CHECK(rm_flSeek(fd, -700 - size, 2, &position) == 0 && position == 0, "a seek");
    std::string got(bytes.size(), ' ');
    int32_t count = 0;
    SOAK_CHECK(rm_flRead(fd, got.data(), size, &count) == 0 && count == size && got == bytes,
               "a read of %d bytes", size);
    SOAK_CHECK(rm_flSync(fd) == 0 && rm_flClose(fd) == 0 && rm_flRemove(path.c_str()) == 0,
               "an end");
}

void startCopies() {}

void stepCopies()
{
    switch (plan.below(3)) {
        case 0:
            copy();
            break;
        case 1:
            printed();
            break;
        default:
            descriptors();
    }
}
}  // namespace

const Family kFiles = {"files", 200, startFiles, stepFiles, checkFiles, endFiles, false};
const Family kCopies = {
    "copies and printing", 12, startCopies, stepCopies, nullptr, nullptr, false};

}  // namespace soak
