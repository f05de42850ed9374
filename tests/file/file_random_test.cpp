// Random operations over more files than there may be descriptors, compared step by step with a
// model of their own.
//
// The same run every time; RM_TEST_SEED makes another one, RM_TEST_OPERATIONS makes it
// longer or shorter.
#include "tests/file/file_case.h"
#include "tests/models/file_model.h"

#include <cstdlib>
#include <iostream>
#include <random>
#include <sstream>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

using namespace filetest;

namespace
{

using rmtest::FileModel;

#ifdef __SANITIZE_ADDRESS__
constexpr long kOperations = 10'000;  // each costs several times as much
#else
constexpr long kOperations = 50'000;
#endif
constexpr uint32_t kPaths = 24;
constexpr int kHandlesWanted = 40;
constexpr uint32_t kLargestOffset = 12'000;
constexpr uint32_t kLargestLength = 2'000;
constexpr uint32_t kTextLength = 60'000;

// The contents of a file, by the plain calls: one file is read after every step.
std::string contentsOf(const std::string& path)
{
    struct stat status = {};
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(fstat(fd, &status), 0) << path;
    std::string bytes(static_cast<std::size_t>(status.st_size), '\0');
    EXPECT_EQ(pread(fd, bytes.data(), bytes.size(), 0), status.st_size) << path;
    close(fd);
    return bytes;
}

// Standard error of the process, while it lives.
class LogTap
{
  public:
    LogTap()
        : memory_(memfd_create("log", MFD_CLOEXEC)),
          saved_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3))
    {
        dup2(memory_, STDERR_FILENO);
    }

    ~LogTap()
    {
        dup2(saved_, STDERR_FILENO);
        close(saved_);
        close(memory_);
    }

    LogTap(const LogTap&) = delete;
    LogTap& operator=(const LogTap&) = delete;

    // The lines since the last time.
    Lines take() const
    {
        struct stat status = {};
        fstat(memory_, &status);
        if (status.st_size == 0) {
            return {};
        }
        std::string text(static_cast<std::size_t>(status.st_size), '\0');
        text.resize(static_cast<std::size_t>(
            std::max<ssize_t>(0, pread(memory_, text.data(), text.size(), 0))));
        lseek(memory_, 0, SEEK_SET);
        static_cast<void>(!ftruncate(memory_, 0));
        return logLines(text);
    }

  private:
    int memory_;
    int saved_;
};

class FileRandom : public FileTest
{
  protected:
    uint32_t below(uint32_t bound) { return static_cast<uint32_t>(random_() % bound); }

    bool oneIn(uint32_t n) { return below(n) == 0; }

    template <typename T, std::size_t n>
    T oneOf(const std::array<T, n>& values)
    {
        return values[below(n)];
    }

    std::string anyPath() { return "p" + std::to_string(below(kPaths)); }

    // A piece of a text that has no repetitions to hide a wrong offset.
    std::string anyBytes(uint32_t atMost)
    {
        const uint32_t length = below(atMost) + 1;
        return text_.substr(below(kTextLength - length), length);
    }

    uint32_t anyOffset() { return oneIn(6) ? RM_CURRENT_POSITION : below(kLargestOffset); }

    // Mostly a handle in use, sometimes any number at all.
    int16_t anyHandle()
    {
        if (oneIn(40) || model_.handles() == 0) {
            return static_cast<int16_t>(below(200) - 50);
        }
        while (true) {
            const auto handle = static_cast<int16_t>(below(sizeOfTable()));
            if (model_.valid(handle)) {
                return handle;
            }
        }
    }

    uint32_t sizeOfTable() const { return static_cast<uint32_t>(model_.slots().size()); }

    void begin(uint64_t seed)
    {
        random_.seed(seed);
        text_.resize(kTextLength);
        for (char& byte : text_) {
            byte = static_cast<char>('!' + below(90));
        }
    }

    // --- One operation, on both sides

    void openOne()
    {
        const std::string path = anyPath();
        uint32_t flags =
            oneOf(std::to_array({RM_O_RDWR, RM_O_RDWR, RM_O_RDWR, RM_O_WRONLY, RM_O_RDONLY}));
        flags |= oneIn(4) ? 0 : RM_O_CREAT;
        if (flags != RM_O_RDONLY && (flags & 3U) != RM_O_RDONLY) {
            flags |= oneIn(8) ? RM_O_TRUNC : 0;
            flags |= oneIn(8) ? RM_O_APPEND : 0;
        }
        if ((flags & RM_O_CREAT) != 0 && oneIn(10)) {
            flags |= RM_O_EXCL;
        }
        uint32_t mode = oneIn(4) ? FILE_STREAM : 0;
        mode |= oneIn(6) ? FILE_NOPRESIZE : 0;
        mode |= oneIn(40) ? FILE_PINNED : 0;
        const auto initial = oneOf(std::to_array<uint32_t>({0, 0, 0, 100, 1300, 5000}));
        const auto step = oneOf(std::to_array<uint32_t>({0, 1, 512, 1000, 4096}));
        say() << "open " << path << ' ' << flags << ' ' << mode << ' ' << initial << ' ' << step;
        touched_ = path;
        EXPECT_EQ(rm_fileOpen(path.c_str(), flags, static_cast<uint16_t>(mode), initial, step),
                  model_.fileOpen(path, flags, static_cast<uint16_t>(mode), initial, step));
    }

