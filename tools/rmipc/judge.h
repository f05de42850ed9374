// Which objects nobody uses any more.
#ifndef RMIPC_JUDGE_H
#define RMIPC_JUDGE_H

#include "process.h"
#include "survey.h"

#include <vector>

namespace rmipc
{

// Writes the verdicts and their reasons into the survey.
void judge(Survey& survey, People& people);

// One object alone, with nothing known of a place.
void judge(SemaphoreSet& set, People& people);
void judge(Segment& segment, People& people);
void judge(Queue& queue, People& people);

// All objects of a survey, in the order in which they are shown.
std::vector<const Object*> objectsOf(const Survey& survey);

// True when something is there that nobody uses: an object, or a token file.
bool hasLeftovers(const Survey& survey);

}  // namespace rmipc

#endif
