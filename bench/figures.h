// Figures that are no ratios: what a process pays for the library, and what a whole host does.
#ifndef RM_BENCH_FIGURES_H
#define RM_BENCH_FIGURES_H

#include <string>
#include <vector>

namespace rmbench
{
struct Figure {
    std::string name;
    std::string unit;
    double best;  // the least disturbed one
    double median;
    std::size_t repetitions;
};

// Start-up and end of a process with the library, and the memory that the library takes.
std::vector<Figure> measureStart();

// Lookups a second of the example host with 1, 2 and 4 workers. None when it has not been built.
std::vector<Figure> measureHost();
}  // namespace rmbench

#endif
