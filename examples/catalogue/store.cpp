// The bucket files: where the records are kept.
//
// Why: more files than descriptors. By default every process keeps 32 managed files open and the
// library holds at most 8 descriptors for them; which ones, nobody here knows or asks.
//
// The table of what is open is a dynamic array, an entry for each file, by the name of its path.
// The record of an entry never moves, so the store keeps pointers to them.
//
// Format, in the byte order of the machine, since the files die with the run:
//   FileHead                       at offset 0
//   SlotHead, key, body, note      one slot after the other up to FileHead::end
// A record as loaded fills its slot. Its first update moves it to the end of the file, into a slot
// with room for a note; the old slot then says where it went, so that the indexes of the other
// processes, which still lead to it, stay good.
//
// Invariant: a live slot's checksum covers all that it says; a bucket's live slots are as many as
// its head says.
//
// Locks: whoever reads or writes a slot holds the lock of the bucket. Growth needs none of ours:
// the library extends the files in whole steps under growSem.
//
// Fatal: the files are opened with FILE_FATAL. A bucket that cannot be opened, read or written
// cannot be mended here, so the library logs which call failed on which file and jumps to the
// process's fatal target. Every frame below may thus be left in the middle: they hold scalars,
// views and plain structs only, and memory belongs to a tag.
#include "store.h"

#include "console.h"
#include "counters.h"

#include "rm.h"

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstring>

#include <signal.h>
#include <unistd.h>

