// Calls on a text stream.
//
// Input: mode, number of calls, one byte for each call with what it needs behind it, then the file.
// Texts to be written end with a zero.
#include "fuzz.h"
#include "stream_model.h"

#include "rm.h"
#include "rm/rmalloc/rmalloc.h"
#include "rm/rmutil/rmutil.h"

#include <array>
#include <cstdlib>
#include <cstring>

#include <sys/stat.h>

namespace
{
using rmfuzz::Buffer;
using rmfuzz::Input;
using rmfuzz::StreamModel;
using rmfuzz::Text;

constexpr std::size_t kBlock = 512;
constexpr int kLargestSize = 1600;  // bytes of a buffer; some blocks
constexpr std::size_t kMostCalls = 64;
constexpr uint32_t kUsualSize = 100;  // bytes of a buffer for lines at first

enum Mode : uint8_t {
    kRead,
    kReadWhole,
    kWrite,
    kModes,
};

enum ReadCall : uint8_t {
    kGetsShort,     // size: a signed byte
    kGetsLong,      // size: two bytes
    kGetLine,       // into the same buffer as the last one
    kGetLineAnew,   // into one that the stream makes
    kGetLineSized,  // into one of a size: two bytes
    kNextLine,      // as the INI files read
    kReadCalls,
};

const std::string& filePath()
{
    static const std::string path = rmfuzz::pathOf("lines.txt");
    return path;
}

// --- Reading

struct Reader {
    FileStream* stream = nullptr;
    StreamModel model;
    char* line = nullptr;               // the buffer for lines
    uint32_t lineSize = 0;              // its size
    uint32_t contextSize = kUsualSize;  // the model's, for nextLine
    rmutil::LineContext context{};
};

void checkGets(Reader* reader, int64_t size)
{
    Buffer buffer(size);
    char* result = rm_fileStreamGets(reader->stream, buffer.data(), static_cast<int32_t>(size));
    buffer.check();
    if (size <= 0) {
        FUZZ_CHECK(result == nullptr);
        return;
    }
    StreamModel::Got expected = reader->model.gets(size);
    FUZZ_CHECK(result == (expected.found ? buffer.data() : nullptr));
    if (size == 1) {
        expected.bytes.clear();
    }
    if (expected.found || !expected.bytes.empty()) {
        FUZZ_CHECK(buffer.text() == expected.bytes);
        FUZZ_CHECK(buffer.untouched(expected.bytes.size() + 1));
    } else {
        FUZZ_CHECK(buffer.untouched());
    }
}

// A size of 0 stands for the usual one.
void newLineBuffer(Reader* reader, uint32_t size)
{
    rm_freeMemory(reader->line, 0);
    reader->line = static_cast<char*>(rm_getMemory(size > 0 ? size : kUsualSize, 0));
    reader->lineSize = size;
}

void checkGetLine(Reader* reader)
{
    uint32_t expectedSize =
        reader->line == nullptr || reader->lineSize == 0 ? kUsualSize : reader->lineSize;
    const char* result = rm_fileStreamGetLine(reader->stream, &reader->line, &reader->lineSize);
    const StreamModel::Got expected = reader->model.getLine(&expectedSize);
    FUZZ_CHECK(reader->line != nullptr && reader->lineSize == expectedSize);
    FUZZ_CHECK(result == (expected.found ? reader->line : nullptr));
    FUZZ_CHECK(!expected.found || expected.bytes == result);
    // All of the size is there, and no more.
    FUZZ_CHECK(rmalloc::headerOf(reader->line)->units == rmalloc::unitsFor(reader->lineSize));
    std::memset(reader->line, Buffer::kUntouched, reader->lineSize);
}

void checkNextLine(Reader* reader)
{
    std::string_view line;
    const bool found = rmutil::nextLine(&reader->context, &line);
    StreamModel::Got expected = reader->model.getLine(&reader->contextSize);
    FUZZ_CHECK(found == expected.found);
    if (found) {
        if (expected.bytes.ends_with('\n')) {
            expected.bytes.pop_back();
        }
        FUZZ_CHECK(line == expected.bytes);
    }
    FUZZ_CHECK(reader->context.size == reader->contextSize);
}

void readCall(Reader* reader, ReadCall call, int16_t number)
{
    switch (call) {
        case kGetsShort:
            checkGets(reader, static_cast<int8_t>(number));
            break;
        case kGetsLong:
            checkGets(reader, number);
            break;
        case kGetLineAnew:
            rm_zFreeMemory(&reader->line, 0);
            reader->lineSize = static_cast<uint32_t>(std::abs(number));
            checkGetLine(reader);
            break;
        case kGetLineSized:
            newLineBuffer(reader, static_cast<uint32_t>(std::abs(number)));
            checkGetLine(reader);
            break;
        case kNextLine:
            checkNextLine(reader);
            break;
        default:
            checkGetLine(reader);
            break;
    }
    FUZZ_CHECK(reader->stream->cursor <= kBlock);
}

struct Call {
    ReadCall call;
    int16_t number;
};

void readLines(Input& input)
{
    std::vector<Call> calls(std::min<std::size_t>(input.byte(), kMostCalls));
    for (Call& call : calls) {
        call.call = static_cast<ReadCall>(input.byte() % kReadCalls);
        call.number = 0;
        if (call.call == kGetsShort) {
            call.number = input.byte();
        } else if (call.call == kGetsLong || call.call == kGetLineAnew ||
                   call.call == kGetLineSized) {
            call.number = static_cast<int16_t>(input.int16() % kLargestSize);
        }
    }
    const std::string file = input.rest();
    rmfuzz::writeFile(filePath(), file);
    Reader reader{.model = StreamModel(file)};
    reader.stream = rm_fileStreamOpen(filePath().c_str(), "r");
    FUZZ_CHECK(reader.stream != nullptr);
    reader.context = rmutil::linesOf(reader.stream);
    for (const Call& call : calls) {
        readCall(&reader, call.call, call.number);
    }
    rm_freeMemory(reader.line, 0);
    rm_freeMemory(reader.context.buffer, 0);
    rm_fileStreamClose(reader.stream);
    FUZZ_CHECK(rmfuzz::readFile(filePath()) == file);
}

// Every byte of the file, line by line.
void readWhole(Input& input)
{
    const std::string file = input.rest();
    rmfuzz::writeFile(filePath(), file);
    FileStream* stream = rm_fileStreamOpen(filePath().c_str(), "r");
    FUZZ_CHECK(stream != nullptr);
    rmutil::LineContext context = rmutil::linesOf(stream);
    std::string_view line;
    std::string_view left = file;
    while (rmutil::nextWhole(&context, &line)) {
        FUZZ_CHECK(!left.empty() && line == left.substr(0, left.find('\n')));
        left.remove_prefix(std::min(line.size() + 1, left.size()));
    }
    FUZZ_CHECK(left.empty());
    rmutil::finishLines(&context);
    rm_freeMemory(context.buffer, 0);
    rm_fileStreamClose(stream);
}

// --- Writing

std::size_t fileSize()
{
    struct stat status = {};
    FUZZ_CHECK(stat(filePath().c_str(), &status) == 0);
    return static_cast<std::size_t>(status.st_size);
}

// A full block leaves when the next byte comes.
std::size_t sizeWritten(std::size_t bytes)
{
    return bytes == 0 ? 0 : (bytes - 1) / kBlock * kBlock;
}

void writeLines(Input& input)
{
    constexpr std::array kModeTexts = {"w", "w+", "r+", "rw+", "+w"};
    const std::string_view mode = kModeTexts.at(input.byte() % kModeTexts.size());
    const std::string before = input.text();
    const bool keeps = mode == "r+";
    rmfuzz::writeFile(filePath(), before);
    FileStream* stream = rm_fileStreamOpen(filePath().c_str(), mode.data());
    FUZZ_CHECK(stream != nullptr);

    std::string expected;
    while (!input.empty()) {
        const Text text(input.text());
        FUZZ_CHECK(rm_fileStreamPuts(stream, text.get()) == text.original().size());
        FUZZ_CHECK(text.unchanged());
        expected += text.original() + '\n';
        const std::size_t written = sizeWritten(expected.size());
        FUZZ_CHECK(fileSize() == (keeps ? std::max(before.size(), written) : written));
        FUZZ_CHECK(stream->cursor <= kBlock && stream->pending == stream->cursor);
    }
    rm_fileStreamClose(stream);
    if (keeps && expected.size() < before.size()) {
        expected += before.substr(expected.size());
    }
    FUZZ_CHECK(rmfuzz::readFile(filePath()) == expected);
}
}  // namespace

void rmfuzz::fuzzInput(Input& input)
{
    switch (input.byte() % kModes) {
        case kRead:
            readLines(input);
            break;
        case kReadWhole:
            readWhole(input);
            break;
        default:
            writeLines(input);
            break;
    }
}
