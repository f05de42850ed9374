// A worker process: looks records up and updates them, until its share is done.
//
// Why: this is what a server's process does all day: take a request, lock what it touches, read,
// perhaps write, unlock, answer. The requests come from a random sequence here. A lookup compares
// the answer with the input, so a wrong one is noticed at once.
//
// Owns: one tag with a limit, in which its indexes and its buffer live; its own handles of the
// bucket files, opened after the fork. An inherited descriptor would share its offset with the
// parent and with the other workers.
//
// Lifecycle: every end is an _exit. A fatal error of the library arrives in the target registered
// here: the parent's, which was inherited, would tear down what the other workers stand on.
//
// Fatal: any call of the library may jump out of serve() and of all that it calls. What those
// frames hold is plain data; a lock of the host's that was held stays held, and the parent, which
// sees the exit status, stops the others.
#include "worker.h"

#include "console.h"
#include "locks.h"
#include "store.h"

#include "rm.h"

#include <csetjmp>
#include <cstdio>
#include <random>
#include <type_traits>

#include <unistd.h>

namespace catalogue
{
namespace
{
constexpr unsigned kUpdateOneIn = 4;  // operations

using Random = std::mt19937_64;
static_assert(std::is_trivially_destructible_v<Random>, "a fatal error jumps over it");

jmp_buf fatalTarget;  // static: main's frames are the parent's business

bool openBuckets(const Work& work, Store& store, Figures& figures, int16_t tag)
{
    openStore(store, tag, work.input->largest);
    for (uint32_t bucket = 0; bucket < kBuckets; ++bucket) {
        const Entered entered = enterBucket(bucket, *work.board, figures);
        if (entered != Entered::kYes) {
            return entered == Entered::kStopped;
        }
        const bool scanned = scanBucket(store, bucket);
        leaveBucket(bucket);
        if (!scanned) {
            return false;
        }
    }
    return true;
}

// One lookup, or one update, under the lock of the bucket. False when something is wrong.
bool answerOne(const Work& work, Store& store, Figures& figures, uint32_t number, bool update,
               bool dieHalfway)
{
    const Record& record = work.input->records[number];
    StoredRecord stored = {};
    if (!readRecord(store, record, stored)) {
        return false;
    }
    if (stored.body != record.body || stored.version != 1 + work.board->updatesOf[number]) {
        complain("worker %u: \"%s\" was read from %s, offset %u, and is not what was stored.",
                 work.number, record.key.c_str(), bucketName(stored.bucket), stored.offset);
        return false;
    }
    if (!update) {
        ++figures.lookups;
        return true;
    }
    if (!updateRecord(store, stored, work.number, dieHalfway)) {
        return false;
    }
    ++work.board->updatesOf[number];
    ++figures.updates;
    return true;
}

bool answerAll(const Work& work, Store& store, Figures& figures)
{
    const auto records = static_cast<uint32_t>(work.input->records.size());
    Random random(work.number);  // the same requests in every run
    for (uint64_t done = 0; done < work.operations && work.board->stop == 0; ++done) {
        if (getppid() != work.parent) {
            complain("worker %u: the parent has gone.", work.number);
            return false;
        }
        const auto number = static_cast<uint32_t>(random() % records);
        const bool update = random() % kUpdateOneIn == 0;
        const bool dieHalfway = work.killHalfway && update && done >= work.operations / 2;
        const uint32_t bucket = bucketOf(work.input->records[number]);

        const Entered entered = enterBucket(bucket, *work.board, figures);
        if (entered != Entered::kYes) {
            return entered == Entered::kStopped;
        }
        figures.record = number;
        figures.doing = update ? Doing::kUpdate : Doing::kLookup;
        const bool good = answerOne(work, store, figures, number, update, dieHalfway);
        figures.doing = Doing::kNothing;
        leaveBucket(bucket);
        if (!good) {
            return false;
        }
    }
    return true;
}

bool serve(const Work& work)
{
    Figures& figures = work.board->worker[work.number - 1];
    const FileMoves before = fileMoves();
    const int16_t tag = rm_allocTag(nullptr, work.board->tagLimit);
    rm_setTagName("worker", tag);

    Store store = {};
    if (!openBuckets(work, store, figures, tag) || !answerAll(work, store, figures)) {
        return false;
    }
    noteResources(figures, before, tag, work.board->tagLimit);
    closeStore(store);
    rm_freeTagMemory(tag, 1);
    return true;
}
}  // namespace

void runWorker(const Work& work)
{
    disownProgress();
    if (setjmp(fatalTarget) != 0) {
        std::fflush(stdout);  // the library prints what it could not log twice
        _exit(kWorkerFatal);
    }
    rm_errorJump(fatalTarget);
    _exit(serve(work) ? kWorkerDone : kWorkerFailed);
}

}  // namespace catalogue
