/*
 * What a format module is: a shared object that reads the records of one format.
 *
 * A module NAME.so exports NAME_ModEntry (upper case, without a leading "lib"), which is called
 * once with the name under which the module was loaded. There it registers, under that name and
 * with rm_emRegFcn, the six functions below; nothing else of it needs to be exported. The host
 * refuses a module that lacks one of them, or whose formatVersion is not the host's own
 * FORMAT_VERSION, and goes on with the others.
 *
 *   formatVersion  FORMAT_VERSION, as this header had it when the module was compiled
 *   formatName     the name by which the format can be asked for: 1 to 31 bytes
 *   formatAdvice   what a file of the format looks like: one or more lines for people
 *   formatProbe    how much the head of a file looks like it, 0 to 100
 *   formatBegin    begins a file
 *   formatNext     the next field
 *
 * A file is read as a row of fields, each with a name and a value, of which one begins a record and
 * one names it. The text is the module's to write over, up to where it has read: what must be
 * unquoted or joined shrinks in its place, so a module needs no memory. Values and names are read
 * before the next call.
 *
 * From formatProbe on a module calls nothing of the library. The host relies on it: the frames
 * around these calls own strings, and a fatal error would jump over them.
 */
#ifndef CATALOGUE_FORMAT_H
#define CATALOGUE_FORMAT_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define FORMAT_VERSION 1U /* a host and a module of different ones do not understand each other */

#define FORMAT_FAULT_ROOM 160 /* bytes of the text of a fault, terminator included */
#define FORMAT_STATE_ROOM 128 /* bytes for the module's own state */

/* What formatNext has found. */
#define FORMAT_END 0   /* nothing: the file ends */
#define FORMAT_FIELD 1 /* a field */
#define FORMAT_FAULT 2 /* a fault in the file, described in the reader; the last call for it */

/* What a field is besides. */
#define FORMAT_NEW_RECORD 1U /* the first of a record */
#define FORMAT_KEY 2U        /* the one that names it: one in each record */

typedef struct FormatField {
    const char* name; /* need not end with a zero, as the value need not */
    size_t nameLength;
    const char* value;
    size_t valueLength;
    size_t line;    /* on which it begins, from 1 */
    unsigned flags; /* FORMAT_NEW_RECORD, FORMAT_KEY */
} FormatField;

/* One file that is being read. */
typedef struct FormatReader {
    /* Set by the host before formatBegin. */
    char* text;      /* the whole file, without a NUL byte in it; text[size] is one, and writable */
    size_t size;     /* bytes */
    const char* key; /* name of the field that names a record; null leaves it to the format */

    /* Set by the module: in formatBegin, and with every FORMAT_FAULT. */
    const char* keyText; /* "the first field": how people call the field that names a record */
    size_t line;         /* of the fault */
    const char* shown;   /* the bytes that are at fault, null for none */
    size_t shownLength;
    char fault[FORMAT_FAULT_ROOM]; /* what is wrong with them */

    unsigned char state[FORMAT_STATE_ROOM]; /* the module's own, aligned like a pointer */
} FormatReader;

typedef uint32_t FormatVersionFunction(void);
typedef const char* FormatTextFunction(void);

/* `whole` is not 0 when the head is all there is; else its last line may be cut anywhere. */
typedef uint32_t FormatProbeFunction(const char* head, size_t size, int whole);

/* 0, or FORMAT_FAULT. */
typedef int FormatBeginFunction(FormatReader* reader);
typedef int FormatNextFunction(FormatReader* reader, FormatField* field);

#ifdef __cplusplus
}
#endif

#endif
