// Who lives, and who has something of the library's open.
#ifndef RMIPC_PROCESS_H
#define RMIPC_PROCESS_H

#include "place.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <sys/types.h>

namespace rmipc
{

enum class Life {
    kNobody,  // 0: no process yet, or one that has no number here
    kLives,
    kGone,
};

struct Person {
    pid_t pid = 0;
    Life life = Life::kNobody;
    std::string name;      // printable; empty when it is gone or /proc does not show it
    int64_t started = -1;  // seconds since 1970; -1 when that is not known
};

// Remembers whom it has looked at, so that one answer is given of a process.
class People
{
  public:
    const Person& look(pid_t pid);

    bool lives(pid_t pid) { return look(pid).life == Life::kLives; }

  private:
    std::map<pid_t, Person> known_;
};

// "1234 catalogue", "1234 (gone)", "1234" without a name, "-" for nobody.
std::string nameOf(const Person& person);

// The living processes of a list, by their names: "1 a, 2 b and 5 more".
std::string namesOf(const std::vector<pid_t>& pids, People& people);

// A process that has a token file open: the library keeps it open as long as it has objects.
struct Holder {
    pid_t pid;
    Family family;
    dev_t device;
    ino_t number;
    std::string path;  // as the system names it, "(deleted)" and all
};

// A process that has a segment attached.
struct Attachment {
    pid_t pid;
    int32_t id;
    int32_t key;
};

// What all processes have open that this one may look at.
struct Scan {
    std::vector<Holder> holders;
    std::vector<Attachment> attachments;
    std::size_t unseen = 0;  // processes that may not be looked at
    bool hidden = false;     // there are others that not even the list of processes shows
};

Scan scanProcesses();

}  // namespace rmipc

#endif
