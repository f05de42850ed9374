// What would surprise in an INI file.
#ifndef RMINI_CHECK_H
#define RMINI_CHECK_H

#include "document.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace rmini
{

enum class Kind {
    kBeforeSection,
    kBehindEmpty,
    kByteOrderMark,
    kDuplicateKey,
    kDuplicateSection,
    kHashComment,
    kHeaderOpen,
    kHeaderText,
    kIndented,
    kKeyBlank,
    kLeftOver,
    kLoneReturn,
    kMixedEnds,
    kNoEquals,
    kNoNewline,
    kNoRoom,
    kRunsOn,
    kValueBlank,
    kValueLong,
    kZeroByte,
};

constexpr uint32_t kindBit(Kind kind)
{
    return uint32_t{1} << static_cast<uint32_t>(kind);
}

std::string_view nameOf(Kind kind);
std::optional<Kind> kindOf(std::string_view name);

struct Finding {
    Kind kind;
    std::size_t line;  // the first one is 0
    std::string text;
};

// In the order of the lines.
std::vector<Finding> examine(const Document& document);

}  // namespace rmini

#endif
