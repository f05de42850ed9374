// The private directory of one run.
#ifndef CATALOGUE_RUNDIR_H
#define CATALOGUE_RUNDIR_H

#include <string>

namespace catalogue
{

// Lives in static storage of main, so that no jump passes over its owner.
class RunDirectory
{
  public:
    // Removes what crashed runs left in `parent`, makes the directory there, makes it the current
    // one, and sees to it that no semaphore set exists under the key of its token file. False
    // after having said why not.
    bool make(const std::string& parent);

    // Notes which semaphore set this run made: for whoever has to clean up after a crash.
    // Call it once the first sync object exists. False after having said why not.
    bool noteSet();

    // Removes the directory and all that the run put into it. Does nothing before make.
    void remove();

    const std::string& path() const { return path_; }

    int setId() const { return setId_; }

  private:
    bool makeOwned();
    bool reserveKey();

    std::string path_;  // as the user may look for it
    std::string name_;  // within the parent
    int parentFd_ = -1;
    int ownerFd_ = -1;  // holds the lock that says: this run is alive
    int setId_ = -1;
};

}  // namespace catalogue

#endif
