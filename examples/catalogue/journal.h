// The log of a run: lines of every process, in one file.
#ifndef CATALOGUE_JOURNAL_H
#define CATALOGUE_JOURNAL_H

#include "settings.h"

#include "rm.h"

#include <atomic>
#include <cstdint>

namespace catalogue
{

// Who the lines of this process are from: "parent", "worker 3". Kept as a pointer.
void nameJournal(const char* who);

// A line for whoever follows the run: from level 1 on. Standard error gets it, and at level 2 the
// log file too.
void note(const char* format, ...) RM_PRINTF(1, 2);

// A line that matters: standard error gets it at every level. Counted.
void warn(const char* format, ...) RM_PRINTF(1, 2);

// In the parent: sets the level, and opens the log file at level 2. What stood there is kept with
// the extension .bak.
void openJournal(const Settings& settings);

// Before the fork, and after openJournal: where the processes tell each other that there is a log
// file of this run, so that each goes on with it.
void shareJournal(std::atomic<uint32_t>& shared);

// In the parent, before it forks: its lines go to standard error only, so that none waits for the
// lock of the file table, which a dead worker may hold.
void suspendJournal();

// In a child, first of all, and in the parent when no child is left: they go to the file again.
void resumeJournal();

// In the process that reads the settings: goes over to new settings. When that begins another file,
// `now` gets a new number for it, by which the workers notice.
void changeJournal(const Settings& before, Settings& now);

// In the others: follows it to its file.
void followJournal(const Settings& before, const Settings& now);

// Writes what the heap of this process holds into the log file, and nowhere else: the report is
// long. Below level 2 there is a file for it when the settings ask for reports; without one it goes
// to standard error.
void reportMemory(const Settings& settings, const char* occasion);

// At the fatal target: standard error is what it was, wherever a report has been interrupted.
void restoreStandardError();

// The last line of a run that ended badly. Waits for nothing: a dead worker may hold the lock of
// the file table. From then on no line reaches the file.
void closeJournalInHaste(const char* format, ...) RM_PRINTF(1, 2);

}  // namespace catalogue

#endif
