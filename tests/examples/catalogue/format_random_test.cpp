// The catalogue's three format modules on random files: what was written is read, and of bytes
// without sense each module makes what a plain model of the format makes of them, or nothing but an
// end.
//
// The same run every time; RM_TEST_SEED makes another one, RM_TEST_OPERATIONS makes it longer or
// shorter.
#include "format_case.h"

#include <random>

using formattest::Fields;
using formattest::loadModule;
using formattest::Module;
using formattest::Outcome;
using formattest::readFile;
using formattest::Record;

namespace
{

constexpr long kFiles = 8'000;

class RandomFormatFiles : public rmtest::RmTest
{
  protected:
    std::size_t upTo(std::size_t most)
    {
        return static_cast<std::size_t>(random_() % (uint64_t{most} + 1));
    }

    bool oneIn(std::size_t n) { return random_() % n == 0; }

    // Bytes out of an alphabet.
    std::string text(std::string_view alphabet, std::size_t most)
    {
        std::string made(upTo(most), ' ');
        for (char& c : made) {
            c = alphabet[upTo(alphabet.size() - 1)];
        }
        return made;
    }

    // Names that differ, whatever else is in them.
    std::vector<std::string> names(std::string_view alphabet, std::size_t count)
    {
        std::vector<std::string> made;
        for (std::size_t i = 0; i < count; ++i) {
            made.push_back(text(alphabet, 3) + std::to_string(i));
        }
        return made;
    }

    std::string lineEnd() { return oneIn(2) ? "\n" : "\r\n"; }

    std::string csvField(const std::string& value, bool alone)
    {
        const bool must =
            value.find_first_of(",\"\r\n") != std::string::npos || (alone && value.empty());
        if (!must && !oneIn(4)) {
            return value;
        }
        std::string quoted = "\"";
        for (const char c : value) {
            quoted += c == '"' ? "\"\"" : std::string(1, c);
        }
        return quoted + "\"";
    }

    std::string csvRow(const std::vector<std::string>& values)
    {
        std::string row;
        for (const std::string& value : values) {
            row += (row.empty() && &value == values.data() ? "" : ",") +
                   csvField(value, values.size() == 1);
        }
        return row;
    }

    // Writes what stands behind the name of a field, and returns its value. A first line begins and
    // ends with no blank, and no line is nothing but blanks.
    std::string writeValue(std::string& written)
    {
        std::string value = text("ab: ,\xFF", 6);
        if (!value.empty()) {
            value.insert(0, "x").append("x");
        }
        written.append(oneIn(3) ? ":" : ": ").append(value);
        for (std::size_t more = upTo(2); more > 0; --more) {
            const std::string line = text("ab: \t,\xFF", 6);
            value.append("\n").append(line).append("y");
            written.append(lineEnd()).append(oneIn(2) ? " " : "\t").append(line).append("y");
        }
        written += lineEnd();
        return value;
    }

  private:
    std::mt19937_64 random_{rmtest::seedOfThisRun()};
};

TEST_F(RandomFormatFiles, OfCommaSeparatedValuesAreReadAsTheyWereWritten)
{
    const Module module = loadModule("csv", CSV_ModEntry);
    const long files = rmtest::operationsOfThisRun(kFiles);
    for (long file = 0; file < files && !HasFailure(); ++file) {
        const std::vector<std::string> columns = names("ab,\"\n\r \xFF", upTo(4) + 1);
        const std::size_t keyColumn = upTo(columns.size() - 1);
        std::string written = csvRow(columns) + lineEnd();
        std::vector<Record> expected(upTo(6));
        for (Record& record : expected) {
            std::vector<std::string> values;
            for (const std::string& column : columns) {
                values.push_back(text("ab,\"\n\r \xFF", 8));
                record.fields.emplace_back(column, values.back());
            }
            record.key = values[keyColumn];
            written += (oneIn(5) ? lineEnd() : "") + csvRow(values) + lineEnd();
        }
        // Where nothing follows that it would belong to, the last line needs no end.
        if (oneIn(3) && !written.ends_with("\r\n")) {
            written.pop_back();
        }
        const Outcome outcome = readFile(module, written, columns[keyColumn].c_str());
        EXPECT_EQ(outcome.fault, "") << written;
        EXPECT_EQ(outcome.records, expected) << written;
    }
}

TEST_F(RandomFormatFiles, OfFieldsAreReadAsTheyWereWritten)
{
    const Module module = loadModule("fields", FIELDS_ModEntry);
    const long files = rmtest::operationsOfThisRun(kFiles);
    for (long file = 0; file < files && !HasFailure(); ++file) {
        std::vector<Record> expected(upTo(5));
        std::string written;
        for (Record& record : expected) {
            for (const std::string& name : names("ab=,.", upTo(3) + 1)) {
                written += name;
                record.fields.emplace_back(name, writeValue(written));
            }
            record.key = record.fields.front().second;
            written += (oneIn(3) ? " " : "") + lineEnd();
        }
        const Outcome outcome = readFile(module, written);
        EXPECT_EQ(outcome.fault, "") << written;
        EXPECT_EQ(outcome.records, expected) << written;
    }
}

TEST_F(RandomFormatFiles, OfSectionsAreReadAsTheyWereWritten)
{
    const Module module = loadModule("ini", INI_ModEntry);
    const long files = rmtest::operationsOfThisRun(kFiles);
    for (long file = 0; file < files && !HasFailure(); ++file) {
        std::vector<Record> expected(upTo(5));
        std::string written;
        for (Record& record : expected) {
            record.key = text("ab=;[ \xFF", 6);
            record.fields.emplace_back("Section", record.key);
            written += "[" + record.key + "]" + lineEnd();
            for (const std::string& name : names("ab,]", upTo(3))) {
                const std::string value = text("ab=;[] \xFF", 6);
                record.fields.emplace_back(name, value);
                written.append(name).append("=").append(value).append(lineEnd());
                written += oneIn(4) ? ";" + text("ab=[] ", 4) + lineEnd() : "";
                written += oneIn(4) ? lineEnd() : "";
            }
        }
        const Outcome outcome = readFile(module, written);
        EXPECT_EQ(outcome.fault, "") << written;
        EXPECT_EQ(outcome.records, expected) << written;
    }
}

// ---- bytes without sense

// Comma-separated values as a machine of states takes them, a byte at a time.
class Rows
{
  public:
    std::vector<std::vector<std::string>> rows;
    std::vector<std::size_t> lines;  // on which they begin
    std::size_t faultLine = 0;       // of the first fault; 0 for none

