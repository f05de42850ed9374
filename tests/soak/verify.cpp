// Every total, when all workers have ended.
//
// Why: what the workers saw while they ran they have checked themselves. What is looked for here is
// what nobody would have missed: a record, a transfer, a token, a message, a setting that was
// acknowledged and is not there.
//
// Lifecycle: called once, by the parent, which may use all of the library now: nobody is left to
// hold a lock.
#include "soak.h"

#include "rm.h"
#include "rm/file/file.h"
#include "rm/rmalloc/rmalloc.h"
#include "rm/unix/unix.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include <sys/sem.h>

namespace soak
{
namespace
{
Totals sums;

void verifyRecords()
{
    const RecordBoard& records = board->records;
    const int16_t handle = rm_fileOpen(kRecordFile, RM_O_RDONLY, 0, 0, 0);
    uint64_t versions = 0;
    for (uint32_t slot = 0; slot < records.used; ++slot) {
        Record record = {};
        const uint32_t count = rm_fileSeekRead(handle, slot * static_cast<uint32_t>(sizeof record),
                                               &record, static_cast<uint32_t>(sizeof record));
        const bool whole = count == sizeof record && isWhole(record) && record.slot == slot;
        if (!whole || record.version < records.acked[slot].load()) {
            ++sums.recordsLost;
        }
        SOAK_CHECK(whole && record.version == records.version[slot],
                   "record %u has version %u and not %u at the end", slot, record.version,
                   records.version[slot]);
        versions += record.version;
    }
    rm_fileClose(handle);
    for (uint32_t i = 0; i < kWorkers; ++i) {
        const WorkerBoard& worker = board->worker[i];
        sums.recordsWritten += records.written[i];
        SOAK_CHECK(records.written[i] >= worker.recordsAcked &&
                       records.written[i] <= worker.recordsAcked + worker.life,
                   "worker %u was told of %llu records, and has written %llu", i,
                   static_cast<unsigned long long>(worker.recordsAcked),
                   static_cast<unsigned long long>(records.written[i]));
    }
    SOAK_CHECK(versions == sums.recordsWritten, "%llu records were written, the file has %llu",
               static_cast<unsigned long long>(sums.recordsWritten),
               static_cast<unsigned long long>(versions));
}

void verifyAccounts()
{
    const AccountBoard& accounts = board->accounts;
    uint64_t sum = 0;
    for (const uint64_t balance : accounts.balance) {
        sum += balance;
    }
    SOAK_CHECK(sum == kAccounts * kOpeningBalance, "the accounts add up to %llu",
               static_cast<unsigned long long>(sum));
    for (uint32_t i = 0; i < kWorkers; ++i) {
        const WorkerBoard& worker = board->worker[i];
        sums.transfers += accounts.made[i];
        SOAK_CHECK(accounts.made[i] >= worker.transfersAcked &&
                       accounts.made[i] <= worker.transfersAcked + worker.life,
                   "worker %u was told of %llu transfers, and has made %llu", i,
                   static_cast<unsigned long long>(worker.transfersAcked),
                   static_cast<unsigned long long>(accounts.made[i]));
    }
}

void verifyTokens()
{
    std::array<uint32_t, kTokens> seen = {};
    Token token = {};
    while (ffBagPop(tokenBag, &token) == RM_SUCCESS) {
        SOAK_CHECK(token.number < kTokens && token.sum == tokenOf(token.number, token.turn).sum,
                   "token %u is damaged at the end", token.number);
        ++seen[token.number % kTokens];
    }
    for (const WorkerBoard& worker : board->worker) {
        for (uint32_t i = 0; i < worker.handCount.load(); ++i) {
            ++seen[worker.hand[i] % kTokens];
        }
    }
    for (uint32_t number = 0; number < kTokens; ++number) {
        SOAK_CHECK(seen[number] == 1, "token %u is there %u times", number, seen[number]);
    }
}

void verifyQueues()
{
    for (uint32_t queue = 0; queue < kQueues; ++queue) {
        while (takeMessage(queue, false)) {
        }
        for (uint32_t i = 0; i < kWorkers; ++i) {
            const Outbox& outbox = board->worker[i].outbox[queue];
            const uint32_t last = board->queue[queue].received[i].load();
            sums.messages += last;
            // A worker that died last may have begun one that nobody sent again.
            SOAK_CHECK(last == outbox.sent.load() || last == outbox.intended.load(),
                       "worker %u has sent %u messages to queue %u, and %u arrived", i,
                       outbox.sent.load(), queue, last);
        }
    }
}

void verifySettings()
{
    SOAK_CHECK(settle(kSharedIni) == 0, "%s has gone", kSharedIni);
    for (uint32_t i = 0; i < kWorkers; ++i) {
        char text[24] = "";
        const std::string key = "worker" + std::to_string(i);
        rm_iniGetPrivate("workers", key.c_str(), text, sizeof text, 0, kSharedIni);
        const auto value = static_cast<uint32_t>(std::strtoul(text, nullptr, 10));
        const WorkerBoard& worker = board->worker[i];
        SOAK_CHECK(value >= worker.settingAcked && value <= worker.settingIntended,
                   "%s is \"%s\" at the end, %u was set", key.c_str(), text, worker.settingAcked);
    }
    SOAK_CHECK(rm_fileValidate("shared/_temp_.ini") != 0, "a copy of the settings is left");
}

// Everybody has left: a lock that was freed once too often stands at 2.
void verifyLocks()
{
    for (int number = 0; number < os::kSyncSlots; ++number) {
        const char* const name = os::rmSem[static_cast<std::size_t>(number)];
        if (name == nullptr) {
            continue;
        }
        const int value = semctl(os::iSem, number, GETVAL);
        SOAK_CHECK(value == 1 || (value == 0 && number == parcelEvent),
                   "the semaphore of \"%s\" stands at %d", name, value);
    }
}

void verifyFiles()
{
    for (uint32_t i = 0; i < kWorkers; ++i) {
        SOAK_CHECK(diaryIsWhole(i), "the diary of worker %u has lost a record", i);
        if (board->worker[i].endedWell == 0) {
            continue;  // killed, and not replaced any more: its files are nobody's
        }
        for (const auto& entry : std::filesystem::directory_iterator("w" + std::to_string(i))) {
            const std::string name = entry.path().filename();
            SOAK_CHECK(name == "diary" || name == "anchor", "worker %u has left %s", i,
                       name.c_str());
        }
    }
    uint32_t open = 0;
    uint32_t parked = 0;
    rm_fileCounts(&open, &parked, nullptr, nullptr);
    SOAK_CHECK(open == 0 && parked == 0, "the parent has %u files open and %u parked", open,
               parked);
}
}  // namespace

void verifyAll()
{
    sums = {};
    verifyRecords();
    verifyAccounts();
    verifyTokens();
    verifyQueues();
    verifySettings();
    verifyFiles();
    verifyLocks();
    sums.parcels = board->parcel.taken;
    if (board->workspace.stale != 0) {
        sweepWorkspace();
    }
    const uint32_t wrong = rmalloc::checkMemory() + file::checkFtab() + os::checkSync() +
                           os::checkGshm() + os::checkQueues();
    SOAK_CHECK(wrong == 0, "%u findings of the checkers in the parent, see parent.err", wrong);
}

Totals totals()
{
    return sums;
}

}  // namespace soak
