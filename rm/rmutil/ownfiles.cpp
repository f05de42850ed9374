// The files of calls in progress.
//
// Why: a call that ends fatally leaves open what it has opened for itself, and the process could
// neither replace nor remove those files any more. So they are noted here, and the next call of the
// kind closes them.
//
// A handle is a small number, and the host's own file may have it by then. So the note of a call
// that did not come back is forgotten when its handle has vanished, or does later, and with the
// whole table.
//
// Owns: the notes, one for each place in which a call has a file open. Calls of one kind do not
// nest.
//
// Locks: fileSem, while a file is opened or closed. Fatal: its time-out, and what the managed files
// end.
#include "rm/file/file.h"
#include "rm/rmutil/rmutil.h"

using namespace rmutil;

namespace
{
// A file of a call. The handle is kept beside its stream: a host may release tag 0, and the record
// with it, while the file stays open.
struct Note {
    FileStream* stream;  // null when there is none
    FileHandle handle;   // RM_NONE when there is none
    bool abandoned;      // the call did not come back
};

constexpr Note kNothing = {nullptr, RM_NONE, false};

Note notes[] = {kNothing, kNothing, kNothing, kNothing};  // by OwnFile

void forgetHandle(Note* note)
{
    note->handle = RM_NONE;
    if (note->stream != nullptr) {
        note->stream->handle = RM_NONE;
    }
}
}  // namespace

// The lock of the table is held until the file is noted, so that no step that may not return comes
// in between.
FileStream* rmutil::openOwnStream(OwnFile which, const char* path, const char* mode)
{
    file::enterFileSem("fileSem timeout in rm_fileOpen");
    FileStream* stream = rm_fileStreamOpen(path, mode);
    notes[which] = {stream, stream != nullptr ? stream->handle : int16_t{RM_NONE}, false};
    file::leaveFileSem();
    return stream;
}

FileHandle rmutil::openOwn(OwnFile which, const char* path, uint32_t openFlags,
                           uint32_t initialSize, uint32_t growIncrement)
{
    file::enterFileSem("fileSem timeout in rm_fileOpen");
    FileHandle handle = rm_fileOpen(path, openFlags, 0, initialSize, growIncrement);
    if (handle == 0) {
        handle = RM_NONE;  // Deliberate: a failure to who copies, and stays open
    }
    notes[which] = {nullptr, handle, false};
    file::leaveFileSem();
    return handle;
}

void rmutil::closeOwn(OwnFile which)
{
    Note* note = &notes[which];
    if (note->stream == nullptr && note->handle == RM_NONE) {
        return;
    }
    file::enterFileSem("fileSem timeout in rm_fileClose");
    const Note closed = *note;
    *note = kNothing;
    if (closed.stream != nullptr) {
        closed.stream->pending = 0;  // of a copy that nobody finished
        rm_fileStreamClose(closed.stream);
    } else {
        rm_fileClose(closed.handle);
    }
    file::leaveFileSem();
}

void rmutil::forgetOwnStreams()
{
    for (Note& note : notes) {
        note.stream = nullptr;
    }
}

void rmutil::forgetOwnHandles()
{
    for (Note& note : notes) {
        forgetHandle(&note);
    }
}

void rmutil::abandonOwnFiles()
{
    for (Note& note : notes) {
        note.abandoned = true;
        if (file::usedEntry(note.handle) == nullptr) {
            forgetHandle(&note);
        }
    }
}

void rmutil::forgetAbandoned(const file::FileEntry* entry)
{
    for (Note& note : notes) {
        if (note.abandoned && file::usedEntry(note.handle) == entry) {
            forgetHandle(&note);
        }
    }
}
