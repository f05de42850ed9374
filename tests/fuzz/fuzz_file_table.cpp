// Managed files: more handles than there may be descriptors, beside the model of the tests. After
// each call the results, the table, the log and the contents of the file are the model's.
//
// Input: a byte for the limit of descriptors, one for the disk-full state, then one for each call
// with what it needs behind it. The low five bits of a call say which.
#include "fuzz.h"
#include "tests/models/file_model.h"

#include "rm.h"
#include "rm/file/file.h"
#include "rm/rmalloc/rmalloc.h"

#include <algorithm>
#include <array>
#include <limits>

#include <sys/stat.h>

namespace
{
using rmfuzz::Buffer;
using rmfuzz::Input;
using rmtest::FileModel;

constexpr int kMostCalls = 200;
constexpr int kMostHandles = 70;  // the table grows twice
constexpr uint32_t kMostOffset = 16'384;
constexpr uint32_t kMostLength = 2'000;
constexpr std::size_t kLargestFile = 65'536;
constexpr uint32_t kPaths = 8;

enum Call : uint8_t {
    kOpen,
    kOpenToo,
    kOpenMany,
    kClose,
    kSeek,
    kWrite,
    kWriteToo,
    kSeekWrite,
    kSeekWriteToo,
    kRead,
    kSeekRead,
    kPrint,
    kLength,
    kPosition,
    kSync,
    kRemove,
    kRename,
    kValidate,
    kLimit,
    kDiskFull,
    kSettings,
    kCloseAll,
    kCalls,
};

bool exists(const std::string& path)
{
    struct stat status = {};
    return stat(path.c_str(), &status) == 0;
}

class Table
{
  public:
    explicit Table(Input& input) : input_(input)
    {
        rmfuzz::beginAnew(true);
        rmfuzz::clearDirectory();
        model_.limit = 1 + input_.byte() % 6;
        model_.diskFull = input_.byte() % 2 == 0;
        fileHandleLimit = static_cast<int16_t>(model_.limit);
        rm_setDiskFull(model_.diskFull ? 1 : 0);
        operations_ = file::fileOps;
        rm_fileCounts(nullptr, nullptr, &parkings_, &reopens_);
        rmfuzz::takeLog();
    }

    void step()
    {
        touched_.clear();
        make(static_cast<Call>((input_.byte() & 31U) % kCalls));
        FUZZ_CHECK(rmfuzz::takeLines() == model_.takeLines());
        compareTable();
        if (!touched_.empty()) {
            comparePath(touched_);
        }
    }

    void end()
    {
        closeAll();
        for (uint32_t i = 0; i < kPaths; ++i) {
            comparePath(path(i));
        }
        fileHandleLimit = 32;
        rm_setDiskFull(1);
    }

  private:
    // --- Choices of the input

    static std::string path(uint32_t number)
    {
        return rmfuzz::pathOf(std::string(1, static_cast<char>('a' + number % kPaths)));
    }

    std::string path() { return path(input_.byte()); }

    // Mostly one in use.
    int16_t handle()
    {
        const uint8_t choice = input_.byte();
        const auto slots = static_cast<int>(model_.slots().size());
        std::vector<int> used;
        for (int i = 0; i < slots; ++i) {
            if (model_.valid(i)) {
                used.push_back(i);
            }
        }
        const int handle = choice >= 240 || used.empty() ? static_cast<int8_t>(choice)
                                                         : used[choice % used.size()];
        touched_ = model_.valid(handle) ? model_.slot(handle).path : "";
        return static_cast<int16_t>(handle);
    }

    uint32_t offset()
    {
        const auto word = static_cast<uint16_t>(input_.int16());
        return word == UINT16_MAX ? RM_CURRENT_POSITION : word % kMostOffset;
    }

    uint32_t length()
    {
        const uint8_t first = input_.byte();
        return first < 128 ? first : first * 16 % kMostLength;
    }

    // Bytes that tell their place.
    std::string bytes()
    {
        std::string bytes(length(), '\0');
        uint32_t state = input_.byte();
        for (char& byte : bytes) {
            state = state * 1664525 + 1013904223;
            byte = static_cast<char>(state >> 24U);
        }
        return bytes;
    }

    // An appending file would grow without bound.
    bool isFull(int handle) const
    {
        if (!model_.valid(handle)) {
            return false;
        }
        const auto found = model_.files().find(model_.slot(handle).path);
        return found != model_.files().end() && found->second->size() > kLargestFile;
    }

    // --- Calls

