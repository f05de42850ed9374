/* A format module in C, under many names: which of its entry points the host calls follows from the
 * name of the file, so a case makes of it what it needs by copying it. The format is the same in
 * all of them: a line "name value" is a record of one field. */
#include "../../examples/catalogue/modules/format.h"

#include "rm.h"

#include <stdio.h>
#include <string.h>

typedef struct State {
    size_t at;
    size_t line;
} State;

static char ownName[32];

static uint32_t formatVersion(void)
{
    return FORMAT_VERSION;
}

static uint32_t nextVersion(void)
{
    return FORMAT_VERSION + 1;
}

static const char* formatName(void)
{
    return ownName;
}

static const char* csvName(void)
{
    return "csv";
}

static const char* noName(void)
{
    return "";
}

static const char* formatAdvice(void)
{
    return "A record is a line of a name, a blank and a value.";
}

static uint32_t formatProbe(const char* head, size_t size, int whole)
{
    (void)whole;
    return size > 0 && memchr(head, ' ', size) != NULL ? 5 : 0;
}

static int formatBegin(FormatReader* reader)
{
    memset(reader->state, 0, sizeof(State));
    reader->keyText = "the name";
    return 0;
}

static int readLine(FormatReader* reader, FormatField* field, unsigned flags)
{
    State state;
    const char* line;
    const char* end;
    const char* blank;
    memcpy(&state, reader->state, sizeof(state));
    if (state.at >= reader->size) {
        return FORMAT_END;
    }
    line = reader->text + state.at;
    end = memchr(line, '\n', reader->size - state.at);
    if (end == NULL) {
        end = reader->text + reader->size;
    }
    ++state.line;
    state.at = (size_t)(end - reader->text) + 1;
    memcpy(reader->state, &state, sizeof(state));
    blank = memchr(line, ' ', (size_t)(end - line));
    if (blank == NULL) {
        snprintf(reader->fault, sizeof(reader->fault), "a line without a blank");
        reader->line = state.line;
        reader->shown = line;
        reader->shownLength = (size_t)(end - line);
        return FORMAT_FAULT;
    }
    field->name = "name";
    field->nameLength = strlen(field->name);
    field->value = line;
    field->valueLength = (size_t)(blank - line);
    field->line = state.line;
    field->flags = flags;
    return FORMAT_FIELD;
}

static int formatNext(FormatReader* reader, FormatField* field)
{
    return readLine(reader, field, FORMAT_NEW_RECORD | FORMAT_KEY);
}

static int nextWithoutKey(FormatReader* reader, FormatField* field)
{
    return readLine(reader, field, FORMAT_NEW_RECORD);
}

/* A function pointer becomes a data pointer by its bytes: C has no cast for it. */
#define REGISTER(module, name, function)                          \
    do {                                                          \
        void* address;                                            \
        *(__typeof__(&(function))*)(void*)&address = &(function); \
        rm_emRegFcn((module), (name), address);                   \
    } while (0)

static void registerAll(const char* module)
{
    const char* slash = strrchr(module, '/');
    snprintf(ownName, sizeof(ownName), "%s", slash == NULL ? module : slash + 1);
    REGISTER(module, "formatVersion", formatVersion);
    REGISTER(module, "formatName", formatName);
    REGISTER(module, "formatAdvice", formatAdvice);
    REGISTER(module, "formatProbe", formatProbe);
    REGISTER(module, "formatBegin", formatBegin);
    REGISTER(module, "formatNext", formatNext);
}

#define ENTRY(function)                \
    void function(const char* module); \
    void function(const char* module)

#define GOOD_ENTRY(function) \
    ENTRY(function)          \
    {                        \
        registerAll(module); \
    }

GOOD_ENTRY(WORDS_ModEntry)
GOOD_ENTRY(M01_ModEntry)
GOOD_ENTRY(M02_ModEntry)
GOOD_ENTRY(M03_ModEntry)
GOOD_ENTRY(M04_ModEntry)
GOOD_ENTRY(M05_ModEntry)
GOOD_ENTRY(M06_ModEntry)
GOOD_ENTRY(M07_ModEntry)
GOOD_ENTRY(M08_ModEntry)
GOOD_ENTRY(M09_ModEntry)
GOOD_ENTRY(M10_ModEntry)
GOOD_ENTRY(M11_ModEntry)
GOOD_ENTRY(M12_ModEntry)
GOOD_ENTRY(M13_ModEntry)
GOOD_ENTRY(M14_ModEntry)
GOOD_ENTRY(M15_ModEntry)
GOOD_ENTRY(M16_ModEntry)
GOOD_ENTRY(M17_ModEntry)

/* What is registered first counts, so each of these begins with what it has of its own. */

ENTRY(NEWER_ModEntry)
{
    REGISTER(module, "formatVersion", nextVersion);
}

ENTRY(LACKING_ModEntry)
{
    REGISTER(module, "formatVersion", formatVersion);
    REGISTER(module, "formatName", formatName);
    REGISTER(module, "formatAdvice", formatAdvice);
    REGISTER(module, "formatProbe", formatProbe);
    REGISTER(module, "formatBegin", formatBegin);
}

ENTRY(MUTE_ModEntry)
{
    (void)module;
}

ENTRY(TWIN_ModEntry)
{
    REGISTER(module, "formatName", csvName);
    registerAll(module);
}

ENTRY(NAMELESS_ModEntry)
{
    REGISTER(module, "formatName", noName);
    registerAll(module);
}

ENTRY(KEYLESS_ModEntry)
{
    REGISTER(module, "formatNext", nextWithoutKey);
    registerAll(module);
}

ENTRY(FATAL_ModEntry)
{
    (void)module;
    fatalRMExit("a module that ends the server");
}
