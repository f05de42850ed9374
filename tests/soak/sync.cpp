// Sync objects: locks around accounts that must balance, and an event that hands parcels over.
//
// Why: a lock that lets two in loses money, and an event that is missed leaves a parcel lying. The
// accounts are changed in steps with time to die in between; the note says how they were.
//
// Events: one waiter at a time, under a lock of its own, and one signaller, likewise. A death
// between the wait and what follows it leaves the event signalled or the parcel lying. Neither
// matters: the next waiter looks at the parcel, and a sender that finds it lying signals again.
//
// Locks: one of the soak's at a time.
#include "soak.h"

#include "rm.h"

#include <cstring>

namespace soak
{
namespace
{
constexpr uint32_t kWaitMs = 1000;

// What a transfer may not do to the sum.
void lookAtAccounts()
{
    const AccountBoard& accounts = board->accounts;
    uint64_t sum = 0;
    for (const uint64_t balance : accounts.balance) {
        sum += balance;
    }
    SOAK_CHECK(sum == kAccounts * kOpeningBalance, "the accounts add up to %llu",
               static_cast<unsigned long long>(sum));
    SOAK_CHECK(accounts.made[me] >= mine().transfersAcked,
               "%llu transfers were acknowledged, %llu made",
               static_cast<unsigned long long>(mine().transfersAcked),
               static_cast<unsigned long long>(accounts.made[me]));
}

void transfer()
{
    if (!enter(kAccountsLock)) {
        return;
    }
    AccountBoard& accounts = board->accounts;
    lookAtAccounts();
    accounts.from = plan.below(kAccounts);
    accounts.to = plan.below(kAccounts);
    accounts.fromBefore = accounts.balance[accounts.from];
    accounts.toBefore = accounts.balance[accounts.to];
    accounts.madeBefore = accounts.made[me];
    const uint64_t amount = plan.below(static_cast<uint32_t>(accounts.fromBefore) + 1);
    accounts.open.store(me + 1);
    accounts.balance[accounts.from] -= amount;
    dawdle();
    accounts.balance[accounts.to] += amount;
    ++accounts.made[me];
    accounts.open.store(0);
    leave(kAccountsLock);
    ++mine().transfersAcked;
}

// Handles that everybody may use, and names.
void smallThings()
{
    SOAK_CHECK(rm_syncEnterExcl(RM_NULL_SYNC, 1) == RM_SUCCESS &&
                   rm_syncExitExcl(RM_NULL_SYNC) == RM_SUCCESS &&
                   rm_syncWait(RM_NULL_SYNC, 1) == RM_SUCCESS && rm_syncRecover(RM_NULL_SYNC) == 0,
               "the null object");
    SOAK_CHECK(rm_syncCreate("") == RM_NULL_SYNC && rm_syncOpen("nobody") == RM_NONE,
               "an object without a name");
    SOAK_CHECK(rm_syncOpen("accounts") == locks[kAccountsLock], "the object of a name");
}

void stepLocks()
{
    if (plan.once(20)) {
        smallThings();
    } else {
        transfer();
    }
}

// --- Events

uint64_t sumOfParcel(uint64_t number)
{
    return sumOf(&number, sizeof number) ^ 0x5A5A;
}

void send()
{
    if (!enter(kSignalLock)) {
        return;
    }
    ParcelBoard& parcel = board->parcel;
    if (parcel.full.load() == 0) {
        parcel.number = parcel.taken + 1;
        parcel.sum = sumOfParcel(parcel.number);
        dawdle();
        parcel.full.store(1);
    }
    rm_syncResume(parcelEvent);  // also for one whose sender has died before it said so
    leave(kSignalLock);
}

void take()
{
    if (!enter(kTurnLock)) {
        return;
    }
    ParcelBoard& parcel = board->parcel;
    const int16_t status = rm_syncWait(parcelEvent, kWaitMs);
    SOAK_CHECK(status == RM_SUCCESS || status == RM_TIMEOUT, "a wait gives %d", status);
    if (status == RM_SUCCESS && parcel.full.load() != 0) {
        SOAK_CHECK(parcel.sum == sumOfParcel(parcel.number), "a parcel is damaged");
        // The same one again when a taker has died after it had counted it.
        SOAK_CHECK(parcel.number == parcel.taken + 1 || parcel.number == parcel.taken,
                   "parcel %llu comes after %llu", static_cast<unsigned long long>(parcel.number),
                   static_cast<unsigned long long>(parcel.taken));
        parcel.taken = parcel.number;
        dawdle();
        parcel.full.store(0);
    }
    leave(kTurnLock);
}

void stepEvents()
{
    // Somebody must be left to send while one waits.
    if (plan.below(8) < 5 || board->inside[kTurnLock].load() != 0) {
        send();
    } else {
        take();
    }
}

void startNothing() {}
}  // namespace

const Family kLocksFamily = {"locks", 150, startNothing, stepLocks, nullptr, nullptr, false};
const Family kEvents = {"events", 30, startNothing, stepEvents, nullptr, nullptr, false};

}  // namespace soak