    void openOne(const std::string& path, uint8_t flagBits, uint8_t modeBits)
    {
        constexpr std::array<uint32_t, 4> kAccess = {RM_O_RDWR, RM_O_RDWR, RM_O_WRONLY,
                                                     RM_O_RDONLY};
        constexpr std::array<uint32_t, 4> kInitial = {0, 100, 1300, 5000};
        constexpr std::array<uint32_t, 4> kSteps = {0, 1, 512, 4096};
        uint32_t flags = kAccess.at(flagBits & 3U);
        flags |= (flagBits & 4U) == 0 ? RM_O_CREAT : 0;
        flags |= (flagBits & 4U) == 0 && (flagBits & 8U) != 0 ? RM_O_EXCL : 0;
        if (flags != RM_O_RDONLY && (flags & 3U) != RM_O_RDONLY) {
            flags |= (flagBits & 16U) != 0 ? RM_O_TRUNC : 0;
            flags |= (flagBits & 32U) != 0 ? RM_O_APPEND : 0;
        }
        uint32_t mode = (modeBits & 1U) != 0 ? FILE_STREAM : 0;
        mode |= (modeBits & 2U) != 0 ? FILE_NOPRESIZE : 0;
        mode |= (modeBits & 12U) == 12 ? FILE_PINNED : 0;
        mode |= (modeBits & 16U) != 0 ? FILE_NOWRITETHROUGH : 0;
        const uint32_t initial = kInitial.at(flagBits >> 6U);
        const uint32_t step = kSteps.at(modeBits >> 6U);
        touched_ = path;
        const rmfuzz::Text name(path);
        FUZZ_CHECK(rm_fileOpen(name.get(), flags, static_cast<uint16_t>(mode), initial, step) ==
                   model_.fileOpen(path, flags, static_cast<uint16_t>(mode), initial, step));
        FUZZ_CHECK(name.unchanged());
    }

    void open(int times)
    {
        const std::string one = path();
        const uint8_t flagBits = input_.byte();
        const uint8_t modeBits = input_.byte();
        for (; times > 0 && model_.handles() < kMostHandles; --times) {
            openOne(one, flagBits, modeBits);
        }
    }

    void close()
    {
        const int16_t one = handle();
        rm_fileClose(one);
        model_.fileClose(one);
    }

    void closeAll()
    {
        for (int i = static_cast<int>(model_.slots().size()) - 1; i >= 0; --i) {
            if (model_.valid(i)) {
                rm_fileClose(static_cast<int16_t>(i));
                model_.fileClose(i);
            }
        }
        FUZZ_CHECK(file::ftab == nullptr);
    }

    void seek()
    {
        const int16_t one = handle();
        const uint32_t to = static_cast<uint16_t>(input_.int16()) % kMostOffset;
        FUZZ_CHECK(rm_fileSeek(one, to) == model_.fileSeek(one, to));
    }

    void write()
    {
        const int16_t one = handle();
        const rmfuzz::Text data(bytes());
        if (!isFull(one)) {
            const auto size = static_cast<uint32_t>(data.original().size());
            FUZZ_CHECK(rm_fileWrite(one, data.get(), size) ==
                       model_.fileWrite(one, data.original()));
        }
    }

    void seekWrite()
    {
        const int16_t one = handle();
        const uint32_t at = offset();
        const rmfuzz::Text data(bytes());
        // To extend a file that is only read is fatal.
        const bool isReadOnly = model_.valid(one) && (model_.slot(one).flags & 3U) == 0;
        if ((!isReadOnly || model_.diskFull) && !isFull(one)) {
            const auto size = static_cast<uint32_t>(data.original().size());
            FUZZ_CHECK(rm_fileSeekWrite(one, at, data.get(), size) ==
                       model_.fileSeekWrite(one, at, data.original()));
        }
    }

    void read()
    {
        const int16_t one = handle();
        const uint32_t size = length();
        Buffer buffer(size);
        const uint32_t count = rm_fileRead(one, buffer.data(), size);
        checkRead(buffer, count, model_.fileRead(one, size));
    }

    void seekRead()
    {
        const int16_t one = handle();
        const uint32_t at = offset();
        const uint32_t size = length();
        Buffer buffer(size);
        const uint32_t count = rm_fileSeekRead(one, at, buffer.data(), size);
        checkRead(buffer, count, model_.fileSeekRead(one, at, size));
    }

    static void checkRead(const Buffer& buffer, uint32_t count, const std::string& expected)
    {
        buffer.check();
        FUZZ_CHECK(count == expected.size());
        FUZZ_CHECK(buffer.contents().substr(0, count) == expected);
        FUZZ_CHECK(buffer.untouched(count));
    }

    void print()
    {
        const int16_t one = handle();
        const std::string text = input_.text();
        // Without a stream it is fatal.
        if (!model_.slots().empty() && !isFull(one) &&
            (!model_.valid(one) || (model_.slot(one).mode & FILE_STREAM) != 0)) {
            FUZZ_CHECK(rm_filePrintf(one, "%s", text.c_str()) == model_.filePrint(one, text));
        }
    }

    void remove()
    {
        touched_ = path();
        FUZZ_CHECK((rm_fileRemove(touched_.c_str()) == 0) == (model_.fileRemove(touched_) == 0));
    }

    void rename()
    {
        const std::string from = path();
        touched_ = path();
        FUZZ_CHECK(rm_fileRename(from.c_str(), touched_.c_str()) ==
                   model_.fileRename(from, touched_));
        comparePath(from);
    }

