// Shared objects under any names: which path the linker is asked for, which entry point, and what
// becomes of the record. The dynamic linker is the target's own and does as the input says.
//
// Input: for each call a byte, then a text with a zero behind it.
#include "fuzz.h"

#include "rm.h"
#include "rm/unix/unix.h"

#include <algorithm>
#include <optional>

#include <dlfcn.h>

// The calls of the dynamic linker, by the names that the library's file is compiled with.
extern "C" void* fuzzDlopen(const char* path, int mode);
extern "C" void* fuzzDlsym(void* from, const char* name);
extern "C" int fuzzDlclose(void* closed);
extern "C" char* fuzzDlerror();

namespace
{
using rmfuzz::Input;
using rmfuzz::Text;

constexpr int kMostCalls = 60;
constexpr std::size_t kLongestPath = 99;     // bytes of a path that is asked for at all
constexpr std::size_t kLongestSymbol = 103;  // and of an entry point

enum Call : uint8_t {
    kLoad,
    kLoadToo,
    kAsk,
    kUnload,
    kCalls,
};

enum How : uint8_t {
    kWorks,
    kDoesNotOpen,
    kHasNoEntry,
    kDoesNotClose,
    kHows,
};

How how = kWorks;
int openObjects = 0;
std::string askedPath;
std::string askedSymbol;
std::optional<std::string> entered;
char reason[] = "the reason";
char object;
char function;

void enter(const char* name)
{
    entered = name;
}

char upper(char c)
{
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

// The last part of the name, without "lib" in any case, in capitals.
std::string symbolOf(const std::string& name)
{
    const std::size_t slash = name.rfind('/');
    std::string base = slash == std::string::npos ? name : name.substr(slash + 1);
    std::transform(base.begin(), base.end(), base.begin(), upper);
    return (base.starts_with("LIB") ? base.substr(3) : base) + "_ModEntry";
}

class Run
{
  public:
    explicit Run(Input& input) : input_(input)
    {
        rmfuzz::beginAnew(true);
        openObjects = 0;
    }

    void step()
    {
        const uint8_t byte = input_.byte();
        how = static_cast<How>(byte / 16 % kHows);
        entered = {};
        askedPath.clear();
        askedSymbol.clear();
        switch (byte % kCalls) {
            case kAsk:
                ask();
                break;
            case kUnload:
                unload();
                break;
            default:
                load();
                break;
        }
        FUZZ_CHECK(openObjects == std::count_if(modules_.begin(), modules_.end(),
                                                [](const auto& module) { return module.second; }));
    }

  private:
    void load()
    {
        const Text name(input_.text());
        const std::string& text = name.original();
        const std::string path = text + ".so";
        const std::string symbol = symbolOf(text);
        const bool fits = path.size() <= kLongestPath && symbol.size() <= kLongestSymbol;
        void* module = nullptr;
        const int16_t status = rm_OSemLoad(name.get(), &module);
        FUZZ_CHECK(name.unchanged());
        const bool loads = fits && (how == kWorks || how == kDoesNotClose);
        FUZZ_CHECK(status == (loads ? RM_SUCCESS : RM_NOT_FOUND) && (module != nullptr) == loads);
        FUZZ_CHECK(askedPath == (fits ? path : ""));
        FUZZ_CHECK(askedSymbol == (fits && how != kDoesNotOpen ? symbol : ""));
        FUZZ_CHECK(entered == (loads ? std::optional(text) : std::nullopt));
        const std::string log = rmfuzz::takeLog();
        if (fits && how == kDoesNotOpen) {
            // The first message brings a newline of its own.
            FUZZ_CHECK(log.find("]  Failed to load module '" + path + "'\n\n[") !=
                       std::string::npos);
            FUZZ_CHECK(log.ends_with("]    REASON: errno = 0  the reason\n"));
        } else {
            FUZZ_CHECK(log.empty());
        }
        if (loads) {
            modules_.emplace_back(module, true);
        }
    }

    void* module()
    {
        const uint8_t choice = input_.byte();
        if (modules_.empty() || choice == UINT8_MAX) {
            return nullptr;
        }
        return modules_[choice % modules_.size()].first;
    }

    bool* isOpen(void* module)
    {
        for (auto& one : modules_) {
            if (one.first == module) {
                return &one.second;
            }
        }
        return nullptr;
    }

    void ask()
    {
        void* one = module();
        const Text name(input_.text());
        void* address = &function;
        const int16_t status = rm_OSemGetFcnAddr(one, name.get(), &address);
        const bool found = one != nullptr && *isOpen(one) && how != kHasNoEntry;
        FUZZ_CHECK(status == (found ? RM_SUCCESS : RM_NOT_FOUND));
        FUZZ_CHECK((address == nullptr) == !found);
        FUZZ_CHECK(askedSymbol == (one != nullptr && *isOpen(one) ? name.original() : ""));
        FUZZ_CHECK(name.unchanged());
    }

    void unload()
    {
        void* one = module();
        const bool closes = one != nullptr && *isOpen(one) && how != kDoesNotClose;
        FUZZ_CHECK(rm_OSemUnload(one) == (closes ? RM_SUCCESS : RM_FULL));
        if (closes) {
            *isOpen(one) = false;
        }
    }

    Input& input_;
    std::vector<std::pair<void*, bool>> modules_;  // and whether they are loaded still
};
}  // namespace

void* fuzzDlopen(const char* path, int mode)
{
    FUZZ_CHECK(mode == RTLD_NOW);
    askedPath = path;
    openObjects += how == kDoesNotOpen ? 0 : 1;
    return how == kDoesNotOpen ? nullptr : &object;
}

void* fuzzDlsym(void* from, const char* name)
{
    FUZZ_CHECK(from == &object);
    askedSymbol = name;
    return how == kHasNoEntry ? nullptr : reinterpret_cast<void*>(enter);
}

int fuzzDlclose(void* closed)
{
    FUZZ_CHECK(closed == &object);
    if (how == kDoesNotClose) {
        return -1;
    }
    --openObjects;
    return 0;
}

char* fuzzDlerror()
{
    return reason;
}

void rmfuzz::fuzzInput(Input& input)
{
    expectLog();
    Run run(input);
    for (int i = 0; i < kMostCalls && !input.empty(); ++i) {
        run.step();
    }
}
