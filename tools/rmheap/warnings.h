// What is wrong with a heap, or with the report on it.
#ifndef RMHEAP_WARNINGS_H
#define RMHEAP_WARNINGS_H

#include "figures.h"
#include "report.h"

namespace rmheap
{

// What the library says is damaged.
void findDamage(const Report& report, Analysis& analysis);

// What cannot be true together, and what is missing.
void findDoubts(const Report& report, Analysis& analysis);

// What the report did not contain, in words.
void describe(const Report& report, Analysis& analysis);

}  // namespace rmheap

#endif
