// rmipc orphans.
//
// Why: an object is found by the number of a token file, and when the file has gone, or was made
// anew, no key leads to it any more. All that can be done then is to look at all objects of this
// user for those that the library might have made: of its mode, with a key such as it makes, and
// sets of 20. What other prefixes have, of servers that live, looks the same; so they are listed,
// and who has them is said, and nothing is removed here.
#include "orphans.h"

#include "common/text.h"
#include "judge.h"
#include "list.h"
#include "procfs.h"
#include "words.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <tuple>

#include <sys/stat.h>
#include <unistd.h>

namespace rmipc
{
namespace
{
constexpr uint32_t kBaseBits = 0xFFFFFF;

uint32_t baseOf(key_t key)
{
    return static_cast<uint32_t>(key) & kBaseBits;
}

int slotOf(key_t key)
{
    return static_cast<int>(static_cast<uint32_t>(key) >> 24) - 1;
}

struct Orphan {
    Object object;
    std::string figures;  // what there is to say of its kind
};

struct Search {
    std::array<std::vector<uint32_t>, kFamilies> known = {};  // bases of the named token files
    std::vector<Orphan> found = {};
    bool trouble = false;
};

bool isOurs(const Object& object)
{
    const uid_t user = geteuid();
    const int slot = slotOf(object.key);
    return (object.owner == user || object.creator == user) && object.mode == kMode && slot >= 0 &&
           slot < kKeys[object.family];
}

void take(Search& search, Object& object, const std::string& figures)
{
    object.slot = slotOf(object.key);
    const std::vector<uint32_t>& known = search.known[object.family];
    if (isOurs(object) && std::ranges::find(known, baseOf(object.key)) == known.end()) {
        search.found.push_back({object, figures});
    }
}

void takeSet(Search& search, int id, People& people)
{
    auto set = readSet(id);
    if (set && set->size == kSetSize) {
        judge(*set, people);
        take(search, *set, tools::counted(set->size, "semaphore"));
    }
}

void takeSegment(Search& search, int id, const Scan& scan, People& people)
{
    auto segment = readSegment(id);
    if (segment && !segment->removed) {
        for (const Attachment& attachment : scan.attachments) {
            if (attachment.id == id) {
                segment->users.push_back(attachment.pid);
            }
        }
        judge(*segment, people);
        take(search, *segment, tools::counted(segment->bytes, "byte"));
    }
}

void takeQueue(Search& search, int id, People& people)
{
    auto queue = readQueue(id);
    if (queue) {
        judge(*queue, people);
        take(search, *queue, tools::counted(queue->messages, "message"));
    }
}

// The numbers of all objects of a family.
std::vector<int> allIds(Family family, Search& search)
{
    struct Source {
        const char* path;
        std::string_view column;
    };

    constexpr std::array<Source, kFamilies> kSources = {{{"/proc/sysvipc/sem", "semid"},
                                                         {"/proc/sysvipc/shm", "shmid"},
                                                         {"/proc/sysvipc/msg", "msqid"}}};
    const Source& source = kSources[family];
    auto whole = readWhole(source.path);
    const std::string error = whole ? "it is no table of objects" : std::strerror(errno);
    const Table table(std::move(whole).value_or(""));
    if (!table.isSound()) {
        tools::complain("cannot read " + std::string(source.path) + ": " + error);
        search.trouble = true;
    }
    std::vector<int> ids;
    for (std::size_t row = 0; row < table.rows(); ++row) {
        if (const auto id = table.at<int>(row, source.column)) {
            ids.push_back(*id);
        }
    }
    return ids;
}

// A server that lives has its token file open, wherever that is, and also when it was removed.
void findHolders(Search& search, const Scan& scan, People& people)
{
    for (Orphan& orphan : search.found) {
        Object& object = orphan.object;
        std::vector<pid_t> pids;
        std::string path;
        for (const Holder& holder : scan.holders) {
            if (holder.family == object.family &&
                keyBase(holder.device, holder.number) == baseOf(object.key)) {
                pids.push_back(holder.pid);
                path = holder.path;
            }
        }
        if (!pids.empty()) {
            object.verdict = Verdict::kUsed;
            object.reason = "of " + tools::printable(path) + ", open in " + namesOf(pids, people);
        }
    }
}

// What has the same token file may be of one server.
void doubtWhereOthersAreUsed(Search& search)
{
    for (Orphan& orphan : search.found) {
        Object& object = orphan.object;
        const bool others = std::ranges::any_of(search.found, [&object](const Orphan& other) {
            return other.object.family == object.family &&
                   baseOf(other.object.key) == baseOf(object.key) &&
                   other.object.verdict == Verdict::kUsed;
        });
        if (object.family == kQueues && object.verdict == Verdict::kLeft && others) {
            object.verdict = Verdict::kDoubt;
            object.reason += "; but others of its token file are in use";
        }
    }
}

void printIds(const Search& search)
{
    constexpr std::array<std::string_view, kFamilies> kOptions = {"-s ", "-m ", "-q "};
    for (const Orphan& orphan : search.found) {
        if (orphan.object.verdict == Verdict::kLeft) {
            tools::print(std::string(kOptions[orphan.object.family]) +
                         std::to_string(orphan.object.id) + "\n");
        }
    }
}

void printJson(const Search& search)
{
    std::vector<std::string> elements;
    elements.reserve(search.found.size());
    for (const auto& [object, figures] : search.found) {
        elements.push_back(rmipc::object({{"kind", text(nameOf(object.family))},
                                          {"id", std::to_string(object.id)},
                                          {"key", text(keyText(object.key))},
                                          {"slot", std::to_string(object.slot)},
                                          {"uid", std::to_string(object.owner)},
                                          {"figures", text(figures)},
                                          {"verdict", text(verdictWord(object.verdict))},
                                          {"reason", text(object.reason)}}));
    }
    tools::print("{\"orphans\": " + array(elements, ",\n") + "}\n");
}

void printSearch(const Search& search, const Scan& scan)
{
    const Paper paper(tools::examineTerminal());
    if (search.found.empty()) {
        paper.paragraph(0, "No objects of " + userOf(geteuid()) +
                               " look like the library's and belong to none of the token files.");
        return;
    }
    paper.paragraph(0, "Objects of " + userOf(geteuid()) +
                           " that look like the library's, and that no token file of the given "
                           "prefixes leads to:");
    Grid grid;
    grid.add({"KIND", ">ID", "KEY", ">SLOT", "HOLDS"});
    for (const auto& [object, figures] : search.found) {
        grid.add({std::string(nameOf(object.family)), std::to_string(object.id),
                  keyText(object.key), std::to_string(object.slot), figures});
    }
    // What is true of several is said once, behind the last.
    const std::vector<std::string> lines = grid.lines(2);
    paper.line(lines[0]);
    for (std::size_t i = 0; i < search.found.size(); ++i) {
        paper.line(lines[i + 1]);
        const std::string words = verdictWords(search.found[i].object);
        if (i + 1 == search.found.size() || words != verdictWords(search.found[i + 1].object)) {
            paper.paragraph(6, words);
        }
    }
    paper.line("");
    paper.paragraph(0,
                    "They may be of a prefix that was not given, or of another program. Objects "
                    "of a kind whose keys end alike had the same token file.");
    const std::string others = unseenWords(scan.unseen, scan.hidden);
    if (!others.empty()) {
        paper.paragraph(0, others);
    }
}
}  // namespace

int listOrphans(const Options& options)
{
    Search search;
    People people;
    for (const Place& place : placesOf(options, search.trouble)) {
        for (const Family family : kEachFamily) {
            if (place.tokens[family].base) {
                search.known[family].push_back(*place.tokens[family].base);
            }
        }
    }
    const Scan scan = scanProcesses();
    for (const int id : allIds(kSemaphores, search)) {
        takeSet(search, id, people);
    }
    for (const int id : allIds(kSegments, search)) {
        takeSegment(search, id, scan, people);
    }
    for (const int id : allIds(kQueues, search)) {
        takeQueue(search, id, people);
    }
    std::ranges::sort(search.found, {}, [](const Orphan& orphan) {
        const Object& object = orphan.object;
        return std::tuple(object.family, baseOf(object.key), object.slot, object.id);
    });
    findHolders(search, scan, people);
    doubtWhereOthersAreUsed(search);
    if (options.ids && !options.quiet) {
        printIds(search);
    } else if (options.json && !options.quiet) {
        printJson(search);
    } else if (!options.quiet) {
        printSearch(search, scan);
    }
    if (search.trouble) {
        return kTrouble;
    }
    return search.found.empty() ? kOk : kFound;
}

}  // namespace rmipc
