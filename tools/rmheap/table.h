// The report as a table.
#ifndef RMHEAP_TABLE_H
#define RMHEAP_TABLE_H

#include "collect.h"
#include "console.h"
#include "figures.h"
#include "options.h"
#include "report.h"

#include <string>
#include <vector>

namespace rmheap
{

// Rows of a table, printed with their columns in line. Empty cells of the last column are left out.
struct Grid {
    struct Column {
        std::string title;
        bool left = false;
    };

    std::vector<Column> columns;
    std::vector<std::vector<std::string>> rows;

    std::vector<std::size_t> widths() const;
    // One text a row, the headings first.
    std::vector<std::string> lines(std::size_t gap) const;
};

// How figures and names are written for the reader.
struct Writing {
    const Options* options;
    const Terminal* terminal;
    bool group = true;  // digits in threes

    std::string figure(const Figure& value) const;  // blocks and segments
    std::string size(const Figure& bytes) const;
    std::string name(const std::string& printable) const;
    std::string colour(const char* code, const std::string& text) const;
};

constexpr const char* kBold = "1";
constexpr const char* kRed = "1;31";
constexpr const char* kYellow = "33";
constexpr const char* kDim = "2";
constexpr const char* kCyan = "36";

// The places of the tags in the report, in that order.
std::vector<std::size_t> sorted(const Report& report, const Analysis& analysis, Sort sort);

// The text in lines of the terminal's width, each behind the indent.
std::string wrapped(const Writing& writing, const std::string& text, std::size_t indent);

void printReport(const Report& report, const Analysis& analysis, const Reports& reports,
                 const Options& options, const Terminal& terminal);

// Damage and doubts of a report, under a headline each.
void printFindings(const Writing& writing, const Analysis& analysis);

// "report 3 of 5, server.log:120, 07-Mar-96 14:05:09".
std::string placeOf(const Report& report, std::size_t count);

// One line of --list, the headings before the first.
void printListed(const Report& report, const Terminal& terminal, bool first);

}  // namespace rmheap

#endif