    explicit Rows(std::string_view text)
    {
        for (std::size_t at = 0; at < text.size() && faultLine == 0;) {
            at +=
                state_ == State::kQuoted ? takeQuoted(text.substr(at)) : takeOther(text.substr(at));
        }
        if (state_ == State::kQuoted) {
            faultLine = opening_;
        }
    }

  private:
    enum class State { kRow, kField, kPlain, kQuoted, kClosed };

    // Each of these returns how many bytes it has taken.
    std::size_t takeQuoted(std::string_view rest)
    {
        if (rest.front() == '"' && !rest.starts_with("\"\"")) {
            state_ = State::kClosed;
            return 1;
        }
        rows.back().back() += rest.front();
        line_ += rest.front() == '\n' ? 1 : 0;
        return rest.front() == '"' ? 2 : 1;
    }

    std::size_t takeOther(std::string_view rest)
    {
        const char c = rest.front();
        if (c == '\n' || rest == "\r" || rest.starts_with("\r\n")) {
            ++line_;
            state_ = State::kRow;
            return rest.starts_with("\r\n") ? 2 : 1;
        }
        if (state_ == State::kRow) {
            rows.emplace_back(1);
            lines.push_back(line_);
            state_ = State::kField;
        }
        if (c == ',') {
            rows.back().emplace_back();
            state_ = State::kField;
        } else if (c == '"' && state_ == State::kField) {
            opening_ = line_;
            state_ = State::kQuoted;
        } else if (c == '"' || c == '\r' || state_ == State::kClosed) {
            faultLine = line_;
        } else {
            rows.back().back() += c;
            state_ = State::kPlain;
        }
        return 1;
    }

    State state_ = State::kRow;
    std::size_t line_ = 1;
    std::size_t opening_ = 0;  // line of the quote that was opened last
};

// The line of what else is wrong with rows, in the order in which a reader comes to it; 0 for
// nothing. A last row that a fault has cut short is that fault's matter, unless it is too long.
std::size_t wrongLine(const Rows& rows)
{
    if (rows.rows.empty()) {
        return rows.faultLine;
    }
    const std::vector<std::string>& header = rows.rows.front();
    for (std::size_t i = 1; i < rows.rows.size(); ++i) {
        const bool cut = rows.faultLine != 0 && i + 1 == rows.rows.size();
        // What stands behind the last field in place is read before its row is counted.
        const std::size_t whole = rows.rows[i].size() - (cut ? 1 : 0);
        if (whole > header.size() || (!cut && whole < header.size()) ||
            (cut && whole == header.size())) {
            return rows.lines[i];
        }
    }
    return rows.faultLine;
}

TEST_F(RandomFormatFiles, WithoutSenseAreReadAsAModelOfTheRulesReadsThem)
{
    const Module module = loadModule("csv", CSV_ModEntry);
    const long files = rmtest::operationsOfThisRun(10 * kFiles);
    long good = 0;
    for (long file = 0; file < files && !HasFailure(); ++file) {
        const std::string written = (oneIn(3) ? "k\n" : "k,l\n") + text("ab,,\"\"\n\n\r", 24);
        const Rows rows(written);
        const Outcome outcome = readFile(module, written);
        EXPECT_EQ(outcome.faultLine, wrongLine(rows)) << written << outcome.fault;
        if (outcome.fault.empty()) {
            ++good;
            ASSERT_EQ(outcome.records.size() + 1, rows.rows.size()) << written;
            for (std::size_t i = 0; i < outcome.records.size(); ++i) {
                Fields expected;
                for (std::size_t k = 0; k < rows.rows[0].size(); ++k) {
                    expected.emplace_back(rows.rows[0][k], rows.rows[i + 1][k]);
                }
                EXPECT_EQ(outcome.records[i].fields, expected) << written;
            }
        }
    }
    EXPECT_GT(good, files / 1000) << "too few of them are right to show anything";
}

TEST_F(RandomFormatFiles, WithoutSenseComeToAnEndInEveryFormat)
{
    const std::vector<Module> modules = {loadModule("csv", CSV_ModEntry),
                                         loadModule("fields", FIELDS_ModEntry),
                                         loadModule("ini", INI_ModEntry)};
    const long files = rmtest::operationsOfThisRun(2 * kFiles);
    for (long file = 0; file < files && !HasFailure(); ++file) {
        const std::string written = text("ab:=,;[]\"\n\n\r \t\xFF", 40);
        for (const Module& module : modules) {
            const uint32_t score = formattest::probe(module, written, oneIn(2));
            EXPECT_LE(score, 100U);
            const Outcome outcome = readFile(module, written);
            EXPECT_EQ(outcome.fault.empty(), outcome.faultLine == 0);
            EXPECT_LE(outcome.faultLine, 1 + static_cast<std::size_t>(
                                                 std::count(written.begin(), written.end(), '\n')));
        }
    }
}

}  // namespace
