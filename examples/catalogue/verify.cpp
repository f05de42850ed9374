// The verification: whether the files hold what they must.
//
// Why: it is what all the rest is for. Every update that was acknowledged stands on the board, with
// its number and its note, written there after the file and before the acknowledgement. So a record
// that has less, or something else, has lost one, whichever process died in the middle of it.
//
// Fatal: a bucket that cannot be opened or read. Plain data only.
#include "verify.h"

#include "buffers.h"
#include "chronicle.h"
#include "console.h"
#include "journal.h"
#include "rotation.h"
#include "store.h"

#include "rm.h"

#include <chrono>
#include <string_view>

namespace catalogue
{
namespace
{
using Clock = std::chrono::steady_clock;

constexpr uint32_t kMostMismatches = 10;  // described one by one

// What differs between a record as it was read and as it must be; null when nothing does.
const char* difference(const Record& record, const StoredRecord& stored, const RecordState& state)
{
    if (stored.version != 1 + state.updates) {
        return "not as many updates as were made";
    }
    if (stored.body != record.body) {
        return "not the text of the input";
    }
    if (stored.note != std::string_view(state.note, state.noteBytes)) {
        return "not the note of the last update";
    }
    return nullptr;
}

// Reads a record and compares it. False after having said what is wrong.
bool verifyRecord(const Host& host, Board& board, Store& store, uint32_t number)
{
    const Record& record = host.input.records[number];
    StoredRecord stored = {};
    if (number + 1 == host.options.damageRecord && readRecord(store, record, stored)) {
        damageRecord(store, stored);
    }
    // No worker is left, so the lock of the pool is free.
    char* buffer = nullptr;
    if (takeBuffer(textsRoom(record), board, buffer) != Entered::kYes) {
        return false;
    }
    bool good = readRecord(store, record, stored);  // or it has said so
    if (good) {
        copyTexts(stored, buffer);
        const char* const what = difference(record, stored, recordState(board, number));
        good = what == nullptr;
        if (!good) {
            complain("\"%s\" in %s, offset %u: %s.", record.key.c_str(), bucketName(stored.bucket),
                     stored.offset, what);
        }
    }
    returnBuffer(buffer, board);
    return good;
}

// Every record. False after having said what is wrong, or when the run is to end.
bool verifyRecords(const Host& host, Board& board, Store& store)
{
    const auto total = static_cast<uint32_t>(host.input.records.size());
    uint32_t found = 0;
    uint32_t wrong = 0;
    for (uint32_t bucket = 0; bucket < store.buckets; ++bucket) {
        if (!scanBucket(store, bucket)) {
            return false;
        }
        found += store.bucket[bucket]->records;
    }
    for (uint32_t i = 0; i < total && wrong < kMostMismatches; ++i) {
        if (!goOn(host, board)) {
            return false;
        }
        wrong += verifyRecord(host, board, store, i) ? 0 : 1;
        showProgress("verifying", i + 1, total);
    }
    clearProgress();
    if (wrong == 0 && found == total) {
        return true;
    }
    complain("the files do not match the input: %s%u wrong, %u stored of %u read.",
             wrong == kMostMismatches ? "at least " : "", wrong, found, total);
    endBecause("the files do not match the input");
    return false;
}
}  // namespace

bool verify(const Host& host, Board& board, RunFigures& run)
{
    const Clock::time_point begin = Clock::now();
    const int16_t tag = rm_allocTag(nullptr, board.tagLimit);
    rm_setTagName("verify", tag);
    Store store = {};
    openStore(store, tag, host.input.largest, board.head.figures.buckets);
    if (!verifyRecords(host, board, store)) {
        return false;
    }
    run.bytesAtEnd = storeBytes(store);
    noteResources(board.parent, {}, tag, board.tagLimit);
    if (host.settings.number[kReport] != 0) {
        reportMemory(host.settings, "before its files are closed");
    }
    closeStore(store);
    if (const uint32_t bad = checkBackups(board, tag, host.input.largest); bad != 0) {
        complain("%u of the backups are not whole.", bad);
        endBecause("a backup is not whole");
        return false;
    }
    rm_freeTagMemory(tag, 1);
    run.verifySeconds = std::chrono::duration<double>(Clock::now() - begin).count();
    note("verified %s records in %.2f s", grouped(host.input.records.size()).text,
         run.verifySeconds);
    return true;
}

}  // namespace catalogue
