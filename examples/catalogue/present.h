// What a client prints.
#ifndef CATALOGUE_PRESENT_H
#define CATALOGUE_PRESENT_H

#include "protocol.h"

#include <cstdint>
#include <string_view>

namespace catalogue
{

// A text as it can be shown: control characters as \xNN, and cut where it is very long. Plain data.
struct Shown {
    char text[2000];
};

Shown shown(std::string_view text);

// A record: its fields in a line each, in more where the value has several, then version and note.
// False when the body is no row of fields; nothing is printed then.
bool printRecord(std::string_view body, std::string_view note, uint32_t version);

void printName(std::string_view name);

void printFigures(const PublicFigures& figures);

void printFiguresAsJson(const PublicFigures& figures);

}  // namespace catalogue

#endif