    void closeOne()
    {
        const int16_t handle = chosen("close");
        rm_fileClose(handle);
        model_.fileClose(handle);
    }

    void seekOne()
    {
        const int16_t handle = chosen("seek");
        const uint32_t offset = below(kLargestOffset);
        say() << offset;
        EXPECT_EQ(rm_fileSeek(handle, offset), model_.fileSeek(handle, offset));
    }

    void printOne()
    {
        const int16_t handle = chosen("print");
        // Without a stream it would be fatal.
        if (file::ftab == nullptr ||
            (model_.valid(handle) && (model_.slot(handle).mode & FILE_STREAM) == 0)) {
            return;
        }
        const std::string text = anyBytes(200);
        EXPECT_EQ(rm_filePrintf(handle, "%s", text.c_str()), model_.filePrint(handle, text));
    }

    void writeOne()
    {
        const int16_t handle = chosen("write");
        if (tooFar(handle)) {
            return;
        }
        const std::string bytes = oneIn(30) ? "" : anyBytes(kLargestLength);
        say() << bytes.size();
        EXPECT_EQ(write(handle, bytes), model_.fileWrite(handle, bytes));
    }

    void seekWriteOne()
    {
        const int16_t handle = chosen("seekWrite");
        // To extend a file that is only read would be fatal.
        const bool readOnly = model_.valid(handle) && (model_.slot(handle).flags & 3U) == 0;
        if ((readOnly && !model_.diskFull) || tooFar(handle)) {
            return;
        }
        const uint32_t offset = anyOffset();
        const std::string bytes = oneIn(30) ? "" : anyBytes(kLargestLength);
        say() << offset << ' ' << bytes.size();
        EXPECT_EQ(seekWrite(handle, offset, bytes), model_.fileSeekWrite(handle, offset, bytes));
    }

    void readOne()
    {
        const int16_t handle = chosen("read");
        const uint32_t length = below(kLargestLength);
        say() << length;
        EXPECT_EQ(read(handle, length), model_.fileRead(handle, length));
    }

    void seekReadOne()
    {
        const int16_t handle = chosen("seekRead");
        const uint32_t offset = anyOffset();
        const uint32_t length = below(kLargestLength);
        say() << offset << ' ' << length;
        EXPECT_EQ(seekRead(handle, offset, length), model_.fileSeekRead(handle, offset, length));
    }

    void lengthOne()
    {
        const int16_t handle = chosen("length");
        EXPECT_EQ(rm_fileLength(handle), model_.fileLength(handle));
    }

    void positionOne()
    {
        const int16_t handle = chosen("position");
        EXPECT_EQ(rm_filePosition(handle), model_.filePosition(handle));
    }

    void syncOne()
    {
        const int16_t handle = chosen("sync");
        EXPECT_EQ(rm_fileSync(handle), 0);
        model_.fileSync(handle);
    }

    void removeOne()
    {
        const std::string path = anyPath();
        say() << "remove " << path;
        EXPECT_EQ(rm_fileRemove(path.c_str()) == 0, model_.fileRemove(path) == 0);
    }

    void renameOne()
    {
        const std::string from = anyPath();
        const std::string to = anyPath();
        say() << "rename " << from << ' ' << to;
        EXPECT_EQ(rm_fileRename(from.c_str(), to.c_str()), model_.fileRename(from, to));
        touched_ = to;
    }

    void changeSettings()
    {
        if (oneIn(2)) {
            model_.limit = static_cast<int>(4 + below(5));
            fileHandleLimit = static_cast<int16_t>(model_.limit);
            say() << "limit " << model_.limit;
        } else {
            model_.diskFull = oneIn(3);
            rmDiskFull = model_.diskFull ? 1 : 0;
            say() << "disk full " << model_.diskFull;
        }
    }

    void anyOperation()
    {
        const uint32_t dice = below(1000);
        if (dice < 5) {
            changeSettings();
        } else if (dice < 15) {
            removeOne();
        } else if (dice < 20) {
            renameOne();
        } else if (dice < 120) {
            if (model_.handles() < kHandlesWanted || oneIn(8)) {
                openOne();
            } else {
                closeOne();
            }
        } else if (dice < 125) {
            closeOne();
        } else if (dice < 130) {
            syncOne();
        } else {
            using Step = void (FileRandom::*)();
            static constexpr auto kSteps = std::to_array<Step>(
                {&FileRandom::writeOne, &FileRandom::seekWriteOne, &FileRandom::seekWriteOne,
                 &FileRandom::readOne, &FileRandom::seekReadOne, &FileRandom::seekReadOne,
                 &FileRandom::printOne, &FileRandom::seekOne, &FileRandom::lengthOne,
                 &FileRandom::positionOne});
            (this->*oneOf(kSteps))();
        }
    }

