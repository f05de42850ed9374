// Puts the reports of a log together, line by line.
#ifndef RMHEAP_READER_H
#define RMHEAP_READER_H

#include "line.h"
#include "report.h"

#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace rmheap
{

class Reader
{
  public:
    // `take` gets each report when its end has been met.
    explicit Reader(std::function<void(Report&&)> take) : take_(std::move(take)) {}

    // A report may go on in the next file: logs are put away while they are written.
    void beginFile(const std::string& name);
    void line(std::string_view bytes);
    void end();

  private:
    // What the next line of its kind belongs to.
    enum class Expected { kNothing, kTitle, kSegmentFree, kTagFree, kTagSegments, kTotalFree };

    void apply(const Line& line);
    void applyToTag(const Line& line);
    void applyToSegment(const Line& line);
    void applyTotals(const Line& line);
    void open();
    void close();
    void dropHeld();
    Tag* addTag();
    bool addSegment(Tag& tag, const Segment& segment);
    Tag* tagOf(int number, std::string_view name, bool broken);
    void enter(std::size_t tag);
    void enter(const Tag* tag);
    Tag* current();
    Segment* currentSegment();
    void takeHead(const Line& line);
    void takeRow(const Line& line);
    void takeSegment(const Line& line);
    void takeBlock(const Line& line);
    void takeFree(const Line& line);
    void takeMismatch(const Line& line);
    void takeWarning(const Warning& warning);
    void takeTitle(const Message& message);

    std::function<void(Report&&)> take_;
    std::string file_;
    uint64_t line_ = 0;
    std::size_t reports_ = 0;
    bool isOpen_ = false;
    Report report_;
    Expected expected_ = Expected::kNothing;
    std::size_t tag_ = SIZE_MAX;                   // in report_.tags; beyond them: none
    bool inSegment_ = false;                       // the last one of the tag
    bool leftOut_ = false;                         // in a tag or a segment that is not kept
    std::size_t segments_ = 0;                     // of all tags in report_
    std::size_t unowned_ = 0;                      // warnings before this one have their tag
    std::string held_;                             // a line of a tag whose end may come in the next
    std::string time_;                             // of the line that is being read
    std::unordered_map<int, std::size_t> places_;  // of tags in report_.tags, by number
};

}  // namespace rmheap

#endif
