// What grew from one report to another.
#ifndef RMHEAP_COMPARE_H
#define RMHEAP_COMPARE_H

#include "console.h"
#include "figures.h"
#include "options.h"
#include "report.h"

namespace rmheap
{

struct Side {
    const Report* report;
    const Analysis* analysis;
};

void printComparison(const Side& from, const Side& to, std::size_t count, const Options& options,
                     const Terminal& terminal);
void printJsonComparison(const Side& from, const Side& to);

}  // namespace rmheap

#endif
