// The objects of a place.
//
// Why: an operator looks while a server runs, or because it does not. So no call here makes or
// changes anything: keys are asked about with flags 0, which finds and never creates, and a token
// file is not even opened.
//
// An object may go at any moment between two calls. Then it was not there.
#include "survey.h"

#include "procfs.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>

namespace rmipc
{
namespace
{
constexpr unsigned kModeBits = 0777;

// The system leaves the declaration of the fourth argument of semctl to its callers.
union semun {
    int val;
    semid_ds* buf;
    unsigned short* array;
};

void fill(Object& object, Family family, int id, const ipc_perm& permissions)
{
    object.family = family;
    object.id = id;
    object.key = permissions.__key;
    object.owner = permissions.uid;
    object.creator = permissions.cuid;
    object.mode = permissions.mode & kModeBits;
}

// A row of the tables that everybody may read, of an object that this user may not ask about.
struct Row {
    const Table& table;
    std::size_t row;

    template <typename T>
    T get(std::string_view column, int base = 10) const
    {
        return table.at<T>(row, column, base).value_or(T{});
    }
};

void fill(Object& object, Family family, int id, const Row& row)
{
    object.family = family;
    object.id = id;
    object.key = row.get<key_t>("key");
    object.owner = row.get<uid_t>("uid");
    object.creator = row.get<uid_t>("cuid");
    object.mode = row.get<unsigned>("perms", 8) & kModeBits;
    object.sight = Sight::kPartly;
}

// False when the set has gone, or may not be read, which errno tells.
bool readSemaphore(int id, int number, Semaphore& semaphore)
{
    // Between two answers somebody may operate: they belong together when he is the same before and
    // after. On a busy semaphore any moment is as good as another.
    constexpr int kAttempts = 5;
    const semun unused = {};
    for (int i = 0; i < kAttempts; ++i) {
        const int before = semctl(id, number, GETPID, unused);
        semaphore.value = semctl(id, number, GETVAL, unused);
        semaphore.toEnter = semctl(id, number, GETNCNT, unused);
        semaphore.toPass = semctl(id, number, GETZCNT, unused);
        semaphore.last = semctl(id, number, GETPID, unused);
        if (before == -1 || semaphore.value == -1 || semaphore.toEnter == -1 ||
            semaphore.toPass == -1 || semaphore.last == -1) {
            return false;
        }
        if (before == semaphore.last) {
            break;
        }
    }
    return true;
}

void fillRest(SemaphoreSet& set, const Row& row)
{
    set.size = row.get<uint64_t>("nsems");
    set.used = row.get<int64_t>("otime");
    set.changed = row.get<int64_t>("ctime");
}

void fillRest(Segment& segment, const Row& row)
{
    segment.bytes = row.get<uint64_t>("size");
    segment.attached = row.get<uint64_t>("nattch");
    segment.maker = row.get<pid_t>("cpid");
    segment.last = row.get<pid_t>("lpid");
    segment.attachedAt = row.get<int64_t>("atime");
    segment.detachedAt = row.get<int64_t>("dtime");
    segment.changed = row.get<int64_t>("ctime");
    segment.removed = (row.get<unsigned>("perms", 8) & SHM_DEST) != 0;
}

void fillRest(Queue& queue, const Row& row)
{
    queue.messages = row.get<uint64_t>("qnum");
    queue.bytes = row.get<uint64_t>("cbytes");
    queue.sender = row.get<pid_t>("lspid");
    queue.reader = row.get<pid_t>("lrpid");
    queue.sent = row.get<int64_t>("stime");
    queue.received = row.get<int64_t>("rtime");
    queue.changed = row.get<int64_t>("ctime");
}

// What everybody may know of an object; nothing when it has gone.
template <typename Kind>
std::optional<Kind> fromTable(Family family, int id)
{
    struct Source {
        const char* path;
        std::string_view column;
    };

    constexpr std::array<Source, kFamilies> kSources = {{{"/proc/sysvipc/sem", "semid"},
                                                         {"/proc/sysvipc/shm", "shmid"},
                                                         {"/proc/sysvipc/msg", "msqid"}}};
    const Table table(readWhole(kSources[family].path).value_or(""));
    for (std::size_t number = 0; number < table.rows(); ++number) {
        if (table.at<int>(number, kSources[family].column) == id) {
            const Row row = {table, number};
            Kind object;
            fill(object, family, id, row);
            fillRest(object, row);
            return object;
        }
    }
    return std::nullopt;
}

void lookInside(Segment& segment)
{
    void* area = shmat(segment.id, nullptr, SHM_RDONLY);
    if (area != reinterpret_cast<void*>(-1)) {
        segment.bag = bagIn(static_cast<const unsigned char*>(area), segment.bytes);
        shmdt(area);
    }
}

void addUsers(Segment& segment, const Scan& scan)
{
    for (const Attachment& attachment : scan.attachments) {
        if (attachment.id == segment.id &&
            std::ranges::find(segment.users, attachment.pid) == segment.users.end()) {
            segment.users.push_back(attachment.pid);
        }
    }
    std::ranges::sort(segment.users);
}

// A removed segment has lost its key, but who has it attached still shows the one it had.
void addRemoved(Survey& survey, int slot, key_t key, const Scan& scan, int current)
{
    std::vector<int> ids;
    for (const Attachment& attachment : scan.attachments) {
        if (attachment.key == key && attachment.id != current &&
            std::ranges::find(ids, attachment.id) == ids.end()) {
            ids.push_back(attachment.id);
        }
    }
    for (const int id : ids) {
        auto segment = readSegment(id);
        if (segment && segment->removed) {
            segment->slot = slot;
            addUsers(*segment, scan);
            survey.segments.push_back(*segment);
        }
    }
}

void surveySegments(Survey& survey, uint32_t base, const Scan& scan, bool bags)
{
    for (int slot = 0; slot < kSegmentSlots; ++slot) {
        const key_t key = keyOf(base, slot);
        const int id = idOf(kSegments, key);
        auto segment = id == -1 ? std::nullopt : readSegment(id);
        if (segment && segment->key == key) {
            segment->slot = slot;
            addUsers(*segment, scan);
            if (bags && segment->sight == Sight::kSeen) {
                lookInside(*segment);
            }
            survey.segments.push_back(*segment);
        }
        addRemoved(survey, slot, key, scan, id);
    }
}

void surveyQueues(Survey& survey, uint32_t base)
{
    for (int slot = 0; slot < kQueueSlots; ++slot) {
        const key_t key = keyOf(base, slot);
        const int id = idOf(kQueues, key);
        auto queue = id == -1 ? std::nullopt : readQueue(id);
        if (queue && queue->key == key) {
            queue->slot = slot;
            survey.queues.push_back(*queue);
        }
    }
}
}  // namespace

int idOf(Family family, key_t key)
{
    switch (family) {
        case kSemaphores:
            return semget(key, 0, 0);
        case kSegments:
            return shmget(key, 0, 0);
        case kQueues:
            break;
    }
    return msgget(key, 0);
}

std::optional<SemaphoreSet> readSet(int id)
{
    SemaphoreSet set;
    semid_ds status = {};
    semun argument = {};
    argument.buf = &status;
    if (semctl(id, 0, IPC_STAT, argument) == -1) {
        return errno == EACCES ? fromTable<SemaphoreSet>(kSemaphores, id) : std::nullopt;
    }
    fill(set, kSemaphores, id, status.sem_perm);
    set.used = status.sem_otime;
    set.changed = status.sem_ctime;
    set.size = status.sem_nsems;
    if (set.size != kSetSize) {
        set.sight = Sight::kForeign;
        return set;
    }
    for (int number = 0; number < kSetSize; ++number) {
        Semaphore semaphore;
        if (!readSemaphore(id, number, semaphore)) {
            return errno == EACCES ? fromTable<SemaphoreSet>(kSemaphores, id) : std::nullopt;
        }
        set.semaphores.push_back(semaphore);
    }
    return set;
}

std::optional<Segment> readSegment(int id)
{
    Segment segment;
    shmid_ds status = {};
    if (shmctl(id, IPC_STAT, &status) == -1) {
        return errno == EACCES ? fromTable<Segment>(kSegments, id) : std::nullopt;
    }
    fill(segment, kSegments, id, status.shm_perm);
    segment.bytes = status.shm_segsz;
    segment.attached = status.shm_nattch;
    segment.maker = status.shm_cpid;
    segment.last = status.shm_lpid;
    segment.attachedAt = status.shm_atime;
    segment.detachedAt = status.shm_dtime;
    segment.changed = status.shm_ctime;
    segment.removed = (status.shm_perm.mode & SHM_DEST) != 0;
    return segment;
}

std::optional<Queue> readQueue(int id)
{
    Queue queue;
    msqid_ds status = {};
    if (msgctl(id, IPC_STAT, &status) == -1) {
        return errno == EACCES ? fromTable<Queue>(kQueues, id) : std::nullopt;
    }
    fill(queue, kQueues, id, status.msg_perm);
    queue.messages = status.msg_qnum;
    queue.bytes = status.__msg_cbytes;
    queue.limit = status.msg_qbytes;
    queue.sender = status.msg_lspid;
    queue.reader = status.msg_lrpid;
    queue.sent = status.msg_stime;
    queue.received = status.msg_rtime;
    queue.changed = status.msg_ctime;
    return queue;
}

std::optional<Bag> bagIn(const unsigned char* area, uint64_t bytes)
{
    constexpr std::size_t kHeader = 16;

    struct Fields {
        uint32_t reserved;
        uint16_t capacity;
        uint16_t count;
        uint16_t next;
        uint16_t elementSize;
        uint32_t slots;  // low half of their address where the bag was made
    } fields = {};

    static_assert(sizeof(fields) == kHeader);
    if (bytes < kHeader) {
        return std::nullopt;
    }
    std::memcpy(&fields, area, kHeader);
    const uint64_t size = kHeader + uint64_t{fields.capacity} * fields.elementSize;
    // Segments begin at a page, so the slots begin at one and 16 bytes.
    constexpr uint32_t kWithinPage = 0xFFF;
    const bool sound = fields.reserved == 0 && size == bytes && fields.count <= fields.capacity &&
                       (fields.next < fields.capacity || fields.next == 0) &&
                       (fields.slots & kWithinPage) == kHeader;
    return sound ? std::optional<Bag>({fields.capacity, fields.count, fields.elementSize})
                 : std::nullopt;
}

Survey lookAround(const Place& place, const Scan& scan, bool bags)
{
    Survey survey = {.place = place, .unseen = scan.unseen, .hidden = scan.hidden};
    for (const Family family : kEachFamily) {
        const Token& token = place.tokens[family];
        for (const Holder& holder : scan.holders) {
            if (token.base && holder.family == family && holder.device == token.device &&
                holder.number == token.number) {
                survey.holders[family].push_back(holder.pid);
            }
        }
        std::vector<pid_t>& holders = survey.holders[family];
        std::ranges::sort(holders);
        holders.erase(std::unique(holders.begin(), holders.end()), holders.end());
    }
    if (const auto base = place.tokens[kSemaphores].base) {
        const key_t key = keyOf(*base, 0);
        const int id = idOf(kSemaphores, key);
        auto set = id == -1 ? std::nullopt : readSet(id);
        if (set && set->key == key) {
            survey.set = set;
        }
    }
    if (const auto base = place.tokens[kSegments].base) {
        surveySegments(survey, *base, scan, bags);
    }
    if (const auto base = place.tokens[kQueues].base) {
        surveyQueues(survey, *base);
    }
    return survey;
}

}  // namespace rmipc
