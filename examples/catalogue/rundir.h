// The private directory of one run.
#ifndef CATALOGUE_RUNDIR_H
#define CATALOGUE_RUNDIR_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace catalogue
{

// Lives in static storage of main, so that no jump passes over its owner.
class RunDirectory
{
  public:
    // Removes what crashed runs left in `parent`, makes the directory there, makes it the current
    // one, and makes in it what the library will find under the keys of its token files: a
    // semaphore set, queues, and segments of these sizes, in bytes. False after having said why
    // not.
    bool make(const std::string& parent, const std::vector<uint64_t>& segments);

    // Lets clients in, and no more: makes and removes the files of their channels. False after
    // having said why not.
    bool openChannels() const;
    static void closeChannels();

    // Removes the directory and all that the run put into it, and what the library has not removed.
    // Does nothing before make.
    void remove();

    const std::string& path() const { return path_; }

    int setId() const { return setId_; }

  private:
    bool makeOwned();
    bool claimObjects(const std::vector<uint64_t>& segments);
    bool noteObjects();

    std::string path_;  // as the user may look for it
    std::string name_;  // within the parent
    int parentFd_ = -1;
    int ownerFd_ = -1;  // holds the lock that says: this run is alive
    int setId_ = -1;
    std::vector<int> ids_;  // of all objects, in the order of the tokens
};

}  // namespace catalogue

#endif
