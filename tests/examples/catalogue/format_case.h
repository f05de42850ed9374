// What the cases of the catalogue's format modules share: a module in the registry, as a host loads
// it, and a file that is read through its functions.
#ifndef RM_TESTS_EXAMPLES_CATALOGUE_FORMAT_CASE_H
#define RM_TESTS_EXAMPLES_CATALOGUE_FORMAT_CASE_H

#include "examples/catalogue/modules/format.h"
#include "tests/support/support.h"

#include "rm.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

// The entry points, whose names follow from those of the modules.
#define FORMAT_ENTRY_POINT(function) extern "C" void function(const char* module)
FORMAT_ENTRY_POINT(FIELDS_ModEntry);
FORMAT_ENTRY_POINT(CSV_ModEntry);
FORMAT_ENTRY_POINT(INI_ModEntry);

namespace formattest
{

using Fields = std::vector<std::pair<std::string, std::string>>;  // name and value

struct Record {
    std::string key;
    Fields fields;

    bool operator==(const Record&) const = default;
};

inline void PrintTo(const Record& record, std::ostream* stream)
{
    *stream << testing::PrintToString(record.key) << " " << testing::PrintToString(record.fields);
}

// What has come of reading a file.
struct Outcome {
    std::vector<Record> records;
    std::vector<std::size_t> lines;  // of all fields
    std::string fault;               // empty when there is none
    std::size_t faultLine = 0;
    std::string shown;  // with the fault
    std::string keyText;
};

struct Module {
    FormatVersionFunction* version = nullptr;
    FormatTextFunction* name = nullptr;
    FormatTextFunction* advice = nullptr;
    FormatProbeFunction* probe = nullptr;
    FormatBeginFunction* begin = nullptr;
    FormatNextFunction* next = nullptr;
};

// The module that is linked in here, by way of the registry: once it has registered its functions
// the name is known, and loading it finds it.
inline Module loadModule(const char* name, void (*entry)(const char*))
{
    Module module;
    int16_t handle = RM_NONE;
    const auto take = [&handle](const char* function, auto*& address) {
        void* found = nullptr;
        EXPECT_EQ(rm_emGetFcnAddr(handle, function, &found), RM_SUCCESS) << function;
        address = reinterpret_cast<std::remove_reference_t<decltype(address)>>(found);
    };
    EXPECT_EQ(rm_emInit(), RM_SUCCESS);
    entry(name);
    EXPECT_EQ(rm_emLoad(name, &handle), RM_SUCCESS);
    take("formatVersion", module.version);
    take("formatName", module.name);
    take("formatAdvice", module.advice);
    take("formatProbe", module.probe);
    take("formatBegin", module.begin);
    take("formatNext", module.next);
    return module;
}

// True when a text lies where a module may have it: in the file, or in the name that was asked for.
inline bool lies(const char* text, std::size_t length, const std::vector<char>& file,
                 const char* key)
{
    const bool within = text >= file.data() && text + length <= file.data() + file.size();
    return within || length == 0 || text == key || std::string_view(text, length) == "Section";
}

inline Outcome readFile(const Module& module, std::string_view text, const char* key = nullptr)
{
    // Of its own, so that a sanitizer sees what lies outside of it.
    std::vector<char> file(text.begin(), text.end());
    file.push_back('\0');
    file.shrink_to_fit();
    FormatReader reader = {};
    reader.text = file.data();
    reader.size = text.size();
    reader.key = key;
    Outcome outcome;
    FormatField field = {};
    int found = module.begin(&reader);
    std::size_t fields = 0;
    while (found != FORMAT_FAULT && (found = module.next(&reader, &field)) == FORMAT_FIELD) {
        EXPECT_LE(++fields, text.size() + 1) << "it does not end";
        EXPECT_TRUE(lies(field.name, field.nameLength, file, key));
        EXPECT_TRUE(lies(field.value, field.valueLength, file, key));
        const std::string value(field.value, field.valueLength);
        if ((field.flags & FORMAT_NEW_RECORD) != 0) {
            outcome.records.emplace_back();
        }
        if (outcome.records.empty() || fields > text.size() + 1) {
            ADD_FAILURE() << "a field of no record, or no end";
            break;
        }
        Record& record = outcome.records.back();
        if ((field.flags & FORMAT_KEY) != 0) {
            EXPECT_EQ(record.key, "") << "a second name of a record";
            record.key = value;
        }
        record.fields.emplace_back(std::string(field.name, field.nameLength), value);
        outcome.lines.push_back(field.line);
    }
    if (found == FORMAT_FAULT) {
        outcome.fault = reader.fault;
        outcome.faultLine = reader.line;
        outcome.shown =
            reader.shown == nullptr ? "" : std::string(reader.shown, reader.shownLength);
        EXPECT_NE(outcome.fault, "");
    } else {
        EXPECT_EQ(module.next(&reader, &field), FORMAT_END) << "there is something behind the end";
    }
    outcome.keyText = reader.keyText;
    return outcome;
}

inline uint32_t probe(const Module& module, std::string_view head, bool whole = true)
{
    const std::vector<char> bytes(head.begin(), head.end());
    return module.probe(bytes.data(), bytes.size(), whole ? 1 : 0);
}

}  // namespace formattest

#endif
