// Text of a log: reading numbers that may be anything. Names are written as all tools do.
#ifndef RMHEAP_TEXT_H
#define RMHEAP_TEXT_H

#include "common/text.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace rmheap
{

using tools::asciiOnly;
using tools::Character;
using tools::columns;
using tools::counted;
using tools::firstCharacter;
using tools::fitted;
using tools::grouped;
using tools::hexadecimal;
using tools::printable;
using tools::rounded;

bool isDigit(char c);

// Reads a text from the left. What does not fit leaves the place where it is.
struct Scanner {
    std::string_view rest;

    bool literal(std::string_view text);
    void blanks();
    bool number(uint64_t& value);   // decimal, at most 2^32 - 1: no report has larger ones
    bool integer(int64_t& value);   // the same, or negative down to -2^31
    bool address(uint64_t& value);  // hexadecimal, with or without "0x"
};

}  // namespace rmheap

#endif
