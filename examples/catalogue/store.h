// The bucket files: where the records are kept.
#ifndef CATALOGUE_STORE_H
#define CATALOGUE_STORE_H

#include "records.h"
#include "settings.h"

#include "rm.h"

#include <cstdint>
#include <string_view>
#include <type_traits>

namespace catalogue
{

constexpr uint32_t kNoteRoom = 64;  // bytes

// Where a record's slot is, by the hash of its key.
struct IndexEntry {
    uint64_t hash;
    uint32_t offset;    // bytes into the file; 0 in an unused entry
    uint32_t capacity;  // bytes of the slot after its header
};

// An open bucket file: the record of an entry in the table of them. It stays where it is.
struct Bucket {
    const char* path;  // the name of the entry
    int16_t file;      // handle of the managed file
    uint32_t records;
    uint32_t end;        // offset behind the last slot, as this process last saw it
    IndexEntry* index;   // in the store's tag; null until scanBucket
    uint32_t indexSize;  // a power of two
    uint32_t reads;      // of slots, by this process
    uint32_t writes;     // likewise
};

// One process's view of the files. Plain data: the library's fatal errors jump over the frames
// that hold it, and its memory goes with its tags: this one and that of the table.
struct Store {
    int16_t tag;                  // owns index and image
    char* image;                  // room for any one slot
    uint32_t imageSize;           // bytes
    DArray* open;                 // the table of open files
    uint32_t buckets;             // how many of the following there are
    Bucket* bucket[kMaxBuckets];  // their records, by number
};

static_assert(std::is_trivially_destructible_v<Store>);

// A record as it was read; the texts stand in the store's image until the next call, or in the
// buffer to which copyTexts has taken them.
struct StoredRecord {
    uint32_t bucket;
    uint32_t offset;
    uint32_t capacity;
    uint32_t version;  // 1 as loaded, 1 more with every update
    std::string_view key;
    std::string_view body;  // as in the input
    std::string_view note;  // of the last update; empty before the first
};

// An update as the writes that it consists of, the image of the new slot apart. Plain bytes:
// carried out again, by whichever process, they lead to the same.
struct SlotChange {
    uint32_t bucket;
    uint32_t version;    // of the record afterwards
    uint32_t offset;     // of the image, of which all is written
    uint32_t bytes;      // of it
    uint32_t moves;      // 1: the record gets a new slot, and what follows is written too
    uint32_t oldOffset;  // of the head of the old slot
    char oldHead[48];    // which says where the record went
    char fileHead[16];
};

// What a search can come to.
enum class Found {
    kYes,
    kNo,
    kDamaged,  // said so
};

uint32_t bucketOf(uint64_t hash, uint32_t buckets);

// Which files of a bucket.
enum class Files {
    kRecords,
    kBackups  // as the rotation has left them
};

// The path of a bucket's file; good as long as the process runs.
const char* bucketName(uint32_t bucket);
const char* backupName(uint32_t bucket);

// All of these call the library: any of them may leave by the fatal target.

// Makes the bucket files, empty. `tag` owns the store's memory, `largest` is the input's.
void createStore(Store& store, int16_t tag, uint32_t largest, uint32_t buckets);

// Puts a record at the end of its bucket. False after having said why not.
bool appendRecord(Store& store, const Record& record);

// Writes the heads of the files, from then on they can be opened, and brings the files to the disk.
bool finishStore(Store& store);

void openStore(Store& store, int16_t tag, uint32_t largest, uint32_t buckets,
               Files files = Files::kRecords);

// Builds the index of a bucket. The caller holds its lock, as for the three that follow.
bool scanBucket(Store& store, uint32_t number);

// Reads every slot that the index of a bucket leads to. False after having said what is wrong.
bool checkBucket(Store& store, uint32_t number);

// Looks for a name that need not be there.
Found findRecord(Store& store, std::string_view wanted, uint64_t hash, StoredRecord& stored);

// False after having said what is wrong: the record is not there, or not whole.
bool readRecord(Store& store, const Record& record, StoredRecord& stored);

// Room that the texts of a record take, and a note that is longer than its present one.
uint32_t textsRoom(const Record& record);

// Copies the texts out of the image, where the next call writes over them, into a buffer with the
// room that the record needs. Of what readRecord has found they are never more.
void copyTexts(StoredRecord& stored, char* buffer);

// Makes of the record that has just been read one with a version more and another note, of at most
// kNoteRoom bytes: the new slot in the store's image, and what is to be written. Writes nothing.
bool prepareUpdate(Store& store, const StoredRecord& stored, std::string_view note,
                   SlotChange& change);

// Writes it, `image` being that of the new slot. With `dieHalfway` the process kills itself in the
// middle.
bool applyChange(Store& store, const SlotChange& change, const char* image, bool dieHalfway);

// Bytes of the largest image, by the largest record of the input.
uint32_t imageSize(uint32_t largest);

// Flips one byte in the body of a record: a test of the verification.
void damageRecord(Store& store, const StoredRecord& stored);

// Bytes of all bucket files.
uint64_t storeBytes(const Store& store);

// The file that was read and written most.
const Bucket& busiestBucket(const Store& store);

// Closes every file that is open, and forgets the table of them.
void closeStore(Store& store);

}  // namespace catalogue

#endif
