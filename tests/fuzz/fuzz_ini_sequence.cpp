// Changes and questions to two INI files in turn, the default one and another: after each, the
// files are the model's, byte for byte, and so is the local environment, which gets what is set in
// one section of the default file.
//
// Input: the two files at first, each with a zero behind it, then a byte for each call with what it
// needs. The low three bits of a call say which, the others are its flags.
#include "fuzz.h"
#include "tests/models/ini_model.h"

#include "rm.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <map>
#include <optional>

#include <unistd.h>

namespace
{
using rmfuzz::Buffer;
using rmfuzz::Input;
using rmfuzz::Text;
using rmtest::IniModel;
using Name = IniModel::Name;

constexpr int kMostCalls = 40;
constexpr std::size_t kLargestFile = 20'000;
constexpr int16_t kRoomy = 4000;

enum Call : uint8_t {
    kSet,
    kSetToo,
    kGet,
    kGetToo,
    kDeleteEntry,
    kDeleteSection,
    kRemoveFile,
    kMissing,
};

enum CallFlag : uint8_t {
    kOther = 0x08,  // not the default file
    kFew = 0x10,    // a section and a key of a few that inputs meet by
    kNoKey = 0x20,  // of a question
    kNoSection = 0x40,
    kEnvironment = 0x80,
};

constexpr std::array kSections = {"server", "ENVIRONMENT", "a", "A", "b"};
constexpr std::array kKeys = {"k", "K", "key", "FileCommit", "k2"};

std::string upper(std::string text)
{
    for (char& c : text) {
        c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    }
    return text;
}

const char* orNull(const Name& name, const Text& text)
{
    return name ? text.get() : nullptr;
}

class Files
{
  public:
    explicit Files(Input& input) : input_(input)
    {
        rmfuzz::clearDirectory();
        setenv("CATPATH", rmfuzz::directory().c_str(), 1);
        for (const bool other : {false, true}) {
            files_[other] = input.text();
            rmfuzz::writeFile(path(other), *files_[other]);
        }
    }

    void step()
    {
        const uint8_t call = input_.byte();
        const bool other = (call & kOther) != 0;
        const std::string section = (call & kEnvironment) != 0 ? "environment"
                                    : (call & kFew) != 0       ? one(kSections)
                                                               : input_.text();
        const std::string key = (call & kFew) != 0 ? one(kKeys) : input_.text();
        switch (static_cast<Call>(call & 7U)) {
            case kGet:
            case kGetToo:
                get((call & kNoSection) != 0 ? Name() : section,
                    (call & kNoKey) != 0 ? Name() : key, other);
                break;
            case kDeleteEntry:
                set(section, key, {}, other);
                break;
            case kDeleteSection:
                set(section, {}, {}, other);
                break;
            case kRemoveFile:
                removeFile(other);
                break;
            case kMissing:
                missing(section, other);
                break;
            default:
                set(section, key, input_.text(), other);
                break;
        }
        compare();
    }

  private:
    static std::string path(bool other)
    {
        return rmfuzz::pathOf(other ? "other.ini" : "corvane.ini");
    }

    template <typename Names>
    std::string one(const Names& names)
    {
        return names.at(input_.byte() % names.size());
    }

    void set(const std::string& section, const Name& key, const Name& value, bool other)
    {
        std::optional<std::string>& file = files_[other];
        if (file && file->size() > kLargestFile) {
            return;
        }
        const Text sectionText(section);
        const Text keyText(key.value_or(""));
        const Text valueText(value.value_or(""));
        const int16_t status =
            other ? rm_iniSetPrivate(sectionText.get(), orNull(key, keyText),
                                     orNull(value, valueText), path(true).c_str())
                  : rm_iniSet(sectionText.get(), orNull(key, keyText), orNull(value, valueText));
        FUZZ_CHECK(sectionText.unchanged() && keyText.unchanged() && valueText.unchanged());
        FUZZ_CHECK(status == (file ? RM_SUCCESS : RM_CANNOT_OPEN));
        if (!file) {
            return;
        }
        *file = IniModel::set(*file, section, key, value);
        if (!other && key && value && upper(section) == "ENVIRONMENT") {
            put(*key + "=" + *value);
        }
    }

