// What the bare ways of the file benchmarks share: the lock of the file table made bare, and a
// directory that goes away.
#ifndef RM_BENCH_BARE_H
#define RM_BENCH_BARE_H

#include <cstddef>
#include <string>
#include <vector>

namespace rmbench
{
// Ends the program, with the reason, when something did not work.
void must(bool done, const char* what);

// A directory for the files of one benchmark; they are removed with it.
class Scratch
{
  public:
    Scratch();
    ~Scratch();

    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    // The path of a file that is removed with the directory, whether it exists by then or not.
    std::string path(const std::string& name);

    // Makes a file of these bytes.
    std::string make(const std::string& name, const std::string& bytes);

  private:
    std::string directory_;
    std::vector<std::string> files_;
};

// The lock of the file table as it is entered and left around every operation: with the alarm, the
// handler and the bound of a timed wait.
class BareLock
{
  public:
    BareLock();
    ~BareLock();

    BareLock(const BareLock&) = delete;
    BareLock& operator=(const BareLock&) = delete;

    void enter() const;
    void leave() const;

  private:
    int id_;
};
}  // namespace rmbench

#endif
