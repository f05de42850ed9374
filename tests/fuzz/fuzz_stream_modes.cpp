// Text streams opened under any mode text, on a file of any bytes or none: which accesses the mode
// asks for, and that a stream does what they allow.
//
// Input: a byte that says whether there is a file, the mode, a zero, then the file.
#include "fuzz.h"
#include "stream_model.h"

#include "rm.h"
#include "rm/file/file.h"
#include "rm/rmutil/rmutil.h"

#include <algorithm>

#include <sys/stat.h>
#include <unistd.h>

namespace
{
using rmfuzz::Buffer;
using rmfuzz::StreamModel;

constexpr std::size_t kLookedAt = 3;  // characters of a mode
constexpr int32_t kLineSize = 40;
constexpr const char* kWritten = "written";

const std::string& filePath()
{
    static const std::string path = rmfuzz::pathOf("lines.txt");
    return path;
}

// From the first to the last character that counts: a later one may take back what an earlier one
// has said.
uint32_t flagsOf(const std::string& mode)
{
    bool writes = false;
    bool readsToo = false;
    bool makes = false;
    for (const char c : mode.substr(0, kLookedAt)) {
        if (c == 'w') {
            makes = true;
            writes = true;
        } else if (c == '+') {
            writes = false;
            readsToo = true;
        }
    }
    return (writes ? RM_O_WRONLY : 0U) | (readsToo ? RM_O_RDWR : 0U) |
           (makes ? RM_O_CREAT | RM_O_TRUNC : 0U);
}

void checkRead(FileStream* stream, const std::string& file)
{
    StreamModel model(file);
    for (std::size_t i = 0; i <= file.size(); ++i) {
        Buffer buffer(kLineSize);
        const char* line = rm_fileStreamGets(stream, buffer.data(), kLineSize);
        buffer.check();
        const StreamModel::Got expected = model.gets(kLineSize);
        FUZZ_CHECK((line != nullptr) == expected.found);
        if (!expected.found) {
            break;
        }
        FUZZ_CHECK(buffer.text() == expected.bytes);
    }
}

// What the mode does not allow fails, with its line in the log.
void checkRefused(FileStream* stream, bool write)
{
    if (write) {
        const std::string text(600, 'x');
        FUZZ_CHECK(rm_fileStreamPuts(stream, text.c_str()) == text.size());
    } else {
        Buffer buffer(kLineSize);
        FUZZ_CHECK(rm_fileStreamGets(stream, buffer.data(), kLineSize) == nullptr);
        buffer.check();
    }
    FUZZ_CHECK(stream->failed);
}
}  // namespace

void rmfuzz::fuzzInput(Input& input)
{
    expectLog();
    const uint8_t choice = input.byte();
    const bool exists = choice % 4 != 0;
    const Text mode(input.text());
    std::string file = input.rest();
    unlink(filePath().c_str());
    if (exists) {
        writeFile(filePath(), file);
    }
    FileStream* stream =
        rm_fileStreamOpen(filePath().c_str(), choice == UINT8_MAX ? nullptr : mode.get());
    FUZZ_CHECK(mode.unchanged());
    const uint32_t flags = flagsOf(choice == UINT8_MAX ? "" : mode.get());
    FUZZ_CHECK((stream != nullptr) == (exists || (flags & RM_O_CREAT) != 0));
    if (stream == nullptr) {
        rm_fileStreamClose(nullptr);
        FUZZ_CHECK(rm_fileStreamPuts(nullptr, kWritten) == 0);
        FUZZ_CHECK(rm_fileStreamGets(nullptr, nullptr, 10) == nullptr);
        FUZZ_CHECK(rm_fileStreamGetLine(nullptr, nullptr, nullptr) == nullptr);
        return;
    }
    // The table drops what must not happen again when the file is reopened.
    const file::FileEntry* entry = file::usedEntry(stream->handle);
    FUZZ_CHECK(entry != nullptr && entry->openFlags == (flags & ~RM_O_TRUNC));
    if ((flags & RM_O_TRUNC) != 0) {
        file.clear();
    }
    const uint32_t access = flags & (RM_O_WRONLY | RM_O_RDWR);
    const bool mayWrite = access != RM_O_RDONLY;
    const bool mayRead = access == RM_O_RDONLY || (access & RM_O_RDWR) != 0;
    if (!mayRead) {
        checkRefused(stream, false);
    } else if ((choice & 64U) != 0 || !mayWrite) {
        checkRead(stream, file);
    } else {
        FUZZ_CHECK(rm_fileStreamPuts(stream, kWritten) == std::string(kWritten).size());
        const std::string line = std::string(kWritten) + "\n";
        file.replace(0, std::min(file.size(), line.size()), line);
    }
    if (!mayWrite && (choice & 128U) != 0) {
        stream->cursor = 0;
        checkRefused(stream, true);
    }
    rm_fileStreamClose(stream);
    FUZZ_CHECK(readFile(filePath()) == file);
}