namespace catalogue
{
namespace
{
constexpr uint32_t kFileMagic = 0x4B435542;  // "BUCK"
constexpr uint32_t kSlotMagic = 0x544F4C53;  // "SLOT"
constexpr uint32_t kGrowIncrement = 16384;   // bytes by which a file is extended
constexpr uint32_t kAlignment = 8;           // of slots in the file
constexpr int16_t kFilesAtATime = 16;        // entries by which the table of open files grows

struct FileHead {
    uint32_t magic;
    uint32_t records;
    uint32_t end;  // offset behind the last slot
    uint32_t unused;
};

struct SlotHead {
    uint64_t checksum;  // of the rest of the head, and of the texts while the slot is live
    uint64_t hash;      // of the key
    uint32_t magic;
    uint32_t capacity;   // bytes after the head
    uint32_t keyLength;  // bytes, as the next two
    uint32_t bodyLength;
    uint32_t noteLength;
    uint32_t version;
    uint32_t movedTo;  // offset of the slot that has taken over, 0 while this one is live
    uint32_t unused;
};

static_assert(sizeof(SlotHead) % kAlignment == 0 && sizeof(FileHead) % kAlignment == 0);
static_assert(sizeof(SlotHead) == sizeof(SlotChange::oldHead) &&
              sizeof(FileHead) == sizeof(SlotChange::fileHead));

constexpr uint32_t aligned(uint32_t bytes)
{
    return (bytes + kAlignment - 1) / kAlignment * kAlignment;
}

// Bytes of a slot's texts. What a damaged head says may be more than 32 bits hold.
uint64_t textLength(const SlotHead& head)
{
    return uint64_t{head.keyLength} + head.bodyLength + head.noteLength;
}

uint64_t checksumOf(const SlotHead& head, const char* texts)
{
    const char* const behind = reinterpret_cast<const char*>(&head.checksum + 1);
    const uint64_t hash = hashBytes({behind, sizeof(head) - sizeof(head.checksum)});
    return head.movedTo != 0 ? hash
                             : hashBytes({texts, static_cast<std::size_t>(textLength(head))}, hash);
}

// Of the file that this process has open for the bucket.
const char* nameOf(const Store& store, uint32_t bucket)
{
    return store.bucket[bucket]->path;
}

bool damaged(const Store& store, uint32_t bucket, uint32_t offset, const char* what)
{
    complain(
        "%s, offset %u: %s.\nThe bucket is not what was written; the disk or its memory may "
        "be failing.",
        nameOf(store, bucket), offset, what);
    return false;
}

// A write that comes back short has met a full disk: what is less is fatal in the library.
bool writeAll(const Store& store, uint32_t bucket, uint32_t offset, const void* data,
              uint32_t bytes)
{
    ++store.bucket[bucket]->writes;
    const uint32_t written = rm_fileSeekWrite(store.bucket[bucket]->file, offset, data, bytes);
    if (written != bytes) {
        complain(
            "%s, offset %u: wrote %u of %u bytes.\nMake room on the disk, or name another one "
            "with --dir.",
            bucketName(bucket), offset, written, bytes);
    }
    return written == bytes;
}

bool readAll(const Store& store, uint32_t bucket, uint32_t offset, void* data, uint32_t bytes)
{
    ++store.bucket[bucket]->reads;
    return rm_fileSeekRead(store.bucket[bucket]->file, offset, data, bytes) == bytes ||
           damaged(store, bucket, offset, "the file ends within what should be there");
}

bool writeFileHead(const Store& store, uint32_t bucket)
{
    const FileHead head = {kFileMagic, store.bucket[bucket]->records, store.bucket[bucket]->end, 0};
    return writeAll(store, bucket, 0, &head, sizeof(head));
}

// Another process may have moved a record to the end since this one looked.
bool readFileHead(Store& store, uint32_t bucket)
{
    FileHead head = {};
    if (!readAll(store, bucket, 0, &head, sizeof(head))) {
        return false;
    }
    if (head.magic != kFileMagic || head.end < sizeof(FileHead) ||
        head.records > (head.end - sizeof(FileHead)) / sizeof(SlotHead)) {
        return damaged(store, bucket, 0, "not the head of a bucket");
    }
    store.bucket[bucket]->records = head.records;
    store.bucket[bucket]->end = head.end;
    return true;
}

// Whether a slot of this capacity has room in the image. It comes from the disk: nothing is
// calculated with it before this.
bool fitsImage(const Store& store, uint32_t bucket, uint32_t offset, uint32_t capacity)
{
    return capacity <= store.imageSize - sizeof(SlotHead) ||
           damaged(store, bucket, offset, "a slot larger than any record");
}

// Reads a slot into the image. False unless it is one, and whole.
bool readSlot(Store& store, uint32_t bucket, const IndexEntry& where, SlotHead& head)
{
    if (!fitsImage(store, bucket, where.offset, where.capacity)) {
        return false;
    }
    const uint32_t bytes = static_cast<uint32_t>(sizeof(head)) + where.capacity;
    if (!readAll(store, bucket, where.offset, store.image, bytes)) {
        return false;
    }
    std::memcpy(&head, store.image, sizeof(head));
    if (head.magic != kSlotMagic || head.capacity != where.capacity ||
        textLength(head) > head.capacity) {
        return damaged(store, bucket, where.offset, "not a slot");
    }
    if (head.checksum != checksumOf(head, store.image + sizeof(head))) {
        return damaged(store, bucket, where.offset, "the checksum of the slot does not match");
    }
    return true;
}

// Finishes the head of the slot whose texts stand in the image, and clears what is left of it.
uint32_t sealSlot(Store& store, SlotHead& head)
{
    char* const texts = store.image + sizeof(head);
    const auto used = static_cast<uint32_t>(textLength(head));
    std::memset(texts + used, 0, head.capacity - used);
    head.checksum = checksumOf(head, texts);
    std::memcpy(store.image, &head, sizeof(head));
    return static_cast<uint32_t>(sizeof(head)) + head.capacity;
}

// Enters a file into the table and opens it. The table keeps the pointer to the path.
Bucket* openFile(DArray* table, const char* path, uint32_t openFlags)
{
    void* record = nullptr;
    darrayCreateEntry(table, path, &record);
    auto* const bucket = static_cast<Bucket*>(record);
    *bucket = {};  // or it would be what its last user has left, or nobody
    bucket->path = path;
    bucket->file = rm_fileOpen(path, openFlags, FILE_FATAL, 0, kGrowIncrement);
    return bucket;
}

void openFiles(Store& store, int16_t tag, uint32_t largest, uint32_t buckets, uint32_t openFlags,
               Files files)
{
    std::memset(&store, 0, sizeof(store));
    store.tag = tag;
    store.buckets = buckets;
    store.imageSize = imageSize(largest);
    store.image = static_cast<char*>(rm_cGetMemory(store.imageSize, tag));
    store.open = darrayCreate(kMaxBuckets, kFilesAtATime, sizeof(Bucket));
    for (uint32_t i = 0; i < store.buckets; ++i) {
        store.bucket[i] = openFile(
            store.open, files == Files::kRecords ? bucketName(i) : backupName(i), openFlags);
    }
}

// The end of the last slot moves on. The library extends a file by whole steps, ahead of writes.
void moveEnd(Bucket& bucket, uint32_t bytes)
{
    const uint32_t steps = bucket.end / kGrowIncrement;
    bucket.end += bytes;
    count(kGrowths, static_cast<uint16_t>(bucket.end / kGrowIncrement - steps));
}

using FileName = char[sizeof("bucket-00.dat")];

const char* composeName(FileName& name, uint32_t bucket, const char* extension)
{
    std::snprintf(name, sizeof(name), "bucket-%02u.%s", bucket % kMaxBuckets, extension);
    return name;
}

void addToIndex(Bucket& bucket, const IndexEntry& entry)
{
    uint32_t at = static_cast<uint32_t>(entry.hash) & (bucket.indexSize - 1);
    while (bucket.index[at].offset != 0) {
        at = (at + 1) & (bucket.indexSize - 1);
    }
    bucket.index[at] = entry;
}
}  // namespace

uint32_t bucketOf(uint64_t hash, uint32_t buckets)
{
    // Names that differ in their last bytes only have hashes that differ in the low bits only.
    constexpr uint64_t kSpread = 0x9E3779B97F4A7C15;
    return static_cast<uint32_t>((hash * kSpread) >> 32) % buckets;
}

const char* bucketName(uint32_t bucket)
{
    static FileName names[kMaxBuckets];
    return composeName(names[bucket % kMaxBuckets], bucket, "dat");
}

const char* backupName(uint32_t bucket)
{
    static FileName names[kMaxBuckets];
    return composeName(names[bucket % kMaxBuckets], bucket, "bak");
}

uint32_t imageSize(uint32_t largest)
{
    return static_cast<uint32_t>(sizeof(SlotHead)) + aligned(largest + kNoteRoom);
}

void createStore(Store& store, int16_t tag, uint32_t largest, uint32_t buckets)
{
    openFiles(store, tag, largest, buckets, RM_O_RDWR | RM_O_CREAT | RM_O_TRUNC, Files::kRecords);
    for (uint32_t i = 0; i < store.buckets; ++i) {
        store.bucket[i]->end = sizeof(FileHead);
    }
}

bool appendRecord(Store& store, const Record& record)
{
    const uint32_t number = bucketOf(record.hash, store.buckets);
    Bucket& bucket = *store.bucket[number];
    SlotHead head = {};
    head.hash = record.hash;
    head.magic = kSlotMagic;
    head.keyLength = static_cast<uint32_t>(record.key.size());
    head.bodyLength = static_cast<uint32_t>(record.body.size());
    head.version = 1;
    head.capacity = aligned(static_cast<uint32_t>(textLength(head)));
    char* const texts = store.image + sizeof(head);
    record.key.copy(texts, record.key.size());
    record.body.copy(texts + record.key.size(), record.body.size());

    const uint32_t bytes = sealSlot(store, head);
    if (!writeAll(store, number, bucket.end, store.image, bytes)) {
        return false;
    }
    moveEnd(bucket, bytes);
    ++bucket.records;
    return true;
}

bool finishStore(Store& store)
{
    for (uint32_t i = 0; i < store.buckets; ++i) {
        if (!writeFileHead(store, i)) {
            return false;
        }
        // At once: a file that has been parked again by then is not synced.
        rm_fileSync(store.bucket[i]->file);
        count(kSyncs);
    }
    return true;
}

void openStore(Store& store, int16_t tag, uint32_t largest, uint32_t buckets, Files files)
{
    openFiles(store, tag, largest, buckets, RM_O_RDWR, files);
}

bool scanBucket(Store& store, uint32_t number)
{
    Bucket& bucket = *store.bucket[number];
    if (!readFileHead(store, number)) {
        return false;
    }
    bucket.indexSize = std::bit_ceil(2 * bucket.records + 1);
    bucket.index = static_cast<IndexEntry*>(
        rm_cGetMemory(bucket.indexSize * static_cast<uint32_t>(sizeof(IndexEntry)), store.tag));
    uint32_t found = 0;
    for (uint32_t offset = sizeof(FileHead); offset < bucket.end;) {
        SlotHead head = {};
        if (!readAll(store, number, offset, &head, sizeof(head))) {
            return false;
        }
        if (head.magic != kSlotMagic) {
            return damaged(store, number, offset, "not a slot");
        }
        if (!fitsImage(store, number, offset, head.capacity)) {
            return false;
        }
        const uint32_t bytes = static_cast<uint32_t>(sizeof(head)) + head.capacity;
        if (bytes > bucket.end - offset) {
            return damaged(store, number, offset, "a slot that goes on behind the last one's end");
        }
        if (head.movedTo == 0) {
            if (++found > bucket.records) {
                break;
            }
            addToIndex(bucket, {head.hash, offset, head.capacity});
        }
        offset += bytes;
    }
    return found == bucket.records ||
           damaged(store, number, 0, "not as many records as its head says");
}

bool checkBucket(Store& store, uint32_t number)
{
    const Bucket& bucket = *store.bucket[number];
    for (uint32_t i = 0; i < bucket.indexSize; ++i) {
        SlotHead head = {};
        if (bucket.index[i].offset != 0 && !readSlot(store, number, bucket.index[i], head)) {
            return false;
        }
    }
    return true;
}

Found findRecord(Store& store, std::string_view wanted, uint64_t hash, StoredRecord& stored)
{
    const uint32_t number = bucketOf(hash, store.buckets);
    Bucket& bucket = *store.bucket[number];
    SlotHead head = {};
    uint32_t at = static_cast<uint32_t>(hash) & (bucket.indexSize - 1);
    for (; bucket.index[at].offset != 0; at = (at + 1) & (bucket.indexSize - 1)) {
        IndexEntry& entry = bucket.index[at];
        if (entry.hash != hash) {
            continue;
        }
        if (!readSlot(store, number, entry, head)) {
            return Found::kDamaged;
        }
        if (head.movedTo != 0) {
            // The first update made room for a note, and for nothing else.
            entry.offset = head.movedTo;
            entry.capacity = aligned(head.keyLength + head.bodyLength + kNoteRoom);
            if (!readSlot(store, number, entry, head)) {
                return Found::kDamaged;
            }
        }
        const char* const texts = store.image + sizeof(head);
        const std::string_view key(texts, head.keyLength);
        if (key == wanted) {
            stored = {number,
                      entry.offset,
                      head.capacity,
                      head.version,
                      key,
                      {texts + head.keyLength, head.bodyLength},
                      {texts + head.keyLength + head.bodyLength, head.noteLength}};
            return Found::kYes;
        }
    }
    return Found::kNo;
}

bool readRecord(Store& store, const Record& record, StoredRecord& stored)
{
    const Found found = findRecord(store, record.key, record.hash, stored);
    if (found == Found::kNo) {
        complain("%s: the record \"%s\" is not there.",
                 bucketName(bucketOf(record.hash, store.buckets)), record.key.c_str());
    }
    if (found != Found::kYes) {
        return false;
    }
    // Room for the texts is made by the input. Even a slot that is whole could have more of them.
    return (stored.body.size() <= record.body.size() && stored.note.size() <= kNoteRoom) ||
           damaged(store, stored.bucket, stored.offset, "a record longer than it was stored");
}

uint32_t textsRoom(const Record& record)
{
    return static_cast<uint32_t>(record.key.size() + record.body.size()) + kNoteRoom;
}

void copyTexts(StoredRecord& stored, char* buffer)
{
    const auto copy = [&buffer](std::string_view text) {
        text.copy(buffer, text.size());
        const std::string_view copied(buffer, text.size());
        buffer += text.size();
        return copied;
    };
    stored.key = copy(stored.key);
    stored.body = copy(stored.body);
    stored.note = copy(stored.note);
}

bool prepareUpdate(Store& store, const StoredRecord& stored, std::string_view note,
                   SlotChange& change)
{
    Bucket& bucket = *store.bucket[stored.bucket];
    SlotHead head = {};
    std::memcpy(&head, store.image, sizeof(head));
    SlotHead old = head;
    head.version += 1;
    head.noteLength = static_cast<uint32_t>(note.size());
    const bool moves = textLength(head) > head.capacity;
    change = {stored.bucket, head.version, stored.offset, 0, 0, stored.offset, {}, {}};
    if (moves) {
        head.capacity = aligned(head.keyLength + head.bodyLength + kNoteRoom);
        if (!readFileHead(store, stored.bucket)) {
            return false;
        }
        change.offset = bucket.end;
        change.moves = 1;
    }
    note.copy(store.image + sizeof(head) + head.keyLength + head.bodyLength, note.size());
    change.bytes = sealSlot(store, head);
    if (moves) {
        moveEnd(bucket, change.bytes);
        count(kMoves);
        const FileHead fileHead = {kFileMagic, bucket.records, bucket.end, 0};
        std::memcpy(change.fileHead, &fileHead, sizeof(fileHead));
        old.movedTo = change.offset;
        old.checksum = checksumOf(old, nullptr);
        std::memcpy(change.oldHead, &old, sizeof(old));
    }
    return true;
}

bool applyChange(Store& store, const SlotChange& change, const char* image, bool dieHalfway)
{
    if (dieHalfway) {
        writeAll(store, change.bucket, change.offset, image, change.bytes / 2);
        kill(getpid(), SIGKILL);
    }
    // The new slot is complete before anything leads to it.
    return writeAll(store, change.bucket, change.offset, image, change.bytes) &&
           (change.moves == 0 ||
            (writeAll(store, change.bucket, 0, change.fileHead, sizeof(change.fileHead)) &&
             writeAll(store, change.bucket, change.oldOffset, change.oldHead,
                      sizeof(change.oldHead))));
}

void damageRecord(Store& store, const StoredRecord& stored)
{
    const uint32_t offset = stored.offset + static_cast<uint32_t>(stored.body.data() - store.image);
    const char flipped = static_cast<char>(stored.body.front() ^ 1);
    writeAll(store, stored.bucket, offset, &flipped, 1);
}

uint64_t storeBytes(const Store& store)
{
    uint64_t bytes = 0;
    for (uint32_t i = 0; i < store.buckets; ++i) {
        bytes += rm_fileLength(store.bucket[i]->file);
    }
    return bytes;
}

const Bucket& busiestBucket(const Store& store)
{
    const Bucket* busiest = store.bucket[0];
    for (uint32_t i = 1; i < store.buckets; ++i) {
        const Bucket* const bucket = store.bucket[i];
        if (bucket->reads + bucket->writes > busiest->reads + busiest->writes) {
            busiest = bucket;
        }
    }
    return *busiest;
}

void closeStore(Store& store)
{
    for (int16_t entry = darrayGetFirstUsedEntry(store.open); entry != RM_NONE;
         entry = darrayGetFirstUsedEntry(store.open)) {
        rm_fileClose(static_cast<const Bucket*>(darrayGetEntryPtr(store.open, entry))->file);
        darrayDeleteEntry(store.open, entry);
    }
    darrayDestroy(store.open);
    store.open = nullptr;
}

}  // namespace catalogue
