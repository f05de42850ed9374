// The input: records of "Field: value" lines.
//
// Why: whatever the catalogue answers later is compared with this, so the text of a record is kept
// byte for byte, and a file that is not made of records is refused here, with its line, and not
// noticed later as a strange record.
//
// Format: a record is a run of lines that are not blank. A line is either "Field: value", or it
// begins with white space and continues the field before it. The value of the first field names
// the record. A line of nothing but white space is blank.
//
// This runs before the library is first used: nothing can jump over these frames, so they own
// strings and maps as any C++ does. Compare store.cpp, where that is not so.
#include "records.h"

#include "console.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <unordered_map>

#include <sys/stat.h>

namespace catalogue
{
namespace
{
constexpr std::size_t kMaxFile = std::size_t{256} << 20;  // bytes; an offset is 32 bits wide
constexpr std::size_t kMaxRecord = std::size_t{1} << 20;  // bytes; every worker buffers one
constexpr std::size_t kMaxKey = 200;                      // bytes
constexpr std::size_t kReadChunk = 65536;                 // bytes

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

// A place in the input, for messages.
struct Place {
    const char* path;
    std::size_t line;
};

bool readFile(const std::string& path, std::string& text)
{
    const std::unique_ptr<std::FILE, CloseFile> file(std::fopen(path.c_str(), "rbe"));
    if (file == nullptr) {
        const std::string advice =
            path == kDefaultInput ? "Name files of records on the command line."
                                  : std::string("Without a file, ") + kDefaultInput + " is taken.";
        complain("cannot open %s: %s\n%s", path.c_str(), std::strerror(errno), advice.c_str());
        return false;
    }
    std::size_t got = 0;
    do {
        const std::size_t used = text.size();
        if (used > kMaxFile) {
            complain("%s is larger than %zu MiB: divide it.", path.c_str(), kMaxFile >> 20);
            return false;
        }
        text.resize(used + kReadChunk);
        got = std::fread(text.data() + used, 1, kReadChunk, file.get());
        text.resize(used + got);
    } while (got != 0);
    if (std::ferror(file.get()) != 0) {
        complain("cannot read %s: %s", path.c_str(), std::strerror(errno));
        return false;
    }
    return true;
}

bool isSpace(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\f' || c == '\v';
}

std::string_view trimmed(std::string_view text)
{
    while (!text.empty() && isSpace(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && isSpace(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

// Length of the field's name, 0 when the line has none. A name is printable and has no blank.
std::size_t fieldNameLength(std::string_view line)
{
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) {
        return 0;
    }
    for (const char c : line.substr(0, colon)) {
        if (c <= ' ' || c > '~') {
            return 0;
        }
    }
    return colon;
}

// Says what is wrong with `line`, shortened to what fits a message and made printable.
bool refuse(const Place& place, const char* what, std::string_view line)
{
    std::string shown(line.substr(0, 60));
    for (char& c : shown) {
        c = c < ' ' || c > '~' ? '?' : c;
    }
    complain(
        "%s:%zu: %s: \"%s\"\nA record is a run of \"Field: value\" lines; a line that begins with\n"
        "white space continues a field; a blank line ends the record.",
        place.path, place.line, what, shown.c_str());
    return false;
}

// How often each name has been used; a name with its "#2" counts as a name of its own.
using Keys = std::unordered_map<std::string, unsigned>;

// Collects the lines of the files into records.
class Collector
{
  public:
    Collector(Input& input, Keys& keys) : input_(input), keys_(keys) {}

    bool add(const Place& place, std::string_view line)
    {
        if (line.find('\0') != std::string_view::npos) {
            return refuse(place, "a NUL byte, so this is not a text", line);
        }
        if (trimmed(line).empty()) {
            finish();
            return true;
        }
        if (isSpace(line.front())) {
            if (body_.empty()) {
                return refuse(place, "a continuation without a field before it", line);
            }
        } else {
            const std::size_t name = fieldNameLength(line);
            if (name == 0) {
                return refuse(place, "neither a field nor a continuation", line);
            }
            if (body_.empty() && !begin(place, line, name)) {
                return false;
            }
        }
        const char* start = body_.empty() ? line.data() : body_.data();
        body_ = std::string_view(start, static_cast<std::size_t>(line.end() - start));
        if (body_.size() > kMaxRecord) {
            return refuse(place, "the record is longer than 1 MiB", line);
        }
        return true;
    }

    void finish()
    {
        if (body_.empty()) {
            return;
        }
        const auto size = static_cast<uint32_t>(key_.size() + body_.size());
        input_.largest = std::max(input_.largest, size);
        input_.bytes += body_.size();
        const uint64_t hash = hashBytes(key_);
        input_.records.push_back({std::move(key_), body_, hash});
        body_ = {};
    }

  private:
    bool begin(const Place& place, std::string_view line, std::size_t nameLength)
    {
        const std::string name(trimmed(line.substr(nameLength + 1)));
        if (name.empty() || name.size() > kMaxKey) {
            return refuse(place, "the first field names the record in 1 to 200 bytes", line);
        }
        for (const char c : name) {
            if ((c >= 0 && c < ' ') || c == 127) {
                return refuse(place, "a control character in the name of a record", line);
            }
        }
        key_ = name;
        unsigned& uses = keys_[name];
        while (uses++ != 0) {
            key_ = name + "#" + std::to_string(uses);
            if (keys_.try_emplace(key_, 1).second) {
                break;
            }
        }
        return true;
    }

    Input& input_;
    Keys& keys_;
    std::string key_;        // of the record in progress
    std::string_view body_;  // of the record in progress; empty between records
};

bool splitFile(const char* path, std::string_view text, Collector& collector)
{
    Place place = {path, 0};
    while (!text.empty()) {
        ++place.line;
        const std::size_t end = std::min(text.find('\n'), text.size());
        if (!collector.add(place, text.substr(0, end))) {
            return false;
        }
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    collector.finish();
    return true;
}
}  // namespace

uint64_t hashBytes(std::string_view bytes, uint64_t hash)
{
    constexpr uint64_t kPrime = 0x100000001B3;
    for (const char c : bytes) {
        hash = (hash ^ static_cast<unsigned char>(c)) * kPrime;
    }
    return hash;
}

bool readInput(const std::vector<std::string>& paths, Input& input)
{
    Keys keys;
    Collector collector(input, keys);
    for (const std::string& path : paths) {
        std::string& text = input.texts.emplace_back();
        if (!readFile(path, text) || !splitFile(path.c_str(), text, collector)) {
            return false;
        }
    }
    if (input.records.empty()) {
        complain("%s holds no record.\nA record is a run of \"Field: value\" lines.",
                 paths.front().c_str());
        return false;
    }
    return true;
}

}  // namespace catalogue
