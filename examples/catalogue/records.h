// The input: records of "Field: value" lines.
#ifndef CATALOGUE_RECORDS_H
#define CATALOGUE_RECORDS_H

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

namespace catalogue
{

// Taken when no file is named: the package database of a Debian machine.
constexpr const char* kDefaultInput = "/var/lib/dpkg/status";

struct Record {
    std::string key;        // value of the first field; a repeated one gets "#2", "#3", ...
    std::string_view body;  // the lines of the record, without the blank line after them
    uint64_t hash;          // of the key
};

// Everything that was read. Lives in static storage of main: workers read their inherited copy of
// it long after the fork, and no jump may pass over its owner.
struct Input {
    std::deque<std::string> texts;  // whole files; the records point into them
    std::vector<Record> records;
    uint64_t bytes = 0;    // of all bodies
    uint32_t largest = 0;  // bytes of the largest key and body together
};

// FNV-1a, 64 bits: where a record lives, and whether it is whole. `hash` continues an earlier one.
constexpr uint64_t kHashBasis = 0xCBF29CE484222325;

uint64_t hashBytes(std::string_view bytes, uint64_t hash = kHashBasis);

// Reads and checks all files. False after having said which line of which file is wrong.
bool readInput(const std::vector<std::string>& paths, Input& input);

}  // namespace catalogue

#endif
