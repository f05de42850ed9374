// The fatal entries with any texts, and the exit: where each comes out, what it has said and to
// whom.
//
// Input: for each call a byte, then what it is made with; texts end with a zero.
#include "fuzz.h"

#include "rm.h"
#include "rm/rmsrv/rmsrv.h"
#include "rm/unix/unix.h"

#include <csetjmp>
#include <cstring>

#include <unistd.h>

namespace
{
using rmfuzz::Input;
using rmfuzz::Text;
using Lines = std::vector<std::string>;

constexpr int kMostCalls = 30;
constexpr std::size_t kLongestMessage = 259;  // bytes that a line of the log carries
constexpr int16_t kUnwinding = 2;             // termination states
constexpr int16_t kExiting = 3;

enum Call : uint8_t {
    kSystemCall,
    kOfTheLibrary,
    kPlain,
    kExit,
    kState,
    kCalls,
};

std::string line(const std::string& text)
{
    return text.substr(0, kLongestMessage);
}

// A line of the input's would be two.
std::string oneLine(Input& input)
{
    std::string text = input.text();
    for (char& c : text) {
        c = c == '\n' ? ' ' : c;
    }
    return text;
}

// Where rm_exit comes out; its target is the input's own again afterwards.
int codeOfExit(int16_t code)
{
    jmp_buf before;
    std::memcpy(before, rmsrv::exit_jmp_buf, sizeof(jmp_buf));
    jmp_buf frame;
    volatile int arrived = setjmp(frame);
    if (arrived == 0) {
        rm_exitJump(frame);
        rm_exit(code);
    }
    rm_exitJump(before);
    return arrived;
}

void checkSystemCall(Input& input)
{
    const Text function(oneLine(input));
    const Text message(oneLine(input));
    const int32_t error = input.int16();
    FUZZ_CHECK(
        !rmfuzz::comesBack([&] { internalErrorExit(function.get(), message.get(), error); }));
    // Only the first one of a process reaches the log, and that was not this one.
    FUZZ_CHECK(rmfuzz::takeLines() == Lines{rmfuzz::kFatalEnd});
    FUZZ_CHECK(rmfuzz::printed() == "**** " + function.original() + "() " + message.original() +
                                        ", errno=" + std::to_string(error) + " (" +
                                        std::strerror(error) + ")\n");
    FUZZ_CHECK(function.unchanged() && message.unchanged());
}

void checkOfTheLibrary(Input& input)
{
    const Text message(oneLine(input));
    FUZZ_CHECK(!rmfuzz::comesBack([&] { fatalRMExit(message.get()); }));
    const Lines expected = {"***Fatal resource manager error***",
                            line("    Specific problem: " + message.original()), rmfuzz::kFatalEnd};
    FUZZ_CHECK(rmfuzz::takeLines() == expected && rmfuzz::printed().empty());
    FUZZ_CHECK(message.unchanged());
}

// A process that is not in the foreground says so by its state.
void checkState(Input& input)
{
    const bool isForeground = input.byte() % 2 == 0;
    const auto state = static_cast<int16_t>(input.byte() % 2);
    rm_setOSTerm(state);
    os::ForegroundThreadID = isForeground ? getpid() : getpid() + 1;
    FUZZ_CHECK(rm_foregroundThread() == (isForeground ? 1 : 0));
    FUZZ_CHECK(!rmfuzz::comesBack([] { rm_errorExit(); }));
    FUZZ_CHECK(rm_getOSTerm() == (isForeground ? state : kUnwinding));
    FUZZ_CHECK(rmfuzz::takeLines() == Lines{rmfuzz::kFatalEnd});
    FUZZ_CHECK(rm_setForegroundThread() == static_cast<int16_t>(getpid()));
    FUZZ_CHECK(rm_foregroundThread() == 1);
    rm_setOSTerm(0);
}

// The language makes 1 of a jump with 0.
void checkExit(Input& input)
{
    const int16_t code = input.int16();
    FUZZ_CHECK(codeOfExit(code) == (code == 0 ? 1 : code));
    FUZZ_CHECK(rm_getOSTerm() == kExiting);
    FUZZ_CHECK(rmfuzz::takeLog().empty());
    rm_setOSTerm(0);
}

// What comes once in a process is not for an input to see.
void useUpFirstTimes()
{
    FUZZ_CHECK(!rmfuzz::comesBack([] { internalErrorExit("first", "failure", 0); }));
    const Lines expected = {"**** first() failure, errno=0 (Success)", rmfuzz::kFatalEnd};
    FUZZ_CHECK(rmfuzz::takeLines() == expected);
    rmfuzz::beginAnew(true);
    FUZZ_CHECK(codeOfExit(0) == 1);
    FUZZ_CHECK(fileSem == RM_NONE && growSem == RM_NONE);
    fileSem = RM_NULL_SYNC;
    growSem = RM_NULL_SYNC;
    rm_setOSTerm(0);
}
}  // namespace

void rmfuzz::fuzzInput(Input& input)
{
    expectLog();
    static const bool usedUp = [] {
        useUpFirstTimes();
        return true;
    }();
    FUZZ_CHECK(usedUp);
    for (int i = 0; i < kMostCalls && !input.empty(); ++i) {
        switch (input.byte() % kCalls) {
            case kSystemCall:
                checkSystemCall(input);
                break;
            case kOfTheLibrary:
                checkOfTheLibrary(input);
                break;
            case kPlain:
                FUZZ_CHECK(!comesBack([] { rm_errorExit(); }));
                FUZZ_CHECK(takeLines() == Lines{kFatalEnd});
                break;
            case kExit:
                checkExit(input);
                break;
            default:
                checkState(input);
                break;
        }
    }
}