    // As the local environment takes it.
    void put(const std::string& text)
    {
        const std::string entry = upper(text);
        const std::string name = entry.substr(0, entry.find('='));
        const auto old =
            std::find_if(environment_.begin(), environment_.end(),
                         [&name](const std::string& found) { return found.starts_with(name); });
        if (old != environment_.end()) {
            *old = entry;
        } else {
            environment_.push_back(entry);
        }
        lastName_ = name;
    }

    void get(const Name& section, const Name& key, bool other)
    {
        const auto size = static_cast<int16_t>(input_.byte() % 8 == 0 ? kRoomy : input_.byte() - 2);
        const bool withValues = input_.byte() % 2 == 1;
        Buffer buffer(size);
        const Text sectionText(section.value_or(""));
        const Text keyText(key.value_or(""));
        const char* sectionAsked = orNull(section, sectionText);
        const char* keyAsked = orNull(key, keyText);
        const int16_t status =
            other ? rm_iniGetPrivate(sectionAsked, keyAsked, buffer.data(), size,
                                     withValues ? 1 : 0, path(true).c_str())
                  : rm_iniGet(sectionAsked, keyAsked, buffer.data(), size, withValues ? 1 : 0);
        buffer.check();
        FUZZ_CHECK(sectionText.unchanged() && keyText.unchanged());
        if (!files_[other]) {
            FUZZ_CHECK(status == RM_NOT_FOUND && buffer.untouched());
            return;
        }
        std::string expected(buffer.size(), Buffer::kUntouched);
        FUZZ_CHECK(status ==
                   IniModel::get(*files_[other], section, key, withValues, size, &expected));
        FUZZ_CHECK(buffer.contents() == expected);
    }

    void removeFile(bool other)
    {
        if (files_[other]) {
            FUZZ_CHECK(rm_fileRemove(path(other).c_str()) == 0);
            files_[other] = {};
        } else {
            files_[other] = input_.text();
            rmfuzz::writeFile(path(other), *files_[other]);
        }
    }

    // What is asked for with something missing.
    void missing(const std::string& section, bool other)
    {
        Buffer buffer(10);
        const std::string file = path(other);
        FUZZ_CHECK(rm_iniSetPrivate(nullptr, "k", "v", file.c_str()) == RM_MISSING_ARGUMENT);
        FUZZ_CHECK(rm_iniSet(nullptr, "k", "v") == RM_MISSING_ARGUMENT);
        FUZZ_CHECK(rm_iniGetPrivate(section.c_str(), "k", nullptr, 10, 1, file.c_str()) ==
                   RM_MISSING_ARGUMENT);
        FUZZ_CHECK(rm_iniGetPrivate(section.c_str(), "k", buffer.data(), 10, 1, nullptr) ==
                   RM_MISSING_ARGUMENT);
        FUZZ_CHECK(rm_iniGet(section.c_str(), "k", nullptr, 10, 1) == RM_MISSING_ARGUMENT);
        FUZZ_CHECK(buffer.untouched());
    }

    void compare()
    {
        std::vector<std::string> names;
        for (const bool other : {false, true}) {
            if (files_[other]) {
                names.emplace_back(other ? "other.ini" : "corvane.ini");
                FUZZ_CHECK(rmfuzz::readFile(path(other)) == *files_[other]);
            }
        }
        FUZZ_CHECK(rmfuzz::directoryEntries() == names);
        if (!lastName_.empty() && lastName_.size() < 128) {
            const auto found = std::find_if(
                environment_.begin(), environment_.end(),
                [this](const auto& entry) { return entry.starts_with(lastName_ + "="); });
            const char* value = rm_getLocalEnv(lastName_.c_str());
            FUZZ_CHECK((value != nullptr) == (found != environment_.end()));
            FUZZ_CHECK(value == nullptr || found->substr(lastName_.size() + 1) == value);
        }
    }

    Input& input_;
    std::map<bool, std::optional<std::string>> files_;
    std::vector<std::string> environment_;
    std::string lastName_;
};
}  // namespace

void rmfuzz::fuzzInput(Input& input)
{
    beginAnew(true);
    Files files(input);
    for (int i = 0; i < kMostCalls && !input.empty(); ++i) {
        files.step();
    }
}
