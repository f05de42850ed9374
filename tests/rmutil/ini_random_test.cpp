// Random questions to INI files and random changes of them, compared step by step with a model of
// their own: every result, every byte of the buffers, every byte of the files.
//
// The same run every time; RM_TEST_SEED makes another one, RM_TEST_OPERATIONS makes it longer or
// shorter.
#include "tests/models/ini_model.h"
#include "tests/rmutil/ini_case.h"

#include <array>
#include <cstdlib>
#include <iostream>
#include <random>
#include <sstream>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace initest;

namespace
{

using rmtest::IniModel;

#ifdef __SANITIZE_ADDRESS__
constexpr long kOperations = 8'000;  // each costs several times as much
#else
constexpr long kOperations = 60'000;
#endif
constexpr uint32_t kOperationsPerFile = 60;
constexpr std::size_t kLargestFile = 20'000;  // bytes that additions may make of a file

// The bytes of a file, by the plain calls: the file is read after every change.
std::string contentsOf(const char* path)
{
    struct stat status = {};
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(fstat(fd, &status), 0) << path;
    std::string bytes(static_cast<std::size_t>(status.st_size), '\0');
    EXPECT_EQ(pread(fd, bytes.data(), bytes.size(), 0), status.st_size) << path;
    close(fd);
    return bytes;
}

const char* textOf(const IniModel::Name& name)
{
    return name ? name->c_str() : nullptr;
}

std::string shown(const IniModel::Name& name)
{
    return name ? ::testing::PrintToString(*name) : "null";
}

// The names and values are few, so that most of them meet; some differ in case or by a blank only.
constexpr std::array<std::string_view, 16> kSections = {
    "a",           "A",   "b",  "Section", "SECTION", "section ", "",    "a b",
    "environment", "b;c", "[a", "x",       "\xE4",    "\xC4",     "a=b", "long"};
constexpr std::array<std::string_view, 18> kKeys = {"k",  "K",        "key", "Key",  "KEY ", " key",
                                                    "",   "k.1",      "l",   "\xF6", "\xD6", ";k",
                                                    "[b", "long key", "m",   "n",    "o",    "p"};
constexpr std::array<std::string_view, 10> kValues = {"1", "",         "value", " value ", "x=y",
                                                      "=", "\xFC\xFF", ";1",    "[a]",     "VALUE"};
constexpr std::array<std::string_view, 14> kOddLines = {
    "",  " ",  "\t", "no entry", ";", "; comment", ";k=1", " indented=1",
    "]", "\v", "\f", " [a]",     "=", "\x85="};

class IniRandom : public IniTest
{
  protected:
    void SetUp() override
    {
        IniTest::SetUp();
        enterFastDirectory();
    }

    // --- Dice

    uint32_t below(uint32_t bound) { return static_cast<uint32_t>(random_() % bound); }

    bool oneIn(uint32_t n) { return below(n) == 0; }

    template <typename T, std::size_t n>
    T oneOf(const std::array<T, n>& values)
    {
        return values[below(n)];
    }

    std::string manyBytes(std::size_t length)
    {
        std::string bytes;
        while (bytes.size() < length) {
            bytes += oneOf(std::to_array<char>({'x', 'y', '=', ' ', ']', '[', ';', '\xE9'}));
        }
        return bytes;
    }

    std::string anySection() { return std::string(oneOf(kSections)); }

    std::string anyKey() { return std::string(oneOf(kKeys)); }

    std::string anyValue()
    {
        return oneIn(20) ? manyBytes(below(300)) : std::string(oneOf(kValues));
    }

    // --- Files

    std::string anyHeader()
    {
        std::string header = '[' + anySection();
        header += oneIn(8) ? "" : "]";
        header += oneIn(8) ? manyBytes(below(6)) : "";
        return header;
    }

