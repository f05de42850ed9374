// Messages of any bytes and length, sent past the library and read by it, between messages of its
// own.
//
// Input: for each operation a byte. Its low two bits say which, the next one whether a read waits.
//     0, 1  a foreign message: a byte for its type, its length (2 bytes), a byte that tells how
//     many
//           bytes of the input it is made of, over and over, and those
//     2     a message of the library's: code and length (2 bytes each), a byte that its data repeat
//     3     a read
// What is left in the end is read.
#include "fuzz.h"

#include "rm.h"
#include "rm/unix/unix.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <fstream>
#include <utility>

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

namespace
{
using rmfuzz::Buffer;
using rmfuzz::Input;

constexpr const char* kToken = ".ZNT.RM.QUEUE";
constexpr int kMostOperations = 200;
constexpr std::size_t kHead = 4;          // bytes of code and length
constexpr std::size_t kBeyond = 5;        // bytes behind the data of the library's messages
constexpr std::size_t kLongest = 32767;   // bytes of data that a length can name
constexpr std::size_t kReceived = 32776;  // bytes of a message that is received at all

struct Message {
    long type;
    char text[kReceived];
};

// The queue and what waits in it.
struct Pair {
    int16_t handle;
    int id;
    std::size_t mostOfAMessage;  // bytes that the machine takes
    std::size_t mostOfAQueue;
    std::deque<std::string> texts;
};

std::size_t limit(const char* path)
{
    std::size_t value = 0;
    std::ifstream(path) >> value;
    FUZZ_CHECK(value > 0);
    return value;
}

bool hasRoom(const Pair& pair, std::size_t size)
{
    std::size_t bytes = size;
    for (const std::string& text : pair.texts) {
        bytes += text.size();
    }
    return size <= pair.mostOfAMessage && bytes <= pair.mostOfAQueue;
}

void sendForeign(Input& input, Pair& pair)
{
    static Message message;
    message.type = 1 + input.byte();
    const auto wanted = static_cast<uint16_t>(input.int16());
    std::string piece(1 + input.byte(), '\0');
    for (char& byte : piece) {
        byte = static_cast<char>(input.byte());
    }
    const std::size_t size =
        std::min<std::size_t>({wanted, pair.mostOfAMessage, sizeof message.text});
    for (std::size_t i = 0; i < size; ++i) {
        message.text[i] = piece[i % piece.size()];
    }
    if (hasRoom(pair, size)) {
        FUZZ_CHECK(msgsnd(pair.id, &message, size, IPC_NOWAIT) == 0);
        pair.texts.emplace_back(message.text, size);
    }
}

void sendOwn(Input& input, Pair& pair)
{
    const auto code = static_cast<uint16_t>(input.int16());
    const auto length = static_cast<int16_t>(input.int16() & INT16_MAX);
    const std::string data(static_cast<std::size_t>(length), static_cast<char>(input.byte()));
    std::string text(kHead, '\0');
    std::memcpy(text.data(), &code, sizeof code);
    std::memcpy(&text[sizeof code], &length, sizeof length);
    text += data + std::string(kBeyond, '\0');
    if (hasRoom(pair, text.size())) {
        const rmfuzz::Text own(data);
        FUZZ_CHECK(rm_queueWrite(pair.handle, own.get(), length, code) == RM_SUCCESS);
        pair.texts.push_back(text);
    }
}

void expectRead(const Pair& pair, const std::string& text, uint16_t flags)
{
    Buffer buffer(kLongest);
    char* pointer = buffer.data();
    int16_t length = -1;
    uint16_t code = 0xBEEF;
    FUZZ_CHECK(rm_queueRead(pair.handle, &pointer, &length, &code, flags) == RM_SUCCESS);

    uint16_t sentCode = 0;
    uint16_t claimed = 0;
    std::memcpy(&sentCode, text.data(), std::min(text.size(), sizeof sentCode));
    if (text.size() >= kHead) {
        std::memcpy(&claimed, &text[sizeof sentCode], sizeof claimed);
    }
    const std::size_t behindHead = std::max(text.size(), kHead) - kHead;
    const std::size_t believed = std::min<std::size_t>({claimed, behindHead, kLongest});
    FUZZ_CHECK(pointer == buffer.data());
    FUZZ_CHECK(code == sentCode);
    FUZZ_CHECK(length == static_cast<int>(believed));
    FUZZ_CHECK(buffer.contents().substr(0, believed) ==
               text.substr(text.size() - behindHead).substr(0, believed));
    FUZZ_CHECK(buffer.untouched(believed));
    buffer.check();
}

void read(Pair& pair, bool wait)
{
    if (!pair.texts.empty()) {
        const std::string text = std::exchange(pair.texts.front(), {});
        pair.texts.pop_front();
        expectRead(pair, text, wait ? 1 : 0);
        return;
    }
    int16_t length = -1;
    uint16_t code = 0xBEEF;
    char* none = nullptr;
    FUZZ_CHECK(rm_queueRead(pair.handle, &none, &length, &code, 0) == RM_NOT_FOUND);
    FUZZ_CHECK(length == -1 && code == 0xBEEF);
}

void runOperation(Input& input, Pair& pair)
{
    const unsigned operation = input.byte();
    switch (operation % 4) {
        case 0:
        case 1:
            sendForeign(input, pair);
            break;
        case 2:
            sendOwn(input, pair);
            break;
        default:
            read(pair, (operation & 4U) != 0);
            break;
    }
    FUZZ_CHECK(os::checkQueues() == 0);
}

// Leads the library to a token file whose keys nobody uses: another process's queue is not for us.
// Paths of the fuzzer may be relative, so the directory is left again.
void createQueue(Pair& pair)
{
    static char prefix[] = "a.";
    const int here = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    FUZZ_CHECK(here != -1 && chdir(rmfuzz::directory().c_str()) == 0);
    for (prefix[0] = 'a'; prefix[0] <= 'z'; ++prefix[0]) {
        const std::string path = std::string(prefix) + kToken;
        rmfuzz::writeFile(path, "");
        if (msgget(ftok(path.c_str(), 1), 0) == -1) {
            break;
        }
    }
    rm_tokenName(prefix);
    pair.handle = rm_queueCreate("fuzz");
    pair.id = os::rmQueue[0].id;
    FUZZ_CHECK(fchdir(here) == 0);
    close(here);
}

void deleteQueue(const Pair& pair)
{
    const int here = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    FUZZ_CHECK(here != -1 && chdir(rmfuzz::directory().c_str()) == 0);
    FUZZ_CHECK(rm_queueDelete(pair.handle) == RM_SUCCESS);
    FUZZ_CHECK(fchdir(here) == 0);
    close(here);
    for (const std::string& name : rmfuzz::directoryEntries()) {
        unlink(rmfuzz::pathOf(name).c_str());  // tokens whose keys were taken
    }
}
}  // namespace

void rmfuzz::fuzzInput(Input& input)
{
    static const std::size_t mostOfAMessage = limit("/proc/sys/kernel/msgmax");
    static const std::size_t mostOfAQueue = limit("/proc/sys/kernel/msgmnb");
    Pair pair = {RM_NONE, -1, mostOfAMessage, mostOfAQueue, {}};
    createQueue(pair);
    for (int i = 0; i < kMostOperations && !input.empty(); ++i) {
        runOperation(input, pair);
    }
    while (!pair.texts.empty()) {
        read(pair, false);
    }
    read(pair, false);
    deleteQueue(pair);
}
