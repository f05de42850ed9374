// A server of the catalogue's clients that keeps no files and has no workers: it answers by itself,
// and as badly as it is told to.
//
// Why: what a client does when the server lies, dies or says nothing cannot be seen with one that
// works. This one keeps to the contract of protocol.h but for what its mode says.
//
// usage: fake_server <directory> <mode> [<number>]
//
//   honest         answers as it should
//   silent         takes requests and never answers
//   hold           takes requests, and answers them, one for each SIGUSR1, oldest first
//   twice          answers everything twice
//   liar           sends every kind of wrong answer before the right one
//   lies           sends only the wrong ones
//   changing       the record has another version at each of the first <number> parts
//   status         answers everything with the status <number>
//   dies           kills itself with the first request
//   ends           ends in order with the first request, without an answer
//   full           its queue of requests is full until SIGUSR1, those of answers at the beginning
//   stuffed        begins with queues of answers that are full of what others left
//   loading        has no channels until SIGUSR1
//   board          has a board with <number>: 0 no magic, 1 another layout, 2 a short segment
//
//   attack         is no server: the directory is that of a run, whose queue of requests gets
//                  <number> messages that are no requests, or requests of nobody, and it ends
//
// It makes a run directory, says "ready <path>" and the numbers of its queues and segment, and ends
// in order with SIGTERM, also when whoever started it has gone. CHANNELS in the environment says
// how many channels it has, 4 if it is not there.
#include "protocol.h"

#include "rm.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/prctl.h>
#include <sys/shm.h>
#include <unistd.h>

