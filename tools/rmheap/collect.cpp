// Reads logs.
//
// Why: a log may have millions of lines, and may come through a pipe: it is read once, from the
// front, and nothing of it is kept but the reports that will be shown.
#include "collect.h"

#include "console.h"
#include "reader.h"
#include "text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>

#include <fcntl.h>
#include <unistd.h>

namespace rmheap
{
namespace
{
constexpr std::size_t kBlockSize = 65536;
constexpr std::size_t kLongestLine = 4096;  // bytes; more than a report has, the rest is left out

// Divides what is read into lines.
class Lines
{
  public:
    explicit Lines(Reader& reader) : reader_(reader) {}

    void take(std::string_view bytes)
    {
        while (!bytes.empty()) {
            const std::size_t end = bytes.find('\n');
            std::string_view piece = bytes.substr(0, end);
            if (begun_.empty()) {
                // A log that is cut while it is written begins with zero bytes.
                piece.remove_prefix(std::min(piece.find_first_not_of('\0'), piece.size()));
            }
            const bool ended = end != std::string_view::npos;
            if (ended && begun_.empty()) {
                reader_.line(piece.substr(0, kLongestLine));
            } else {
                begun_ += piece.substr(0, kLongestLine - begun_.size());
                inLine_ = true;
                if (ended) {
                    finish();
                }
            }
            bytes.remove_prefix(ended ? end + 1 : bytes.size());
        }
    }

    void finish()
    {
        if (inLine_) {
            reader_.line(begun_);
        }
        begun_.clear();
        inLine_ = false;
    }

  private:
    Reader& reader_;
    std::string begun_;  // a line whose end has not come yet
    bool inLine_ = false;
};

bool readAll(int fd, const std::string& name, Reader& reader)
{
    Lines lines(reader);
    reader.beginFile(name);
    static std::array<char, kBlockSize> block;
    for (;;) {
        const ssize_t got = read(fd, block.data(), block.size());
        if (got > 0) {
            lines.take(std::string_view(block.data(), static_cast<std::size_t>(got)));
        } else if (got == 0) {
            lines.finish();
            return true;
        } else if (errno != EINTR) {
            const std::string why = std::strerror(errno);
            lines.finish();
            complain("cannot read " + printable(name) + ": " + why);
            return false;
        }
    }
}

bool readFile(const char* name, Reader& reader)
{
    if (std::string_view(name) == "-") {
        return readAll(STDIN_FILENO, "standard input", reader);
    }
    const int fd = open(name, O_RDONLY | O_CLOEXEC);
    if (fd == -1) {
        const std::string why = std::strerror(errno);
        complain("cannot open " + printable(name) + ": " + why);
        return false;
    }
    const bool read = readAll(fd, name, reader);
    close(fd);
    return read;
}
}  // namespace

void Collector::take(Report&& report)
{
    ++reports_.count;
    const auto kept = std::make_shared<Report>(std::move(report));
    for (std::size_t i = 0; i < wanted_.size(); ++i) {
        if (wanted_[i] == kept->number) {
            reports_.found[i] = kept;
        }
    }
    // A report with nothing in it has nothing to show.
    if (!kept->anything) {
        return;
    }
    if (isComplete(*kept)) {
        ++reports_.complete;
        oneBefore_ = std::move(newest_);
        newest_ = kept;
    } else {
        reports_.lastCut = kept->number;
        cut_ = kept;
    }
}

Reports Collector::finish()
{
    for (std::size_t i = 0; i < wanted_.size(); ++i) {
        if (wanted_[i] == kNewest) {
            // Better a report that is cut than none.
            reports_.found[i] = newest_ ? newest_ : cut_;
        } else if (wanted_[i] == kOneBefore) {
            reports_.found[i] = oneBefore_;
        }
    }
    return std::move(reports_);
}

bool readLogs(const std::vector<const char*>& files, const std::function<void(Report&&)>& take)
{
    Reader reader(take);
    bool all = true;
    if (files.empty()) {
        all = readFile("-", reader);
    }
    for (const char* file : files) {
        all = readFile(file, reader) && all;
    }
    reader.end();
    return all;
}

}  // namespace rmheap
