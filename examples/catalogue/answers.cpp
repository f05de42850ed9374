// The answers to clients: what a job has come to, in the form of the protocol.
//
// Why: an answer is one message of at most 4 KiB, so the queue of a channel has room for it, and
// whoever asks for more asks again. The worker that did the job sends it: the desk has enough to
// do.
//
// Fatal: a queue that has been removed.
#include "answers.h"

#include "queues.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace catalogue
{
namespace
{
constexpr uint32_t kNamesAtATime = 16384;  // that a part of a list looks at, at most

// Static for its size: one answer is composed at a time.
Answer answer;

AnswerHead& begin(const Job& job)
{
    answer.head = {};
    answer.head.magic = kProtocolMagic;
    answer.head.pid = job.pid;
    answer.head.sequence = job.sequence;
    return answer.head;
}

void send(Board& board, const Job& job, Status status)
{
    sendAnswer(job.channel, answer, status);
    PublicFigures& figures = board.head.figures;
    (job.kind == JobKind::kGet   ? figures.gets
     : job.kind == JobKind::kPut ? figures.puts
                                 : figures.lists)
        .fetch_add(1, std::memory_order_relaxed);
}

// Copies what of `text`, which begins at byte `at` of the whole, belongs to the part that begins at
// `from`.
void appendPart(AnswerHead& head, std::string_view text, uint32_t at, uint32_t from)
{
    const uint32_t skip = from > at ? from - at : 0;
    if (skip < text.size()) {
        head.dataBytes += static_cast<uint32_t>(
            text.substr(skip).copy(answer.data + head.dataBytes, kPartBytes - head.dataBytes));
    }
}
}  // namespace

void answerGet(Board& board, const Job& job, const StoredRecord& stored)
{
    AnswerHead& head = begin(job);
    head.version = stored.version;
    head.bodyBytes = static_cast<uint32_t>(stored.body.size());
    head.total = head.bodyBytes + static_cast<uint32_t>(stored.note.size());
    head.index = job.index;
    appendPart(head, stored.body, 0, job.index);
    appendPart(head, stored.note, head.bodyBytes, job.index);
    send(board, job, kAnswerDone);
}

void answerPut(Board& board, const Job& job, uint32_t version)
{
    begin(job).version = version;
    send(board, job, kAnswerDone);
}

void answerList(Board& board, const Job& job, const Input& input)
{
    AnswerHead& head = begin(job);
    const auto records = static_cast<uint32_t>(input.records.size());
    const std::string_view prefix(job.text, job.textBytes);
    const uint32_t behind =
        std::min(records, records - std::min(records, job.record) < kNamesAtATime
                              ? records
                              : job.record + kNamesAtATime);
    head.total = records;
    uint32_t at = job.record;
    for (; at < behind; ++at) {
        const std::string_view name = input.records[at].key;
        const auto length = static_cast<uint16_t>(std::min<std::size_t>(name.size(), kNameBytes));
        if (!name.starts_with(prefix)) {
            continue;
        }
        if (head.dataBytes + sizeof(length) + length > kPartBytes) {
            break;
        }
        std::memcpy(answer.data + head.dataBytes, &length, sizeof(length));
        name.copy(answer.data + head.dataBytes + sizeof(length), length);
        head.dataBytes += static_cast<uint32_t>(sizeof(length)) + length;
    }
    head.index = at < records ? at : kListEnd;
    send(board, job, kAnswerDone);
}

void answerStatus(Board& board, const Job& job, Status status)
{
    begin(job);
    send(board, job, status);
}

}  // namespace catalogue
