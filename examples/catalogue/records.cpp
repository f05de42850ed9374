// The input: records, as the format modules read them.
//
// Why: whatever the catalogue answers later is compared with this, so the fields of a record are
// kept byte for byte, whatever format they came in. A file with a fault is refused here, with the
// line, and not noticed later as a strange record.
//
// The modules know the formats; what all formats have in common is here: files are read whole, a
// format is chosen by its modules' own estimate, names are made unique, sizes are limited.
//
// Nothing of the library is called here, and by the modules neither: nothing can jump over these
// frames, so they own strings and maps as any C++ does. Compare store.cpp, where that is not so.
#include "records.h"

#include "console.h"

#include <algorithm>
#include <bit>
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
constexpr std::size_t kBodies = std::size_t{4} << 20;     // bytes of bodies that lie together
constexpr std::size_t kHead = 8192;                       // bytes by which a format is recognised
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

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

// A text from a file, shortened to what fits a message and made printable.
std::string shownText(std::string_view text)
{
    std::string shown(text.substr(0, 60));
    for (char& c : shown) {
        c = c < ' ' || c > '~' ? '?' : c;
    }
    return shown;
}

// Says what is wrong with a line, and what the format would have there.
bool refuse(const Place& place, const Format* format, const std::string& what,
            std::string_view shown = {})
{
    const std::string quoted = shown.data() == nullptr ? "" : ": \"" + shownText(shown) + "\"";
    complain("%s:%zu: %s%s%s%s", place.path, place.line, what.c_str(), quoted.c_str(),
             format == nullptr ? "" : "\n", format == nullptr ? "" : format->advice());
    return false;
}

// How often each name has been used; a name with its "#2" counts as a name of its own.
using Keys = std::unordered_map<std::string, unsigned>;

// Collects the fields of the files into records.
class Collector
{
  public:
    Collector(Input& input, Keys& keys) : input_(input), keys_(keys) {}

    // From here on the fields are those of another file.
    void enter(const char* path, const Format& format, const FormatReader& reader)
    {
        begin_ = {path, 0};
        format_ = &format;
        reader_ = &reader;
    }

    bool add(const FormatField& field)
    {
        const Place place = {begin_.path, field.line};
        if ((field.flags & FORMAT_NEW_RECORD) != 0) {
            if (!finish()) {
                return false;
            }
            begin_.line = field.line;
        }
        const std::string_view value(field.value, field.valueLength);
        body_.append(field.name, field.nameLength).append(1, '\0').append(value).append(1, '\0');
        if (body_.size() > kMaxRecord) {
            return refuse(place, format_, "the record is longer than 1 MiB", value);
        }
        return (field.flags & FORMAT_KEY) == 0 || takeKey(place, value);
    }

    // The record in progress, if there is one, has all its fields.
    bool finish()
    {
        if (body_.empty()) {
            return true;
        }
        if (key_.empty()) {
            return refuse(begin_, format_,
                          "the record that begins here lacks the field that names it",
                          reader_->key == nullptr ? std::string_view() : reader_->key);
        }
        input_.largest =
            std::max(input_.largest, static_cast<uint32_t>(key_.size() + body_.size()));
        input_.bytes += body_.size();
        const uint64_t hash = hashBytes(key_);
        input_.records.push_back({std::move(key_), keep(body_), hash});
        key_.clear();
        body_.clear();
        return true;
    }

