// rmipc list: what belongs to a prefix.
#ifndef RMIPC_LIST_H
#define RMIPC_LIST_H

#include "options.h"
#include "survey.h"

#include <string>
#include <vector>

namespace rmipc
{

int listPlaces(const Options& options);

// The places of the command line; the current directory when it names none. What is wrong with one
// is said, and `trouble` is set.
std::vector<Place> placesOf(const Options& options, bool& trouble);

// What is there now, judged.
std::vector<Survey> surveyAll(const std::vector<Place>& places, bool bags, People& people);

std::string jsonOf(const Survey& survey, People& people);  // json.cpp

}  // namespace rmipc

#endif
