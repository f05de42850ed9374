// What a change would make of a file, found out before the library makes it.
#ifndef RMINI_PLAN_H
#define RMINI_PLAN_H

#include "document.h"

#include <cstddef>
#include <string>
#include <vector>

namespace rmini
{

struct Plan {
    bool refused = false;  // the library would lose the entry, or it could not be read back
    bool absent = false;   // of a deletion: there is no such section or key
    bool changes = true;   // false when the file holds the entry already

    // What the library is asked for. It is not always what the user asked for: an entry that is
    // inserted is written together with the one before it.
    std::string key;
    std::string value;

    // What that does: lines go, and others come before line `at`.
    std::vector<std::size_t> removed;
    std::size_t at = 0;
    std::vector<std::string> added;

    // Why it is refused, or what is absent: a text, and the line that it is about.
    LineIndex line;
    std::string why;

    LineIndex stays;  // a line with the same key that the change leaves behind it
    LineIndex like;   // of a new entry: a line whose key differs from its key by blanks alone
};

// An entry to be set. With `insert` one that would be refused is written behind an entry that is
// there, where that helps.
Plan planSet(const Document& document, const std::string& section, const std::string& key,
             const std::string& value, bool insert);

// All entries of the section with that key to be deleted; the whole section with a null key.
Plan planDelete(const Document& document, const std::string& section, const char* key);

// Why readers do not find the key, or the section with a null key. The first line of the text says
// what is missing; lines that look like it follow.
std::string whyAbsent(const Document& document, const std::string& section, const char* key);

// Added to it, and to a refusal, where the name of a section was given with them.
constexpr const char* kNoBrackets = "\nNames of sections are given without brackets.";

// Where a line that stays stands after the change.
std::size_t lineAfter(const Plan& plan, std::size_t line);

// Prints the change as a unified diff.
void printDiff(const char* path, const Document& document, const Plan& plan);

}  // namespace rmini

#endif