    // All handles are closed now and then, so that the table goes and comes.
    void closeAll()
    {
        say() << "close all";
        while (model_.handles() > 0) {
            const int16_t handle = anyHandle();
            rm_fileClose(handle);
            model_.fileClose(handle);
        }
    }

    // --- Comparing

    void compareTable() const
    {
        ASSERT_EQ(file::checkFtab(), 0U);
        ASSERT_EQ(static_cast<uint32_t>(file::ftabSize), sizeOfTable());
        ASSERT_EQ(file::lruNext, model_.hand());
        ASSERT_EQ(file::fileOps, model_.operations());
        ASSERT_EQ(counts(), (Counts{static_cast<uint32_t>(model_.open()),
                                    static_cast<uint32_t>(model_.handles() - model_.open()),
                                    model_.parkings(), model_.reopens()}));
        for (int16_t i = 0; i < file::ftabSize; ++i) {
            const file::FileEntry& entry = *entryOf(i);
            const FileModel::Slot& slot = model_.slot(i);
            ASSERT_EQ(static_cast<int>(entry.state), static_cast<int>(slot.state)) << "slot " << i;
            if (slot.state == FileModel::kFree) {
                continue;
            }
            ASSERT_EQ(entry.name, slot.path) << "slot " << i;
            ASSERT_EQ(entry.position, slot.position) << "slot " << i;
            ASSERT_EQ(entry.knownSize, slot.known) << "slot " << i;
            ASSERT_EQ(entry.recentlyUsed != 0, slot.used) << "slot " << i;
            ASSERT_EQ(entry.openFlags, slot.flags) << "slot " << i;
            ASSERT_EQ(entry.busyCount, 0) << "slot " << i;
        }
    }

    void comparePath(const std::string& path) const
    {
        const auto found = model_.files().find(path);
        ASSERT_EQ(std::filesystem::exists(path), found != model_.files().end()) << path;
        if (found != model_.files().end()) {
            ASSERT_TRUE(contentsOf(path) == *found->second) << "the contents of " << path;
        }
    }

    void compareAllPaths() const
    {
        for (uint32_t i = 0; i < kPaths; ++i) {
            comparePath("p" + std::to_string(i));
        }
    }

    FileModel model_;
    std::mt19937_64 random_;
    std::string text_;          // that all bytes are taken from
    std::string touched_;       // the path whose file the operation may have changed
    std::ostringstream story_;  // of the operation

  private:
    std::ostream& say() { return story_ << ' '; }

    // A handle for an operation that is told about in the story.
    int16_t chosen(const char* operation)
    {
        const int16_t handle = anyHandle();
        say() << operation << ' ' << handle;
        touched_ = model_.valid(handle) ? model_.slot(handle).path : "";
        return handle;
    }

    // Appending files are written at their end, wherever the handle stands: they must not grow
    // without bound.
    bool tooFar(int handle) const
    {
        if (!model_.valid(handle)) {
            return false;
        }
        const auto found = model_.files().find(model_.slot(handle).path);
        return found != model_.files().end() && found->second->size() > 2 * kLargestOffset;
    }
};

TEST_F(FileRandom, OperationsDoWhatTheModelDoes)
{
    const uint64_t seed = rmtest::seedOfThisRun();
    const long operations = rmtest::operationsOfThisRun(kOperations);
    std::cout << "RM_TEST_SEED=" << seed << " RM_TEST_OPERATIONS=" << operations << std::endl;
    RecordProperty("seed", std::to_string(seed));
    begin(seed);
    model_.limit = 6;
    fileHandleLimit = 6;
    model_.diskFull = false;
    rmDiskFull = 0;
    fileCommit = 0;  // the disk itself is not the subject

    const LogTap log;
    for (long n = 0; n < operations; ++n) {
        story_.str("");
        touched_.clear();
        if (n % 10'000 == 9'999) {
            closeAll();
        } else {
            anyOperation();
        }
        SCOPED_TRACE("RM_TEST_SEED=" + std::to_string(seed) + ", operation " + std::to_string(n) +
                     ":" + story_.str());
        EXPECT_EQ(log.take(), model_.takeLines());
        compareTable();
        if (!touched_.empty()) {
            comparePath(touched_);
        }
        if (n % 1'000 == 999) {
            compareAllPaths();
            EXPECT_EQ(rmalloc::checkMemory(), 0U);
        }
        ASSERT_FALSE(HasFailure());
    }
    closeAll();
    compareAllPaths();
    EXPECT_GT(model_.reopens(), operations / 10) << "the run was about parking and coming back";
}

}  // namespace
