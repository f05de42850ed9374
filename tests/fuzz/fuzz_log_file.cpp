// The log file: opened under any name, written to, parked when descriptors are short, closed. The
// file that stood there before is kept once, by its last dot.
//
// Input: a byte for the files that there are at first, then one for each call with what it needs
// behind it. Texts end with a zero.
#include "fuzz.h"

#include "rm.h"
#include "rm/file/file.h"
#include "rm/rmsrv/rmsrv.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <map>

namespace
{
using rmfuzz::Input;
using rmfuzz::Text;

constexpr int kMostCalls = 100;
constexpr std::size_t kLongestName = 6;
constexpr std::size_t kLongestMessage = 259;
constexpr int16_t kWithLogFile = 2;

enum Call : uint8_t {
    kLevel,
    kOpen,
    kOpenToo,
    kClose,
    kWrite,
    kWriteToo,
    kWriteOptional,
    kPark,
    kUser,
    kCalls,
};

// Files by their names in the directory, and whether the log file is one of them.
class LogModel
{
  public:
    std::map<std::string, std::string> files;
    int16_t level = 0;
    bool isOpen = false;

    // False when it is fatal.
    bool open(const std::string& path)
    {
        if (level == 0 || isOpen) {
            return true;
        }
        const std::string name = nameOf(path);
        const std::size_t dot = path.rfind('.');
        if (exists(name) && dot != std::string::npos) {
            const std::string backup = nameOf(path.substr(0, dot) + ".bak");
            files.erase(backup);
            const auto old = files.find(name);
            if (old != files.end()) {
                files[backup] = old->second;
                files.erase(name);
            }
        }
        if (isDirectory(name)) {
            return false;
        }
        files[name].clear();
        open_ = name;
        isOpen = true;
        return true;
    }

    void line(const std::string& bytes)
    {
        if (isOpen && level >= kWithLogFile) {
            files[open_] += bytes;
        }
    }

    void close()
    {
        isOpen = false;
        level = 0;
    }

  private:
    static bool isDirectory(const std::string& name)
    {
        return name.empty() || name == "." || name == "..";
    }

    bool exists(const std::string& name) const
    {
        return !name.empty() && (isDirectory(name) || files.contains(name));
    }

    static std::string nameOf(const std::string& path)
    {
        return path.starts_with("./") ? path.substr(2) : path;
    }

    std::string open_;
};

// A name in the current directory, of few letters, so that inputs meet.
std::string pathBy(Input& input)
{
    constexpr std::string_view kLetters = "ab..k";
    const bool isRelative = input.byte() % 4 == 0;
    std::string name = input.text().substr(0, kLongestName);
    for (char& c : name) {
        c = kLetters[static_cast<unsigned char>(c) % kLetters.size()];
    }
    // Nothing but the directory itself, which "./" alone would name too.
    return (isRelative && !name.empty() && name != "." && name != ".." ? "./" : "") + name;
}

// What stands on a line behind its stamp.
std::string messageOf(const std::string& text)
{
    return text.substr(0, kLongestMessage);
}

// A text that the second expansion of optional messages leaves as it is.
std::string withoutPercent(std::string text)
{
    std::erase(text, '%');
    return text;
}

class Log
{
  public:
    explicit Log(Input& input) : input_(input)
    {
        rmfuzz::clearDirectory();
        constexpr std::array kNames = {"a", "a.a", "a.bak", ".bak", "a.b.a", "b", "b.bak", "k.a"};
        const uint8_t chosen = input.byte();
        for (std::size_t i = 0; i < kNames.size(); ++i) {
            if ((chosen >> i & 1U) != 0) {
                rmfuzz::writeFile(kNames.at(i), kNames.at(i));
                model_.files[kNames.at(i)] = kNames.at(i);
            }
        }
    }

    void step()
    {
        const auto call = static_cast<Call>(input_.byte() % kCalls);
        make(call);
        if (call != kLevel && call != kUser) {
            compare();
        }
    }

    void end()
    {
        rm_systemLogClose();
        model_.close();
        compare();
        FUZZ_CHECK(rm_systemLog(0) == 0);
        fileHandleLimit = 32;
    }