    std::string anyLongLine()
    {
        const uint32_t dice = below(100);
        const uint32_t length = dice < 70 ? below(300) : below(dice < 99 ? 3000 : 100'001);
        std::string line = manyBytes(length);
        return oneIn(3) ? anyKey() + '=' + line : line;
    }

    std::string anyLine()
    {
        const uint32_t dice = below(1000);
        if (dice < 150) {
            return anyHeader();
        }
        if (dice < 300) {
            return std::string(oneOf(kOddLines));
        }
        if (dice < 330) {
            return anyLongLine();
        }
        if (dice < 340) {
            return manyBytes(below(20)) + (oneIn(2) ? '\0' : '\r') + manyBytes(below(20));
        }
        return anyKey() + '=' + anyValue();
    }

    std::string anyFile()
    {
        const uint32_t withReturn = oneOf(std::to_array<uint32_t>({0, 0, 100, 100, 50, 2}));
        const uint32_t lines = oneIn(10) ? below(200) : below(25);
        std::string text;
        for (uint32_t n = 0; n < lines; ++n) {
            text += anyLine();
            text += below(100) < withReturn ? "\r\n" : "\n";
        }
        // Where blocks end is where it could go wrong.
        if (oneIn(4)) {
            const std::size_t shortOf = 511 - text.size() % 512;
            text += ';' + manyBytes((shortOf + below(3) + 510) % 512) + '\n';
        }
        if (oneIn(3)) {
            text += anyLine();
        }
        return text;
    }

    void newFile()
    {
        if (oneIn(200)) {
            present_ = false;
            std::filesystem::remove(kFile);
        } else {
            present_ = true;
            file_ = anyFile();
            writeFile(kFile, file_);
        }
    }

    // --- One operation, on both sides

    int anySize()
    {
        const uint32_t dice = below(20);
        if (dice == 0) {
            return oneOf(std::to_array<int>({0, 1, 2, 3, -1, INT16_MIN, INT16_MAX}));
        }
        return static_cast<int>(dice < 12 ? below(40) : below(1500));
    }

    void getOne()
    {
        const IniModel::Name section = oneIn(6) ? IniModel::Name() : anySection();
        const IniModel::Name key = oneIn(4) ? IniModel::Name() : anyKey();
        const int size = anySize();
        const bool withValues = oneIn(2);
        story_ << "get " << shown(section) << ' ' << shown(key) << ' ' << size << ' ' << withValues;
        std::string expected = untouched(static_cast<std::size_t>(std::max(size, 0)));
        const int result = present_
                               ? IniModel::get(file_, section, key, withValues, size, &expected)
                               : RM_NOT_FOUND;
        const Answer answer =
            ask(textOf(section), textOf(key), static_cast<int16_t>(size), withValues ? 1 : 0);
        EXPECT_EQ(answer.result, result);
        EXPECT_TRUE(answer.bytes == expected) << ::testing::PrintToString(answer.bytes) << " for "
                                              << ::testing::PrintToString(expected);
        found_ += result == RM_SUCCESS ? 1 : 0;
    }

    void setOne()
    {
        const std::string section = anySection();
        IniModel::Name key = anyKey();
        IniModel::Name text = anyValue();
        const uint32_t dice = below(20);
        if (dice == 0) {
            key.reset();
        }
        if (dice < 5) {
            text.reset();
        }
        story_ << "set " << shown(section) << ' ' << shown(key) << ' ' << shown(text);
        const int result = set(section.c_str(), textOf(key), textOf(text));
        if (!present_) {
            EXPECT_EQ(result, RM_CANNOT_OPEN);
            EXPECT_NE(access(kFile, F_OK), 0);
            return;
        }
        EXPECT_EQ(result, RM_SUCCESS);
        const std::string after = IniModel::set(file_, section, key, text);
        const std::string real = contentsOf(kFile);
        EXPECT_TRUE(real == after)
            << ::testing::PrintToString(real) << " for " << ::testing::PrintToString(after);
        EXPECT_NE(access(kTemporary, F_OK), 0) << "the temporary file is left";
        changed_ += after != file_ ? 1 : 0;
        file_ = after;
    }

    void compareFor(uint64_t seed, long operations)
    {
        random_.seed(seed);
        for (long n = 0; n < operations; ++n) {
            story_.str("");
            if (n % kOperationsPerFile == 0 || file_.size() > kLargestFile * (1 + below(8))) {
                newFile();
            }
            if (oneIn(4)) {
                setOne();
            } else {
                getOne();
            }
            ASSERT_FALSE(HasFailure())
                << "RM_TEST_SEED=" << seed << ", operation " << n << ": " << story_.str()
                << "\nthe file is now " << ::testing::PrintToString(file_.substr(0, 5000));
            if (n % 1000 == 999) {
                expectNothingLeft();
            }
        }
    }

    long found_ = 0;    // questions that found something
    long changed_ = 0;  // changes that made other bytes

  private:
    std::mt19937_64 random_;
    bool present_ = false;
    std::string file_;          // what the file holds
    std::ostringstream story_;  // of the operation
};

TEST_F(IniRandom, QuestionsAndChangesDoWhatTheModelDoes)
{
    const uint64_t seed = rmtest::seedOfThisRun();
    const long operations = rmtest::operationsOfThisRun(kOperations);
    std::cout << "RM_TEST_SEED=" << seed << " RM_TEST_OPERATIONS=" << operations << std::endl;
    RecordProperty("seed", std::to_string(seed));
    compareFor(seed, operations);
    std::cout << found_ << " found, " << changed_ << " changed" << std::endl;
    EXPECT_GT(found_, operations / 8) << "the questions were about what is there";
    EXPECT_GT(changed_, operations / 16) << "the changes changed something";
}

}  // namespace