namespace
{
using namespace catalogue;

constexpr long kPollNs = 200000;
constexpr uint32_t kItems = 1500;       // their names take several answers
constexpr uint32_t kLargeLines = 5000;  // of the largest record
constexpr std::size_t kRawBytes = 8000;
constexpr unsigned kNotices = 3;  // of a run's own processes, which carry something
constexpr std::string_view kForged("Name\0forged\0", 12);

struct FakeRecord {
    std::string name;
    std::string body;
    std::string note;
    uint32_t version = 1;
};

struct Pending {
    uint16_t kind = 0;
    RequestHead head = {};
    std::string name;
    std::string text;
};

std::string mode;
unsigned number = 0;
std::vector<FakeRecord> records;
std::map<std::string, std::size_t> byName;
std::string runPath;
int channels = 4;
unsigned parts = 0;  // of gets, answered so far
int queueIds[kQueues];

[[noreturn]] void give(const char* what)
{
    std::perror(what);
    std::exit(1);
}

void addRecord(const std::string& name, const std::string& text)
{
    using namespace std::string_literals;
    byName[name] = records.size();
    records.push_back({name, "Name\0"s + name + "\0Text\0"s + text + "\0"s, "", 1});
}

void makeRecords()
{
    for (uint32_t i = 1; i <= kItems; ++i) {
        addRecord("item" + std::to_string(i), "text of " + std::to_string(i));
    }
    std::string large;
    for (uint32_t i = 1; i <= kLargeLines; ++i) {
        large += "line " + std::to_string(i) + " of a large record\n";
    }
    addRecord("large", large + "the end");
    addRecord(std::string(kNameBytes, 'n'), "has the longest name");
    addRecord("tab\there", "escape \033[31m and bell \a");
    addRecord("-dash", "begins with a dash");
    addRecord("two words", "and a blank");
}

// A message exactly as it is given, its length included.
void sendRaw(int queue, uint16_t code, uint16_t length, std::string_view data)
{
    struct {
        long type;
        uint16_t code;
        uint16_t length;
        char data[kRawBytes];
    } message = {1, code, length, {}};

    data.copy(message.data, sizeof(message.data));
    if (msgsnd(queueIds[queue], &message, 2 * sizeof(uint16_t) + data.size(), IPC_NOWAIT) != 0 &&
        errno != EAGAIN) {
        give("msgsnd");
    }
}

constexpr uint64_t kAsItIs = UINT64_MAX;  // bytes of data: those that there are

void sendAnswer(uint16_t channel, uint16_t status, AnswerHead head, std::string_view data,
                uint64_t pretended = kAsItIs)
{
    head.dataBytes = static_cast<uint32_t>(pretended == kAsItIs ? data.size() : pretended);
    std::string message(reinterpret_cast<const char*>(&head), sizeof(head));
    message += data;
    message += std::string(5, '\0');  // as the library lets them travel
    sendRaw(channel, status, static_cast<uint16_t>(sizeof(head) + data.size()), message);
}

AnswerHead headFor(const Pending& pending)
{
    AnswerHead head = {};
    head.magic = kProtocolMagic;
    head.pid = pending.head.pid;
    head.sequence = pending.head.sequence;
    return head;
}

struct Made {
    uint16_t status = kAnswerNotFound;
    AnswerHead head = {};
    std::string data;
};

void makePart(const Pending& pending, FakeRecord& record, Made& made)
{
    if (mode == "changing" && parts++ < number) {
        ++record.version;
        record.note = "note of version " + std::to_string(record.version);
    }
    const std::string all = record.body + record.note;
    made.head.version = record.version;
    made.head.total = static_cast<uint32_t>(all.size());
    made.head.bodyBytes = static_cast<uint32_t>(record.body.size());
    made.head.index = pending.head.index;
    made.data = pending.head.index < all.size() ? all.substr(pending.head.index, kPartBytes) : "";
}

void makeList(const Pending& pending, Made& made)
{
    made.head.total = static_cast<uint32_t>(records.size());
    uint32_t i = pending.head.index;
    for (; i < records.size(); ++i) {
        const std::string& name = records[i].name;
        if (!name.starts_with(pending.name)) {
            continue;
        }
        const auto length = static_cast<uint16_t>(name.size());
        if (made.data.size() + sizeof(length) + length > kPartBytes) {
            break;
        }
        made.data.append(reinterpret_cast<const char*>(&length), sizeof(length));
        made.data += name;
    }
    made.head.index = i < records.size() ? i : kListEnd;
}

Made makeAnswer(const Pending& pending)
{
    Made made;
    made.head = headFor(pending);
    if (mode == "status") {
        made.status = static_cast<uint16_t>(number);
        return made;
    }
    if (pending.kind == kRequestList) {
        made.status = kAnswerDone;
        makeList(pending, made);
        return made;
    }
    const auto found = byName.find(pending.name);
    if (found == byName.end()) {
        return made;
    }
    FakeRecord& record = records[found->second];
    made.status = kAnswerDone;
    if (pending.kind == kRequestPut) {
        record.note = pending.text;
        made.head.version = ++record.version;
    } else {
        makePart(pending, record, made);
    }
    return made;
}

// A good answer that says nothing true.
AnswerHead forgedHead(const Pending& pending)
{
    AnswerHead head = headFor(pending);
    head.version = 7;
    head.total = head.bodyBytes = static_cast<uint32_t>(kForged.size());
    head.index = pending.head.index;
    if (pending.kind == kRequestList) {
        head.total = static_cast<uint32_t>(records.size());
        head.index = kListEnd;
    }
    return head;
}

// What no request is answered with.
void sendCommonLies(const Pending& pending, const AnswerHead& good, std::string_view data)
{
    const uint16_t channel = pending.head.channel;
    const auto lie = [&](auto change, uint64_t pretended = kAsItIs) {
        AnswerHead head = good;
        change(head);
        sendAnswer(channel, kAnswerDone, head, data, pretended);
    };
    lie([](AnswerHead& head) { head.magic ^= 1; });
    lie([](AnswerHead& head) { ++head.pid; });
    lie([](AnswerHead& head) { --head.sequence; });
    lie([](AnswerHead& head) { ++head.sequence; });
    lie([](AnswerHead&) {}, data.size() + 1);
    lie([](AnswerHead&) {}, UINT32_MAX);
    sendAnswer(channel, 0, good, data);
    sendAnswer(channel, kAnswerBroken + 1, good, data);
    sendRaw(channel, kAnswerDone, 0, "");
    sendRaw(channel, kAnswerDone, UINT16_MAX, "");
    sendRaw(channel, kAnswerDone, UINT16_MAX,
            {reinterpret_cast<const char*>(&good), sizeof(good) - 1});
    sendRaw(channel, kAnswerDone, UINT16_MAX, std::string(kRawBytes, 'x'));
}

// Every way in which a message can be no answer. Each differs in one thing from one that is good.
void sendLies(const Pending& pending)
{
    const AnswerHead good = forgedHead(pending);
    const auto lie = [&](auto change, std::string_view data) {
        AnswerHead head = good;
        change(head);
        sendAnswer(pending.head.channel, kAnswerDone, head, data);
    };
    if (pending.kind == kRequestGet) {
        sendCommonLies(pending, good, kForged);
        lie([](AnswerHead& head) { head.version = 0; }, kForged);
        AnswerHead longer = good;  // than what comes
        longer.total = longer.bodyBytes = kForged.size() + 1;
        sendAnswer(pending.head.channel, kAnswerDone, longer, kForged, longer.total);
        AnswerHead shorter = good;
        shorter.total = shorter.bodyBytes = kForged.size() - 1;
        sendAnswer(pending.head.channel, kAnswerDone, shorter, kForged, shorter.total);
        lie([](AnswerHead& head) { head.total = head.bodyBytes = UINT32_MAX; }, kForged);
        lie([](AnswerHead& head) { head.total = head.bodyBytes = head.index + 4; }, kForged);
        lie([](AnswerHead& head) { head.bodyBytes = head.total + 1; }, kForged);
        lie([](AnswerHead& head) { head.total = kForged.size() + kTextBytes + 1; }, kForged);
        lie([](AnswerHead& head) { head.total = head.bodyBytes = ++head.index + kForged.size(); },
            kForged);
        lie([](AnswerHead& head) { head.total = head.bodyBytes = head.index + 1; }, "");
    } else if (pending.kind == kRequestPut) {
        sendCommonLies(pending, good, "");
        lie([](AnswerHead& head) { head.version = 0; }, "");
        lie([](AnswerHead& head) { head.version = 1; }, "");
        lie([](AnswerHead&) {}, kForged);
    } else {
        sendCommonLies(pending, good, "");
        lie([](AnswerHead& head) { head.index = 0; }, "");
        lie([](AnswerHead& head) { head.index = head.total; }, "");
        lie([](AnswerHead&) {}, {"\xFF\xFFitem7", 7});  // a length beyond the data
        lie([](AnswerHead&) {}, {"\6\0item7", 7});      // by one
        lie([](AnswerHead&) {}, {"\0\0", 2});           // an empty name
        lie([](AnswerHead&) {}, {"\1", 1});             // half a length
        lie([](AnswerHead&) {}, {"\5\0other", 7});      // without the prefix
    }
}

void answer(const Pending& pending)
{
    if (mode == "liar" || mode == "lies") {
        sendLies(pending);
    }
    if (mode == "lies") {
        return;
    }
    const Made made = makeAnswer(pending);
    for (int i = 0; i < (mode == "twice" ? 2 : 1); ++i) {
        sendAnswer(pending.head.channel, made.status, made.head, made.data);
    }
}

void makeChannels()
{
    for (int i = 0; i < channels; ++i) {
        close(open(kChannelFiles[i], O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    }
}

void makeBoard()
{
    void* address = nullptr;
    const bool isShort = mode == "board" && number == 2;
    rm_gshmCreate(kBoardName, isShort ? 64 : sizeof(BoardHead) + 1000, &address);
    if (isShort) {
        return;
    }
    auto* const head = static_cast<BoardHead*>(address);
    head->layout = mode == "board" && number == 1 ? kBoardLayout + 1 : kBoardLayout;
    head->headBytes = sizeof(BoardHead);
    head->boardBytes = sizeof(BoardHead) + 1000;
    PublicFigures& figures = head->figures;
    figures.pid = getpid();
    figures.phase = Phase::kStaying;
    figures.started = 1700000000;
    figures.records = static_cast<uint32_t>(records.size());
    figures.buckets = 32;
    figures.workers = 2;
    figures.lookups = 123456789012;
    figures.worker[0].pid = 4711;
    figures.worker[0].state = WorkerState::kWaiting;
    figures.worker[0].jobs = 9876543210;
    figures.worker[1].pid = 4712;
    figures.worker[1].state = WorkerState::kReplacing;
    figures.worker[1].replacements = 3;
    if (mode != "board" || number != 0) {
        head->magic.store(kBoardMagic, std::memory_order_release);
    }
}

void fill(int16_t queue)
{
    const std::string junk(1000, 'j');
    msqid_ds state = {};
    while (msgctl(queueIds[queue], IPC_STAT, &state) == 0 &&
           state.msg_cbytes + junk.size() + 16 < state.msg_qbytes) {
        sendRaw(queue, kAnswerDone, 1000, junk);
    }
    while (msgctl(queueIds[queue], IPC_STAT, &state) == 0 && state.msg_cbytes < state.msg_qbytes) {
        sendRaw(queue, kAnswerDone, 0,
                std::string(state.msg_qbytes - state.msg_cbytes > 4
                                ? state.msg_qbytes - state.msg_cbytes - 4
                                : 0,
                            'j'));
        if (state.msg_qbytes - state.msg_cbytes < 4) {
            break;
        }
    }
}

void makeRun(const char* parent)
{
    char absolute[PATH_MAX];
    if (realpath(parent, absolute) == nullptr) {
        give(parent);
    }
    runPath = std::string(absolute) + "/" + kRunPrefix + "XXXXXX";
    if (mkdtemp(runPath.data()) == nullptr || chdir(runPath.c_str()) != 0) {
        give(runPath.c_str());
    }
    const int owner = open(kOwnerFile, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (owner < 0 || flock(owner, LOCK_EX | LOCK_NB) != 0) {
        give("owner");
    }
    dprintf(owner, "pid %d\n", getpid());
    fileSem = growSem = RM_NULL_SYNC;
    makeBoard();
    for (int i = 0; i < kQueues; ++i) {
        rm_queueCreate(kQueueNames[i]);
        queueIds[i] = msgget(ftok(kQueueToken, i + 1), 0);
    }
    if (mode == "full") {
        fill(kRequestQueue);
    }
    for (int16_t i = 1; (mode == "stuffed" || mode == "full") && i < kQueues; ++i) {
        fill(i);
    }
    if (mode != "loading") {
        makeChannels();
    }
    std::printf("ready %s\n", runPath.c_str());
    std::printf("segment %d\nqueues", shmget(ftok(kBoardToken, 1), 0, 0));
    for (const int id : queueIds) {
        std::printf(" %d", id);
    }
    std::printf("\nserves\n");
    std::fflush(stdout);
}

[[noreturn]] void endRun()
{
    for (const char* channel : kChannelFiles) {
        unlink(channel);
    }
    rm_queueTerminate();
    rm_gshmTerminate();
    unlink(kOwnerFile);
    rmdir(runPath.c_str());
    _exit(0);
}

// A request that is good at first sight, and in which one thing or the other is not.
std::string forgedRequest(std::mt19937& random)
{
    RequestHead head = {};
    head.magic = kProtocolMagic;
    head.pid = static_cast<int32_t>(random());
    head.sequence = random();
    head.channel = static_cast<uint16_t>(1 + random() % kChannels);
    head.nameBytes = static_cast<uint16_t>(random() % 300);
    head.textBytes = static_cast<uint16_t>(random() % 70);
    std::string rest(head.nameBytes + head.textBytes, static_cast<char>(random()));
    switch (random() % 6) {
        case 0:
            head.channel = static_cast<uint16_t>(random());
            break;
        case 1:
            head.nameBytes = static_cast<uint16_t>(random());
            break;
        case 2:
            head.textBytes = static_cast<uint16_t>(random());
            break;
        case 3:
            head.index = static_cast<uint32_t>(random());
            break;
        case 4:
            rest.resize(rest.size() / 2);
            break;
        default:
            head.magic = static_cast<uint32_t>(random());
            break;
    }
    return std::string(reinterpret_cast<const char*>(&head), sizeof(head)) + rest;
}

void attack(const char* directory)
{
    if (chdir(directory) != 0) {
        give(directory);
    }
    queueIds[kRequestQueue] = msgget(ftok(kQueueToken, 1 + kRequestQueue), 0);
    std::mt19937 random(number);
    for (unsigned i = 0; i < number; ++i) {
        msqid_ds state = {};
        while (msgctl(queueIds[kRequestQueue], IPC_STAT, &state) == 0 && state.msg_qnum > 4) {
            const timespec time = {0, kPollNs};
            nanosleep(&time, nullptr);
        }
        std::string data = random() % 2 == 0
                               ? forgedRequest(random)
                               : std::string(random() % 600, static_cast<char>(random()));
        const bool asNotice = random() % 4 == 0;
        if (asNotice) {
            data.assign(random() % 20 * sizeof(uint64_t), random() % 2 == 0 ? '\xff' : '\3');
        }
        const auto length = static_cast<uint16_t>(random() % 4 == 0 ? random() : data.size());
        const auto code = static_cast<uint16_t>(asNotice ? kFirstInternal + random() % kNotices
                                                         : random() % kFirstInternal);
        sendRaw(kRequestQueue, code, length, data);
    }
}

// The next request, if there is one that keeps to the contract.
bool takeRequest(Pending& pending)
{
    static char room[32768];
    char* data = room;
    int16_t length = 0;
    if (rm_queueRead(kRequestQueue, &data, &length, &pending.kind, 0) != RM_SUCCESS) {
        return false;
    }
    RequestHead& head = pending.head;
    const auto bytes = static_cast<std::size_t>(length);
    if (bytes < sizeof(head)) {
        return false;
    }
    std::memcpy(&head, room, sizeof(head));
    if (head.magic != kProtocolMagic || bytes != sizeof(head) + head.nameBytes + head.textBytes ||
        head.channel < 1 || head.channel > kChannels) {
        return false;
    }
    pending.name.assign(room + sizeof(head), head.nameBytes);
    pending.text.assign(room + sizeof(head) + head.nameBytes, head.textBytes);
    return true;
}

// SIGTERM, SIGUSR1 or 0, after a moment in which neither came.
int nextSignal(const sigset_t& set)
{
    const timespec time = {0, kPollNs};
    const int signalNumber = sigtimedwait(&set, nullptr, &time);
    return signalNumber > 0 ? signalNumber : 0;
}

void serve(const sigset_t& set)
{
    std::deque<Pending> held;
    bool reads = mode != "full";
    for (;;) {
        const int signalNumber = nextSignal(set);
        if (signalNumber == SIGTERM) {
            endRun();
        }
        if (signalNumber == SIGUSR1 && mode == "hold" && !held.empty()) {
            answer(held.front());
            held.pop_front();
            std::printf("answered\n");
            std::fflush(stdout);
        } else if (signalNumber == SIGUSR1 && mode == "loading") {
            makeChannels();
        } else if (signalNumber == SIGUSR1) {
            reads = true;
        }
        Pending pending;
        while (reads && takeRequest(pending)) {
            std::printf("request %u \"%s\" from %d on channel %u\n", pending.kind,
                        pending.name.c_str(), pending.head.pid, pending.head.channel);
            std::fflush(stdout);
            if (mode == "dies") {
                kill(getpid(), SIGKILL);
            } else if (mode == "ends") {
                endRun();
            } else if (mode == "hold") {
                held.push_back(pending);
            } else if (mode != "silent") {
                answer(pending);
            }
        }
    }
}
}  // namespace

int main(int argc, char** argv)
{
    if (argc < 3) {
        std::fputs("usage: fake_server <directory> <mode> [<number>]\n", stderr);
        return 2;
    }
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGUSR1);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    mode = argv[2];
    number = argc > 3 ? static_cast<unsigned>(std::atoi(argv[3])) : 0;
    if (mode == "attack") {
        attack(argv[1]);
        return 0;
    }
    if (const char* const given = std::getenv("CHANNELS")) {
        channels = std::atoi(given);
    }
    makeRecords();
    makeRun(argv[1]);
    serve(set);
}
