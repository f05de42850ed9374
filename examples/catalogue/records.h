// The input: records, as the format modules read them.
#ifndef CATALOGUE_RECORDS_H
#define CATALOGUE_RECORDS_H

#include "formats.h"

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
    std::string key;        // first line of the field that names it; a repeated one gets "#2", ...
    std::string_view body;  // its fields in order: name and value of each, a zero behind both
    uint64_t hash;          // of the key
};

// Everything that was read. Lives in static storage of main: workers read their inherited copy of
// it long after the fork, and no jump may pass over its owner.
struct Input {
    std::deque<std::string> bodies;  // those of many records together; the records point into them
    std::vector<Record> records;
    std::vector<const char*> formats;  // of each file, null for a file of blanks
    uint64_t bytes = 0;                // of all bodies
    uint32_t largest = 0;              // bytes of the largest key and body together
};

// Finds records by their names: numbers of records, by hash, in a table with free places.
using RecordIndex = std::vector<uint32_t>;

constexpr uint32_t kNoRecord = UINT32_MAX;

void indexInput(const Input& input, RecordIndex& index);

// The number of the record; kNoRecord when there is none of that name.
uint32_t findInput(const Input& input, const RecordIndex& index, std::string_view name);

// FNV-1a, 64 bits: where a record lives, and whether it is whole. `hash` continues an earlier one.
constexpr uint64_t kHashBasis = 0xCBF29CE484222325;

uint64_t hashBytes(std::string_view bytes, uint64_t hash = kHashBasis);

// How the files are to be read.
struct Reading {
    const Formats& formats;
    const char* format;  // of all files; empty to have each recognised
    const char* key;     // the field that names a record; empty to leave it to the format
};

// Reads and checks all files. False after having said which line of which file is wrong.
bool readInput(const std::vector<std::string>& paths, const Reading& reading, Input& input);

}  // namespace catalogue

#endif
