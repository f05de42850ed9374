// What an INI file answers and what a change makes of it, over texts in memory.
#ifndef RM_TESTS_FUZZ_INI_MODEL_H
#define RM_TESTS_FUZZ_INI_MODEL_H

#include "stream_model.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace rmfuzz
{

using MaybeText = std::optional<std::string>;

inline const char* orNull(const MaybeText& text)
{
    return text ? text->c_str() : nullptr;
}

inline std::string folded(std::string_view text)
{
    std::string result(text);
    for (char& c : result) {
        c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    }
    return result;
}

inline bool sameName(std::string_view a, std::string_view b)
{
    return folded(a) == folded(b);
}

inline std::string_view upTo(std::string_view text, std::string_view anyOf)
{
    return text.substr(0, text.find_first_of(anyOf));
}

inline bool beginsWith(std::string_view line, char c)
{
    return !line.empty() && line.front() == c;
}

// The name in a line that begins with "[".
inline std::string_view headerName(std::string_view line)
{
    return upTo(line.substr(1), "]");
}

// The questions of the reading side. One object answers one of them.
class IniReader
{
  public:
    explicit IniReader(const std::string& file) : stream_(file) {}

    std::vector<std::string> sections()
    {
        std::vector<std::string> names;
        for (MaybeText line = next(); line; line = next()) {
            if (beginsWith(*line, '[')) {
                names.emplace_back(headerName(*line));
            }
        }
        return names;
    }

    std::vector<std::string> entries(const std::string& section, bool withValues)
    {
        std::vector<std::string> found;
        if (findSection(section)) {
            for (MaybeText line = next(); line && !line->empty() && !beginsWith(*line, '[');
                 line = next()) {
                if (!beginsWith(*line, ';')) {
                    found.emplace_back(withValues ? *line : upTo(*line, "="));
                }
            }
        }
        return found;
    }

    MaybeText value(const std::string& section, const std::string& key)
    {
        if (findSection(section)) {
            for (MaybeText line = next(); line && !line->empty(); line = next()) {
                const std::size_t equals = line->find('=');
                if (!beginsWith(*line, ';') && equals != std::string::npos &&
                    sameName(line->substr(0, equals), key)) {
                    return line->substr(equals + 1);
                }
            }
        }
        return {};
    }

  private:
    MaybeText next()
    {
        const StreamModel::Got line = stream_.getLine(&size_);
        return line.found ? MaybeText(upTo(line.bytes, "\r\n")) : MaybeText();
    }

    bool findSection(const std::string& section)
    {
        MaybeText line = next();
        while (line && !(beginsWith(*line, '[') && sameName(headerName(*line), section))) {
            line = next();
        }
        return line.has_value();
    }

    StreamModel stream_;
    uint32_t size_ = 100;  // of the buffer for lines
};

// A list as it stands in a buffer of `size` bytes: each entry with a zero behind it, one more zero,
// cut to what fits. What is not written is not there.
inline std::string listed(const std::vector<std::string>& entries, int64_t size)
{
    if (size <= 0) {
        return "";
    }
    const auto capacity = static_cast<std::size_t>(size) - 1;
    std::string list;
    for (const std::string& entry : entries) {
        list += entry + '\0';
    }
    if (list.size() >= capacity) {
        list.resize(capacity);
        if (capacity > 0) {
            list.back() = '\0';
        }
    }
    return list + '\0';
}

// A change: an entry set when key and value are given, deleted when only the key is, else the
// section deleted.
struct IniChange {
    std::string section;
    MaybeText key;
    MaybeText value;

    bool setsEntry() const { return key && value; }
};

// The writing side.
class IniWriter
{
  public:
    explicit IniWriter(const IniChange& change) : change_(change) {}

    std::string rewrite(std::string_view file)
    {
        while (!file.empty()) {
            const std::string_view line = upTo(file, "\n");
            file.remove_prefix(std::min(line.size() + 1, file.size()));
            step(line);
        }
        if (!done_ && change_.setsEntry()) {
            if (!inSection_) {
                put("");
                put("[" + change_.section + "]");
                madeSection_ = true;
            }
            putEntry();
        }
        return out_;
    }

    // After the rewrite.
    bool wroteEntry() const { return wroteEntry_; }

    bool madeSection() const { return madeSection_; }

  private:
    void put(std::string_view line) { out_.append(line) += '\n'; }

    void putEntry()
    {
        put(*change_.key + "=" + *change_.value);
        wroteEntry_ = true;
    }

    void step(std::string_view line)
    {
        if (done_) {
            put(line);
        } else if (!inSection_) {
            inSection_ = beginsWith(line, '[') && sameName(headerName(line), change_.section);
            if (!inSection_ || change_.key) {
                put(line);
            }
        } else if (!change_.key) {
            done_ = beginsWith(line, '[');
            if (done_) {
                put(line);
            }
        } else {
            stepInside(line);
        }
    }

    void stepInside(std::string_view line)
    {
        const bool isBlank = !line.empty() && std::string_view(" \t\n\v\f\r").find(line.front()) !=
                                                  std::string_view::npos;
        if (change_.value && isBlank) {
            putEntry();
            put(line);
            done_ = true;
        } else if (beginsWith(line, '[')) {
            put(line);
            done_ = true;
        } else if (!beginsWith(line, ';') && line.find('=') != std::string_view::npos &&
                   sameName(upTo(line, "="), *change_.key)) {
            if (change_.value) {
                putEntry();
                done_ = true;
            }
        } else {
            put(line);
        }
    }

    const IniChange& change_;
    std::string out_;
    bool inSection_ = false;
    bool done_ = false;
    bool wroteEntry_ = false;
    bool madeSection_ = false;
};

}  // namespace rmfuzz

#endif