  private:
    void openLog()
    {
        const Text path(pathBy(input_));
        rm_systemLogOpen(nullptr);
        const bool returned = rmfuzz::comesBack([&] { rm_systemLogOpen(path.get()); });
        FUZZ_CHECK(path.unchanged());
        FUZZ_CHECK(returned == model_.open(path.original()));
        rmfuzz::takeLog();  // of a failure
        if (!returned) {
            closeLeft(path.get());
        }
    }

    // In fatal mode a file that cannot be opened keeps its slot: the host that comes back closes
    // it.
    static void closeLeft(const char* path)
    {
        for (int16_t slot = 0; slot < file::ftabSize; ++slot) {
            const file::FileEntry* entry = file::usedEntry(slot);
            if (entry != nullptr && std::strcmp(entry->name, path) == 0) {
                rm_fileClose(slot);
                return;
            }
        }
        rmfuzz::fail("the slot of a file that was not opened", __FILE__, __LINE__);
    }

    void write(bool optional)
    {
        const std::string text = optional ? withoutPercent(input_.text()) : input_.text();
        errno = ENOENT;
        if (optional) {
            rm_systemLogOptWrite("%s", text.c_str());
        } else {
            rm_systemLogWrite("%s%d", text.c_str(), 7);
        }
        FUZZ_CHECK(errno == ENOENT);
        const std::string line = rmfuzz::takeLog();
        model_.line(line);
        if (optional && model_.level == 0) {
            FUZZ_CHECK(line.empty());
        } else {
            FUZZ_CHECK(line.ends_with("]  " + messageOf(text + (optional ? "" : "7")) + "\n"));
        }
    }

    // Other files take the descriptors, so that the log's is given up.
    void park()
    {
        fileHandleLimit = static_cast<int16_t>(1 + input_.byte() % 3);
        for (int i = 0; i < 3; ++i) {
            const int16_t other = rm_fileOpen("/dev/null", RM_O_RDONLY, 0, 0, 0);
            FUZZ_CHECK(other != RM_NONE);
            rm_fileClose(other);
        }
    }

    // Beside the log, the identity that goes with it: at most 14 characters of a name.
    void user()
    {
        constexpr std::size_t kMost = 14;
        const Text name(input_.text());
        const auto session = static_cast<uint16_t>(input_.int16());
        rm_userSave(name.get(), session);
        rmfuzz::Buffer buffer(kMost + 1);
        uint16_t savedSession = 0;
        rm_userGet(nullptr, nullptr);
        rm_userGet(buffer.data(), &savedSession);
        buffer.check();
        FUZZ_CHECK(buffer.text() == name.original().substr(0, kMost) && savedSession == session);
        FUZZ_CHECK(name.unchanged());
    }

    void make(Call call)
    {
        switch (call) {
            case kLevel: {
                const auto level = static_cast<int16_t>(input_.byte() % 4);
                FUZZ_CHECK(rm_systemLog(level) == model_.level);
                model_.level = level;
                break;
            }
            case kClose:
                rm_systemLogClose();
                model_.close();
                break;
            case kWrite:
            case kWriteToo:
                write(false);
                break;
            case kWriteOptional:
                write(true);
                break;
            case kPark:
                park();
                break;
            case kUser:
                user();
                break;
            default:
                openLog();
                break;
        }
    }

    void compare() const
    {
        FUZZ_CHECK((sysfile != RM_NONE) == model_.isOpen && syslogon == model_.level);
        std::vector<std::string> names;
        for (const auto& [name, bytes] : model_.files) {
            names.push_back(name);
            FUZZ_CHECK(rmfuzz::readFile(name) == bytes);
        }
        FUZZ_CHECK(rmfuzz::directoryEntries() == names);
    }

    Input& input_;
    rmfuzz::InDirectory inDirectory_;
    LogModel model_;
};
}  // namespace

void rmfuzz::fuzzInput(Input& input)
{
    expectLog();
    Log log(input);
    for (int i = 0; i < kMostCalls && !input.empty(); ++i) {
        log.step();
    }
    log.end();
}
