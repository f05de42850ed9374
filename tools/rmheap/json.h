// The report for programs.
#ifndef RMHEAP_JSON_H
#define RMHEAP_JSON_H

#include "collect.h"
#include "common/text.h"
#include "figures.h"
#include "report.h"

#include <string>

namespace rmheap
{

using tools::quoted;

// A number or null.
std::string orNull(const Figure& figure);

// The members of an object that name a report, without braces.
std::string jsonPlace(const Report& report);

void printJson(const Report& report, const Analysis& analysis, std::size_t count);

// One element of the list of all reports.
std::string jsonListed(const Report& report);

}  // namespace rmheap

#endif
