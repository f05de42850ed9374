// The local environment: texts put in any order, and names looked up in it and behind it.
//
// Input: a byte for each call, and the text that it is made with, with a zero behind it.
#include "fuzz.h"

#include "rm.h"
#include "rm/rmutil/rmutil.h"

#include <cstdlib>
#include <optional>

namespace
{
using rmfuzz::Text;
using MaybeText = std::optional<std::string>;

constexpr int kMostCalls = 200;
constexpr std::size_t kLongestName = 127;    // bytes of one that is found at all
constexpr const char* kOfSystem = "RMFUZZ";  // what the system's environment has

enum Call : uint8_t {
    kPut,
    kPutToo,
    kGet,
    kGetToo,
    kPath,
    kCalls,
};

std::string upper(std::string text)
{
    for (char& c : text) {
        c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    }
    return text;
}

class EnvironmentModel
{
  public:
    // The first entry that begins with the name goes, whatever stands behind the name in it.
    void put(const std::string& text)
    {
        const std::string entry = upper(text);
        const std::string name = entry.substr(0, entry.find('='));
        for (std::string& old : entries_) {
            if (old.starts_with(name)) {
                old = entry;
                return;
            }
        }
        entries_.push_back(entry);
    }

    MaybeText getLocal(const std::string& name) const
    {
        for (const std::string& entry : entries_) {
            if (name.size() <= kLongestName && entry.starts_with(upper(name) + '=')) {
                return entry.substr(name.size() + 1);
            }
        }
        return {};
    }

    MaybeText get(const std::string& name) const
    {
        const MaybeText local = getLocal(name);
        const char* outside = std::getenv(name.c_str());
        return local || outside == nullptr ? local : outside;
    }

    const std::vector<std::string>& entries() const { return entries_; }

  private:
    std::vector<std::string> entries_;
};

void checkText(const char* found, const MaybeText& expected)
{
    FUZZ_CHECK((found != nullptr) == expected.has_value());
    FUZZ_CHECK(found == nullptr || found == *expected);
}

void checkGet(const EnvironmentModel& model, const std::string& asked)
{
    const Text name(asked);
    const std::string ended = name.get();
    checkText(rm_getLocalEnv(name.get()), model.getLocal(ended));
    checkText(rm_getenv(name.get()), model.get(ended));
    checkText(rm_OSgetenv(name.get()), std::getenv(name.get()) == nullptr
                                           ? MaybeText()
                                           : MaybeText(std::getenv(name.get())));
    FUZZ_CHECK(name.unchanged());
}

// Who asks for the directory of relative paths is told by the same entries.
void checkPath(const EnvironmentModel& model)
{
    char* path = allocWithCatPath("./x");
    MaybeText expected = model.get("CATPATH");
    if (expected) {
        if (expected->ends_with('/')) {
            expected->pop_back();
        }
        *expected += "/x";
    }
    checkText(path, expected);
    rm_freeMemory(path, 0);
}

void compare(const EnvironmentModel& model)
{
    FUZZ_CHECK(rmutil::NumLocalEnv == model.entries().size());
    for (std::size_t i = 0; i < model.entries().size(); ++i) {
        FUZZ_CHECK(model.entries()[i] == rmutil::LocalEnv[i]);
    }
    FUZZ_CHECK(rmutil::checkLocalEnv() == 0);
}
}  // namespace

void rmfuzz::fuzzInput(Input& input)
{
    beginAnew(true);
    setenv(kOfSystem, "Outside", 1);
    unsetenv("CATPATH");
    EnvironmentModel model;
    rm_putLocalEnv(nullptr);
    FUZZ_CHECK(rm_getLocalEnv(nullptr) == nullptr && rm_getenv(nullptr) == nullptr);
    for (int i = 0; i < kMostCalls && !input.empty(); ++i) {
        const auto call = static_cast<Call>(input.byte() % kCalls);
        if (call == kPath) {
            checkPath(model);
            continue;
        }
        const Text text(input.text());
        if (call == kGet || call == kGetToo) {
            checkGet(model, text.original());
        } else {
            rm_putLocalEnv(text.get());
            model.put(text.original());
            FUZZ_CHECK(text.unchanged());
        }
        compare(model);
    }
    checkGet(model, kOfSystem);
    checkPath(model);
}
