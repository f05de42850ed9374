// What the bare ways share: a lock made bare, and a directory that goes away.
#ifndef RM_BENCH_BARE_H
#define RM_BENCH_BARE_H

#include <cstddef>
#include <string>
#include <vector>

namespace rmbench
{
// Ends the program, with the reason, when something did not work.
void must(bool done, const char* what);

// The path of a file of the build, from the directory of this program on.
std::string builtFile(const std::string& relative);

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

    // Copies a file that was built beside this program.
    std::string copyOfBuilt(const std::string& name);

  private:
    std::string directory_;
    std::vector<std::string> files_;
};

// A lock as the library's calls enter and leave it, by the same system calls: within 14 seconds, as
// the file table's around every operation, with the alarm, the handler and the bound of a timed
// wait; or without limit.
class BareLock
{
  public:
    BareLock();
    ~BareLock();

    BareLock(const BareLock&) = delete;
    BareLock& operator=(const BareLock&) = delete;

    void enter() const;
    void enterUntimed() const;
    void leave() const;

  private:
    int id_;
};
}  // namespace rmbench

#endif