    void validate()
    {
        touched_ = path();
        FUZZ_CHECK((rm_fileValidate(touched_.c_str()) == 0) == model_.files().contains(touched_));
    }

    // The call only raises it, and only within its bounds.
    void limit(bool byCall)
    {
        const uint8_t choice = input_.byte();
        if (byCall) {
            const auto wanted = static_cast<int16_t>(choice % 64 == 0 ? input_.int16() : choice);
            const int16_t before = fileHandleLimit;
            rm_fileHandleLimit(wanted);
            FUZZ_CHECK(fileHandleLimit == before || (fileHandleLimit == wanted && wanted > before));
        } else {
            fileHandleLimit = static_cast<int16_t>(choice == UINT8_MAX ? RM_NONE : 1 + choice % 6);
        }
        model_.limit = fileHandleLimit;
    }

    void make(Call call)
    {
        switch (call) {
            case kOpenMany:
                open(1 + input_.byte() % 40);
                break;
            case kClose:
                close();
                break;
            case kSeek:
                seek();
                break;
            case kWrite:
            case kWriteToo:
                write();
                break;
            case kSeekWrite:
            case kSeekWriteToo:
                seekWrite();
                break;
            case kRead:
                read();
                break;
            case kSeekRead:
                seekRead();
                break;
            case kPrint:
                print();
                break;
            case kLength: {
                const int16_t one = handle();
                FUZZ_CHECK(rm_fileLength(one) == model_.fileLength(one));
                break;
            }
            case kPosition: {
                const int16_t one = handle();
                FUZZ_CHECK(rm_filePosition(one) == model_.filePosition(one));
                break;
            }
            case kSync: {
                const int16_t one = handle();
                FUZZ_CHECK(rm_fileSync(one) == RM_SUCCESS);
                model_.fileSync(one);
                break;
            }
            case kRemove:
                remove();
                break;
            case kRename:
                rename();
                break;
            case kValidate:
                validate();
                break;
            case kLimit:
                limit(false);
                break;
            case kSettings:
                limit(true);
                FUZZ_CHECK(rm_fileSetWriteThrough() == RM_SUCCESS);
                break;
            case kDiskFull:
                model_.diskFull = input_.byte() % 2 == 0;
                rm_setDiskFull(model_.diskFull ? 1 : 0);
                FUZZ_CHECK((rm_getDiskFull() != 0) == model_.diskFull);
                break;
            case kCloseAll:
                closeAll();
                break;
            default:
                open(1);
                break;
        }
    }

    // --- Comparing

    void compareTable() const
    {
        FUZZ_CHECK(file::checkFtab() == 0);
        FUZZ_CHECK(static_cast<std::size_t>(file::ftabSize) == model_.slots().size());
        FUZZ_CHECK(file::lruNext == model_.hand());
        FUZZ_CHECK(file::fileOps - operations_ == model_.operations());
        uint32_t open = 0;
        uint32_t parked = 0;
        uint32_t parkings = 0;
        uint32_t reopens = 0;
        rm_fileCounts(&open, &parked, &parkings, &reopens);
        FUZZ_CHECK(static_cast<int>(open) == model_.open());
        FUZZ_CHECK(static_cast<int>(open + parked) == model_.handles());
        FUZZ_CHECK(parkings - parkings_ == model_.parkings());
        FUZZ_CHECK(reopens - reopens_ == model_.reopens());
        for (int16_t i = 0; i < file::ftabSize; ++i) {
            compareEntry(*file::ftab[i], model_.slot(i));
        }
    }

    static void compareEntry(const file::FileEntry& entry, const FileModel::Slot& slot)
    {
        FUZZ_CHECK(static_cast<int>(entry.state) == static_cast<int>(slot.state));
        if (slot.state != FileModel::kFree) {
            FUZZ_CHECK(slot.path == entry.name);
            FUZZ_CHECK(entry.position == slot.position && entry.knownSize == slot.known);
            FUZZ_CHECK((entry.recentlyUsed != 0) == slot.used && entry.busyCount == 0);
            FUZZ_CHECK(entry.openFlags == slot.flags && entry.modeFlags == slot.mode);
        }
    }

    void comparePath(const std::string& path) const
    {
        const auto found = model_.files().find(path);
        FUZZ_CHECK(exists(path) == (found != model_.files().end()));
        FUZZ_CHECK(found == model_.files().end() || rmfuzz::readFile(path) == *found->second);
    }

    Input& input_;
    FileModel model_;
    std::string touched_;  // the path whose file the call may have changed
    int32_t operations_ = 0;
    uint32_t parkings_ = 0;
    uint32_t reopens_ = 0;
};
}  // namespace

void rmfuzz::fuzzInput(Input& input)
{
    expectLog();
    Table table(input);
    for (int i = 0; i < kMostCalls && !input.empty(); ++i) {
        table.step();
    }
    table.end();
}