  private:
    bool takeKey(const Place& place, std::string_view value)
    {
        const std::string name(trimmed(value.substr(0, value.find('\n'))));
        if (name.empty() || name.size() > kMaxKey) {
            return refuse(place, format_,
                          std::string(reader_->keyText) + " names the record in 1 to 200 bytes",
                          value);
        }
        for (const char c : name) {
            if ((c >= 0 && c < ' ') || c == 127) {
                return refuse(place, format_, "a control character in the name of a record", value);
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

    // Puts a body where it stays. What is there already never moves.
    std::string_view keep(const std::string& body)
    {
        if (input_.bodies.empty() ||
            input_.bodies.back().capacity() - input_.bodies.back().size() < body.size()) {
            input_.bodies.emplace_back().reserve(std::max(kBodies, body.size()));
        }
        std::string& room = input_.bodies.back();
        const std::size_t begin = room.size();
        room.append(body);
        return std::string_view(room).substr(begin);
    }

    Input& input_;
    Keys& keys_;
    Place begin_ = {nullptr, 0};            // of the record in progress
    const Format* format_ = nullptr;        // of the file
    const FormatReader* reader_ = nullptr;  // of the file
    std::string key_;                       // of the record in progress
    std::string body_;                      // of the record in progress; empty between records
};

// The format that a file is to be read by; null after having said that there is none.
const Format* chooseFormat(const std::string& path, std::string_view text, const Reading& reading)
{
    if (reading.format[0] != '\0') {
        return findFormat(reading.formats, reading.format);
    }
    const std::string_view head = text.substr(0, kHead);
    const Format* best = nullptr;
    uint32_t most = 0;
    for (uint32_t i = 0; i < reading.formats.count; ++i) {
        const Format& format = reading.formats.format[i];
        const uint32_t score = format.probe(head.data(), head.size(), head.size() == text.size());
        if (score > most) {
            most = score;
            best = &format;
        }
    }
    if (best == nullptr) {
        complain(
            "%s: its format is not recognised: it begins like none of %s.\n"
            "Name the one that it has with --format.",
            path.c_str(), formatNames(reading.formats).text);
    }
    return best;
}

bool splitFile(const std::string& path, std::string& text, const Reading& reading,
               Collector& collector, const char*& formatName)
{
    if (text.starts_with(kByteOrderMark)) {
        text.erase(0, kByteOrderMark.size());
    }
    if (const std::size_t nul = text.find('\0'); nul != std::string::npos) {
        const std::size_t begin = text.rfind('\n', nul) + 1;  // 0 in the first line
        const auto line =
            static_cast<std::size_t>(std::count(text.data(), text.data() + nul, '\n'));
        const std::size_t end = std::min(text.find('\n', nul), text.size());
        return refuse({path.c_str(), line + 1}, nullptr, "a NUL byte, so this is not a text",
                      std::string_view(text).substr(begin, end - begin));
    }
    if (text.find_first_not_of(" \t\r\n\f\v") == std::string::npos) {
        return true;  // of any format, and empty
    }
    const Format* const format = chooseFormat(path, text, reading);
    if (format == nullptr) {
        return false;
    }
    formatName = format->name;
    FormatReader reader = {};
    reader.text = text.data();
    reader.size = text.size();
    reader.key = reading.key[0] == '\0' ? nullptr : reading.key;
    reader.keyText = "";
    collector.enter(path.c_str(), *format, reader);
    FormatField field = {};
    int found = format->begin(&reader);
    while (found != FORMAT_FAULT && (found = format->next(&reader, &field)) == FORMAT_FIELD) {
        if (!collector.add(field)) {
            return false;
        }
    }
    if (found == FORMAT_FAULT) {
        return refuse({path.c_str(), reader.line}, format, reader.fault,
                      {reader.shown, reader.shownLength});
    }
    return collector.finish();
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

bool readInput(const std::vector<std::string>& paths, const Reading& reading, Input& input)
{
    Keys keys;
    Collector collector(input, keys);
    for (const std::string& path : paths) {
        std::string text;
        if (!readFile(path, text) ||
            !splitFile(path, text, reading, collector, input.formats.emplace_back())) {
            return false;
        }
    }
    if (input.records.empty()) {
        complain("%s holds no record.\nFiles of these formats can be read: %s.",
                 paths.front().c_str(), formatNames(reading.formats).text);
        return false;
    }
    return true;
}

void indexInput(const Input& input, RecordIndex& index)
{
    index.assign(std::bit_ceil(2 * input.records.size() + 1), kNoRecord);
    for (uint32_t number = 0; number < input.records.size(); ++number) {
        auto at = static_cast<std::size_t>(input.records[number].hash & (index.size() - 1));
        while (index[at] != kNoRecord) {
            at = (at + 1) & (index.size() - 1);
        }
        index[at] = number;
    }
}

uint32_t findInput(const Input& input, const RecordIndex& index, std::string_view name)
{
    auto at = static_cast<std::size_t>(hashBytes(name) & (index.size() - 1));
    while (index[at] != kNoRecord && input.records[index[at]].key != name) {
        at = (at + 1) & (index.size() - 1);
    }
    return index[at];
}

}  // namespace catalogue
