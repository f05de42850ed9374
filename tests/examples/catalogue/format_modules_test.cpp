// The catalogue's three format modules on files that were made by hand.
#include "format_case.h"

using formattest::Fields;
using formattest::loadModule;
using formattest::Module;
using formattest::Outcome;
using formattest::probe;
using formattest::readFile;
using formattest::Record;

namespace
{

class FormatModule : public rmtest::RmTest
{
  protected:
    explicit FormatModule(const char* name, void (*entry)(const char*)) : name_(name), entry_(entry)
    {
    }

    void SetUp() override
    {
        RmTest::SetUp();
        module_ = loadModule(name_, entry_);
    }

    Outcome read(std::string_view text, const char* key = nullptr)
    {
        return readFile(module_, text, key);
    }

    // The fault in a text, as "line: what it is".
    std::string faultIn(std::string_view text, const char* key = nullptr)
    {
        const Outcome outcome = read(text, key);
        return std::to_string(outcome.faultLine) + ": " + outcome.fault;
    }

    const Module& module() const { return module_; }

  private:
    const char* name_;
    void (*entry_)(const char*);
    Module module_;
};

class CsvModule : public FormatModule
{
  protected:
    CsvModule() : FormatModule("csv", CSV_ModEntry) {}
};

class FieldsModule : public FormatModule
{
  protected:
    FieldsModule() : FormatModule("fields", FIELDS_ModEntry) {}
};

class IniModule : public FormatModule
{
  protected:
    IniModule() : FormatModule("ini", INI_ModEntry) {}
};

// ---- all of them

TEST_F(CsvModule, SaysWhatItIs)
{
    EXPECT_EQ(module().version(), FORMAT_VERSION);
    EXPECT_STREQ(module().name(), "csv");
    EXPECT_STRNE(module().advice(), "");
}

TEST_F(FieldsModule, SaysWhatItIs)
{
    EXPECT_EQ(module().version(), FORMAT_VERSION);
    EXPECT_STREQ(module().name(), "fields");
    EXPECT_STRNE(module().advice(), "");
}

TEST_F(IniModule, SaysWhatItIs)
{
    EXPECT_EQ(module().version(), FORMAT_VERSION);
    EXPECT_STREQ(module().name(), "ini");
    EXPECT_STRNE(module().advice(), "");
}

TEST_F(CsvModule, ReadsNothingFromAnEmptyFile)
{
    EXPECT_EQ(read("").records, std::vector<Record>());
    EXPECT_EQ(read("\n\r\n").records, std::vector<Record>());
    EXPECT_EQ(read("").fault, "");
}

TEST_F(FieldsModule, ReadsNothingFromAnEmptyFile)
{
    EXPECT_EQ(read("").records, std::vector<Record>());
    EXPECT_EQ(read(" \n\t\r\n").fault, "");
}

TEST_F(IniModule, ReadsNothingFromAnEmptyFile)
{
    EXPECT_EQ(read("").records, std::vector<Record>());
    EXPECT_EQ(read("; nothing\n\n").fault, "");
}

// ---- comma-separated values

TEST_F(CsvModule, NamesTheFieldsOfEachRowByTheHeader)
{
    const std::vector<Record> expected = {{"x", {{"a", "x"}, {"b", "1"}}},
                                          {"y", {{"a", "y"}, {"b", "2"}}}};
    EXPECT_EQ(read("a,b\nx,1\ny,2\n").records, expected);
}

TEST_F(CsvModule, ReadsALastRowWithoutItsEnd)
{
    const std::vector<Record> expected = {{"x", {{"a", "x"}, {"b", ""}}}};
    EXPECT_EQ(read("a,b\nx,").records, expected);
    EXPECT_EQ(read("a,b\nx,\r").records, expected);
    EXPECT_EQ(read("a,b\nx,\"\"").records, expected);
}

TEST_F(CsvModule, TakesBothEndsOfALine)
{
    const std::vector<Record> expected = {{"x", {{"a", "x"}, {"b", "1"}}},
                                          {"y", {{"a", "y"}, {"b", "2"}}}};
    EXPECT_EQ(read("a,b\r\nx,1\ny,2\r\n").records, expected);
}

TEST_F(CsvModule, TakesTheQuotesOffAField)
{
    const std::vector<Record> expected = {
        {"x,y", {{"a", "x,y"}, {"b", "say \"yes\""}, {"c", "two\r\nlines"}, {"d", "\"\""}}}};
    EXPECT_EQ(read("a,b,c,d\n\"x,y\",\"say \"\"yes\"\"\",\"two\r\nlines\",\"\"\"\"\"\"\n").records,
              expected);
}

TEST_F(CsvModule, TakesTheQuotesOffAColumnsName)
{
    const std::vector<Record> expected = {{"1", {{"a,\"b\"", "1"}, {"c\nd", "2"}}}};
    EXPECT_EQ(read("\"a,\"\"b\"\"\",\"c\nd\"\n1,2\n").records, expected);
}

TEST_F(CsvModule, KeepsBlanksAndBytesOfEveryKind)
{
    const std::vector<Record> expected = {{" x ", {{" a", " x "}, {"b\t", "\xFF;='\x01"}}}};
    EXPECT_EQ(read(" a,b\t\n x ,\xFF;='\x01\n").records, expected);
}

TEST_F(CsvModule, PassesOverLinesWithoutACharacter)
{
    const std::vector<Record> expected = {{"x", {{"a", "x"}}}, {"y", {{"a", "y"}}}};
    EXPECT_EQ(read("\n\na\n\r\nx\n\n\ny\n\n").records, expected);
}

TEST_F(CsvModule, TellsTheLineOnWhichEachFieldBegins)
{
    const std::vector<std::size_t> expected = {4, 5, 6, 6};
    EXPECT_EQ(read("\n\"a\n\",b\n\"x\n\",1\ny,\"2\"\n").lines, expected);
}

TEST_F(CsvModule, TakesTheKeyFromTheColumnThatIsAskedFor)
{
    const std::vector<Record> expected = {{"1", {{"a", "x"}, {"b", "1"}, {"c", "2"}}}};
    const Outcome outcome = read("a,b,c\nx,1,2\n", "b");
    EXPECT_EQ(outcome.records, expected);
    EXPECT_EQ(outcome.keyText, "the key column");
    EXPECT_EQ(read("a,b,c\n").keyText, "the first column");
}

TEST_F(CsvModule, RefusesAKeyColumnThatTheHeaderLacks)
{
    const Outcome outcome = read("a,bc\n1,2\n", "b");
    EXPECT_EQ(outcome.fault, "the header has no column of this name");
    EXPECT_EQ(outcome.shown, "b");
}

TEST_F(CsvModule, RefusesRowsOfAnotherLength)
{
    EXPECT_EQ(faultIn("a,b,c\n1,2,3\n4,5\n"), "3: the row has 2 fields, and the header has 3");
    EXPECT_EQ(faultIn("a,b\n1\n"), "2: the row has 1 field, and the header has 2");
    EXPECT_EQ(faultIn("a,b\n1,2,3,4\n"), "2: the row has 3 fields or more, and the header has 2");
    EXPECT_EQ(faultIn("a,b\n\"1\n2\n\"\n"), "2: the row has 1 field, and the header has 2");
    EXPECT_EQ(faultIn("a\n1,\n"), "2: the row has 2 fields or more, and the header has 1");
}

TEST_F(CsvModule, RefusesQuotesThatAreOutOfPlace)
{
    EXPECT_EQ(faultIn("a\n\"1\n2"), "2: the quote that opens here is never closed");
    EXPECT_EQ(faultIn("a\n\"1\"\""), "2: the quote that opens here is never closed");
    EXPECT_EQ(faultIn("a\n\""), "2: the quote that opens here is never closed");
    EXPECT_EQ(faultIn("a\n\"1\" \n"), "2: text behind the quote that closes a field");
    EXPECT_EQ(faultIn("a\n\"1\n\"\rx\n"), "3: text behind the quote that closes a field");
    EXPECT_EQ(faultIn("a\n1\"2\"\n"), "2: a quote in a field that does not begin with one");
    EXPECT_EQ(faultIn("\"a\n1\n"), "1: the quote that opens here is never closed");
    EXPECT_EQ(read("a\n\"1\"x,\"2\n3\"\n").shown, "x,\"2");
}

TEST_F(CsvModule, RefusesACarriageReturnInAPlainField)
{
    EXPECT_EQ(faultIn("a\n1\r2\n"), "2: a carriage return that ends no line, outside of quotes");
    EXPECT_EQ(read("a\n\"1\r2\"\n").records.front().key, "1\r2");
}

TEST_F(CsvModule, RefusesAHeaderThatDoesNotTellColumnsApart)
{
    EXPECT_EQ(faultIn("a,,b\n"), "1: a column without a name");
    EXPECT_EQ(faultIn("a,\n"), "1: a column without a name");
    EXPECT_EQ(faultIn("a,\"b\",b\n"), "1: a second column of this name");
    EXPECT_EQ(faultIn("a,ab,b\n"), "0: ");
}

TEST_F(CsvModule, TakesFourThousandColumnsAndNoMore)
{
    std::string header = "c1";
    std::string row = "1";
    for (int i = 2; i <= 4096; ++i) {
        header += ",c" + std::to_string(i);
        row += "," + std::to_string(i);
    }
    const Outcome outcome = read(header + "\n" + row, "c4096");
    ASSERT_EQ(outcome.records.size(), 1U);
    EXPECT_EQ(outcome.records.front().fields.size(), 4096U);
    EXPECT_EQ(outcome.records.front().key, "4096");
    EXPECT_EQ(faultIn(header + ",more\n"), "1: more than 4096 columns");
}

TEST_F(CsvModule, TakesAHeaderWithoutItsEnd)
{
    EXPECT_EQ(faultIn("a,b"), "0: ");
    EXPECT_EQ(faultIn("a,b", "b"), "0: ");
    EXPECT_EQ(read("a,b").records.size(), 0U);
}

TEST_F(CsvModule, IsSurerTheMoreRowsFit)
{
    const uint32_t fits = probe(module(), "a,b\n1,2\n3,\"4\n,\"\"\"\n");
    const uint32_t headerAlone = probe(module(), "a,b\n");
    const uint32_t second = probe(module(), "a,b\n1,2\n3\n");
    const uint32_t commas = probe(module(), "a,b\n1\n");
    EXPECT_GT(fits, second);
    EXPECT_GT(second, headerAlone);
    EXPECT_GT(headerAlone, commas);
    EXPECT_GT(commas, 0U);
    EXPECT_EQ(probe(module(), "\n\na,b\n\n1,2"), fits);
    EXPECT_EQ(probe(module(), "a,b\n1,2\n3", false), fits);  // cut
    EXPECT_EQ(probe(module(), "a,b\n1,2\n3"), second);
}

TEST_F(CsvModule, DoesNotTakeOneColumnForItsFormat)
{
    EXPECT_EQ(probe(module(), "a\n1,2\n"), 0U);
    EXPECT_EQ(probe(module(), "\"a,b\"\n"), 0U);
    EXPECT_EQ(probe(module(), ""), 0U);
}

// ---- fields

TEST_F(FieldsModule, ReadsRecordsBetweenBlankLines)
{
    const std::vector<Record> expected = {{"a", {{"Name", "a"}, {"Text", "b: c"}}},
                                          {"d", {{"Name", "d"}}}};
    EXPECT_EQ(read("\nName: a\nText:b: c\n \t\n\r\n\nName:  d \r\n").records, expected);
    EXPECT_EQ(read("Name: a\nText: b: c\n\nName: d").records, expected);
}

TEST_F(FieldsModule, JoinsTheLinesOfAValue)
{
    const std::vector<Record> expected = {
        {"a", {{"Name", "a"}, {"Text", "one\n two\n.\nthree "}, {"Files", "\n/x\n/y"}}}};
    EXPECT_EQ(read("Name: a\nText: one\r\n  two\r\n .\n\tthree \nFiles:\n /x\n /y\n").records,
              expected);
}

TEST_F(FieldsModule, TellsTheLineOnWhichEachFieldBegins)
{
    const std::vector<std::size_t> expected = {2, 3, 7};
    EXPECT_EQ(read("\nName: a\nText: b\n c\n d\n\nName: e\n").lines, expected);
}

TEST_F(FieldsModule, TakesTheKeyFromTheFieldThatIsAskedFor)
{
    const Outcome outcome = read("A: 1\nB: 2\nB: 3\n\nA: 4\n\nB: 5\n", "B");
    ASSERT_EQ(outcome.records.size(), 3U);
    EXPECT_EQ(outcome.records[0].key, "2");
    EXPECT_EQ(outcome.records[1].key, "");
    EXPECT_EQ(outcome.records[2].key, "5");
    EXPECT_EQ(outcome.keyText, "the first field");
}

TEST_F(FieldsModule, RefusesALineThatIsNoField)
{
    EXPECT_EQ(faultIn("Name: a\nno field\n"), "2: neither a field nor a continuation");
    EXPECT_EQ(faultIn("Name: a\n: b\n"), "2: neither a field nor a continuation");
    EXPECT_EQ(faultIn("Na me: a\n"), "1: neither a field nor a continuation");
    EXPECT_EQ(faultIn("N\xC3me: a\n"), "1: neither a field nor a continuation");
    EXPECT_EQ(faultIn("Name: a\n\n b\n"), "3: a continuation without a field before it");
    EXPECT_EQ(read("Name: a\n\n b\n").shown, " b");
}

TEST_F(FieldsModule, IsSurerTheMoreLinesFit)
{
    const uint32_t fits = probe(module(), "Name: a\n b\n\nName: c\n");
    const uint32_t begins = probe(module(), "Name: a\nno field\n");
    EXPECT_GT(fits, begins);
    EXPECT_GT(begins, 0U);
    EXPECT_EQ(probe(module(), "Name: a\nno fie", false), fits);  // cut
    EXPECT_EQ(probe(module(), "no field\nName: a\n"), 0U);
    EXPECT_EQ(probe(module(), " Name: a\n"), 0U);
    EXPECT_EQ(probe(module(), ""), 0U);
}

// ---- INI files

TEST_F(IniModule, ReadsARecordFromEachSection)
{
    const std::vector<Record> expected = {
        {"a", {{"Section", "a"}, {"Key", "1"}, {"Other", " 2=3"}}},
        {"b", {{"Section", "b"}}},
        {"c", {{"Section", "c"}, {"Key ", ""}}}};
    EXPECT_EQ(
        read("; first\r\n[a]\r\nKey=1\r\n\r\n;x=y\r\nOther= 2=3\r\n[b]  \n[c]\nKey =").records,
        expected);
}

TEST_F(IniModule, GivesTheHeaderTheNameThatIsAskedFor)
{
    const std::vector<Record> expected = {{"a", {{"Name", "a"}, {"Key", "1"}}}};
    const Outcome outcome = read("[a]\nKey=1\n", "Name");
    EXPECT_EQ(outcome.records, expected);
    EXPECT_EQ(outcome.keyText, "the header of a section");
}

TEST_F(IniModule, TellsTheLineOnWhichEachFieldBegins)
{
    const std::vector<std::size_t> expected = {2, 4, 5};
    EXPECT_EQ(read(";\n[a]\n;\nb=c\n[d]").lines, expected);
}

TEST_F(IniModule, RefusesALineThatItCannotPlace)
{
    EXPECT_EQ(faultIn("a=b\n[c]\n"), "1: a line before the first section");
    EXPECT_EQ(faultIn("[a]\nb\n"), "2: neither the header of a section, an entry nor a comment");
    EXPECT_EQ(faultIn("[a]\n=b\n"), "2: neither the header of a section, an entry nor a comment");
    EXPECT_EQ(faultIn("[a]\n\n[b\n"), "3: the header of a section lacks its ]");
    EXPECT_EQ(faultIn("[a] b\n"), "1: text behind the header of a section");
    EXPECT_EQ(read("[a]\nno entry\n").shown, "no entry");
}

TEST_F(IniModule, IsSurerTheMoreLinesFit)
{
    const uint32_t fits = probe(module(), "; x\n\n[a]\nb=c\n;\n[d]\n");
    const uint32_t begins = probe(module(), "[a]\nb\n");
    EXPECT_GT(fits, begins);
    EXPECT_GT(begins, 0U);
    EXPECT_EQ(probe(module(), "[a]\nb=c\nd", false), fits);  // cut
    EXPECT_EQ(probe(module(), "a=b\n[a]\n"), 0U);
    EXPECT_EQ(probe(module(), "[a\n"), 0U);
    EXPECT_EQ(probe(module(), ""), 0U);
}

// ---- one against the others

// What each of them says of a head.
std::vector<uint32_t> scores(std::string_view head)
{
    return {probe(loadModule("csv", CSV_ModEntry), head),
            probe(loadModule("fields", FIELDS_ModEntry), head),
            probe(loadModule("ini", INI_ModEntry), head)};
}

class FormatModules : public rmtest::RmTest
{
};

TEST_F(FormatModules, AgreeOnWhoseAFileIs)
{
    const auto best = [](std::string_view head) {
        const std::vector<uint32_t> all = scores(head);
        return std::max_element(all.begin(), all.end()) - all.begin();
    };
    EXPECT_EQ(best("Name: a, b\nText: c, d\n"), 1);
    EXPECT_EQ(best("Name,Text\na,b\n"), 0);
    EXPECT_EQ(best("[a,b]\nc,d=e\n"), 2);
    EXPECT_EQ(best("a:b,c\nd:e,f\n"), 1);
    EXPECT_EQ(best("\"Name: x\",b\n1,2\n"), 0);
    EXPECT_EQ(scores("nothing that anybody knows\n"), std::vector<uint32_t>(3, 0));
}

TEST_F(FormatModules, MakeTheSameRecordsOfTheSameFields)
{
    const std::vector<Record> expected = {{"x", {{"Name", "x"}, {"Text", "a=b: \"c\", d"}}},
                                          {"y", {{"Name", "y"}, {"Text", ""}}}};
    EXPECT_EQ(readFile(loadModule("csv", CSV_ModEntry), "Name,Text\nx,\"a=b: \"\"c\"\", d\"\ny,\n",
                       "Name")
                  .records,
              expected);
    EXPECT_EQ(readFile(loadModule("fields", FIELDS_ModEntry),
                       "Name: x\nText: a=b: \"c\", d\n\nName: y\nText:\n", "Name")
                  .records,
              expected);
    EXPECT_EQ(
        readFile(loadModule("ini", INI_ModEntry), "[x]\nText=a=b: \"c\", d\n[y]\nText=\n", "Name")
            .records,
        expected);
}

}  // namespace
