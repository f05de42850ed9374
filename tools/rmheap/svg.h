// The map of a heap as an SVG file.
#ifndef RMHEAP_SVG_H
#define RMHEAP_SVG_H

#include "figures.h"
#include "report.h"

#include <cstddef>
#include <string>
#include <vector>

namespace rmheap
{

// The tags in the given order.
std::string svgOf(const Report& report, const Analysis& analysis, std::size_t count,
                  const std::vector<std::size_t>& order);

}  // namespace rmheap

#endif
