// Loads the library, starts it and ends it, and prints what each step took.
//
//   rm_bench_start LIBRARY
//
// The output is one line: microseconds of loading, of rm_init and of rm_exit, then KiB of the
// library that are resident, and of these the ones that only this process has. The program uses the
// C++ library itself, so that is not loaded anew.
#include "rm.h"

#include <chrono>
#include <csetjmp>
#include <cstdio>
#include <fstream>
#include <string>

#include <dlfcn.h>
#include <unistd.h>

namespace
{
using Clock = std::chrono::steady_clock;
using std::chrono::duration;

struct Resident {
    long all;  // KiB
    long own;  // written to by this process
};

Resident residentOf(const std::string& library)
{
    Resident sum = {0, 0};
    bool within = false;
    std::ifstream maps("/proc/self/smaps");
    for (std::string line; std::getline(maps, line);) {
        const std::string word = line.substr(0, line.find(' '));
        if (word.find('-') != std::string::npos) {
            within = line.find(library) != std::string::npos;
        } else if (within && word == "Rss:") {
            sum.all += std::stol(line.substr(word.size()));
        } else if (within && word == "Private_Dirty:") {
            sum.own += std::stol(line.substr(word.size()));
        }
    }
    return sum;
}

template <typename Function>
Function* find(void* library, const char* name)
{
    void* address = dlsym(library, name);
    if (address == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        _exit(1);
    }
    return reinterpret_cast<Function*>(address);
}

double microseconds(Clock::time_point from, Clock::time_point to)
{
    return duration<double, std::micro>(to - from).count();
}

// In static storage: the jump of rm_exit passes over the frame of main.
jmp_buf ended;
Clock::time_point begin;
Clock::time_point loaded;
Clock::time_point starting;
Clock::time_point started;
Clock::time_point ending;
Resident resident;
}  // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: rm_bench_start LIBRARY\n");
        return 2;
    }
    begin = Clock::now();
    void* library = dlopen(argv[1], RTLD_NOW);
    loaded = Clock::now();
    if (library == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    auto* init = find<decltype(rm_init)>(library, "rm_init");
    auto* exitJump = find<decltype(rm_exitJump)>(library, "rm_exitJump");
    auto* end = find<decltype(rm_exit)>(library, "rm_exit");
    starting = Clock::now();
    init(RM_NO_LIMIT, 32, 0.0);
    started = Clock::now();
    resident = residentOf("_rm.so");
    if (setjmp(ended) == 0) {
        exitJump(ended);
        ending = Clock::now();
        end(1);
    }
    const Clock::time_point over = Clock::now();
    std::printf("%.1f %.1f %.1f %ld %ld\n", microseconds(begin, loaded),
                microseconds(starting, started), microseconds(ending, over), resident.all,
                resident.own);
    return 0;
}
