// INI files: changing one.
//
// Why: a settings file is rewritten whole, through a temporary file beside it, so that whoever is
// killed in the middle leaves the old file or the new one and never a part of either:
//
//   1. lock "_temp_.ini"           processes that rewrite files of one directory take turns
//   2. copy into it, with the change; then give it the permissions of the old file
//   3. bring both to the disk      a failure in 2 or 3: it is removed, the old file stands
//   4. remove the old file         a failure: both stand
//   5. rename the temporary file   a failure, or an end between 4 and 5: the new content stands
//                                  whole in "_temp_.ini", and the path is absent
//
// What is copied is copied byte for byte, carriage returns and zeros too. A last line without a
// newline is copied as well, and given one.
//
// Owns: the lock on the temporary file while a rewrite runs.
//
// Locks: the temporary file's, then those of the managed files. Fatal: no memory, a lock that is
// not free in time; the temporary file stays then, the old one is untouched. Nothing is logged but
// by the managed files.
#include "rm/file/file.h"
#include "rm/rmutil/rmutil.h"
#include "rm/txtutil/txtutil.h"
#include "rm/unix/unix.h"

#include <cstring>

using namespace rmutil;

namespace
{
constexpr char kTempName[] = "_temp_.ini";
constexpr const char* kEnvironment = "ENVIRONMENT";
constexpr int kLooks = 5;  // for a file that is missing while nobody rewrites it

// What is to be changed: an entry set when `value` is given, an entry deleted when only `key` is,
// else the section.
struct Change {
    const char* section;
    const char* key;
    const char* value;
};

// The copy as far as it has come.
struct Copy {
    const Change* change;
    FileStream* out;
    bool inSection;  // since its header
    bool done;       // all that follows is copied
};

int32_t rewriteLock = RM_NONE;  // what lockFile gave; RM_NONE outside a rewrite

void put(FileStream* out, std::string_view line)
{
    putLine(out, {&line, 1});
}

void addEntry(const Copy& copy, const char* section)
{
    AddLine(copy.out, section, copy.change->key, copy.change->value);
}

// Lines before the section. Its header goes with it when it is deleted.
void copyOutside(Copy* copy, std::string_view line)
{
    copy->inSection = isHeaderOf(line, copy->change->section);
    if (!copy->inSection || copy->change->key != nullptr) {
        put(copy->out, line);
    }
}

bool isEntryOf(std::string_view line, const char* key)
{
    const std::size_t equals = line.find(kIniEquals);
    return equals != std::string_view::npos && !line.starts_with(kIniComment) &&
           equalsFolded({line.data(), equals}, key);
}

// Lines of the section, when an entry is set or deleted.
void copyInside(Copy* copy, std::string_view line)
{
    const bool setting = copy->change->value != nullptr;
    if (setting && !line.empty() && txtutil::isSpace(line.front())) {
        addEntry(*copy, nullptr);
        put(copy->out, line);
        copy->done = true;
    } else if (line.starts_with(kIniSection)) {
        // Deliberate: a new entry is not written before the next section. Files in which sections
        // are not separated by a line that begins with white space are left as they are.
        put(copy->out, line);
        copy->done = true;
    } else if (!isEntryOf(line, copy->change->key)) {
        put(copy->out, line);
    } else if (setting) {
        addEntry(*copy, nullptr);
        copy->done = true;
    }
}

void copyLine(Copy* copy, std::string_view line)
{
    if (copy->done) {
        put(copy->out, line);
    } else if (!copy->inSection) {
        copyOutside(copy, line);
    } else if (copy->change->key != nullptr) {
        copyInside(copy, line);
    } else if (line.starts_with(kIniSection)) {
        put(copy->out, line);
        copy->done = true;
    }
}

// True when all of `in` has been read, and the copy is as it has to be.
bool copyWith(const Change& change, FileStream* in, FileStream* out)
{
    Copy copy = {&change, out, false, false};
    LineContext lines = linesOf(in);
    std::string_view line;
    while (!out->failed && nextWhole(&lines, &line)) {
        copyLine(&copy, line);
    }
    rm_freeMemory(lines.buffer, 0);
    if (!copy.done && change.key != nullptr && change.value != nullptr) {
        addEntry(copy, copy.inSection ? nullptr : change.section);
    }
    return flushStream(out) && !in->failed;
}

// The temporary file is still the one that is locked: nobody has cleaned up without asking.
bool ownsCopy(const char* tempPath)
{
    return os::leadsTo(tempPath, rewriteLock);
}

void removeCopy(const char* tempPath)
{
    if (ownsCopy(tempPath)) {
        rm_fileRemove(tempPath);
    }
}

// Null when the copy is another's by now, or cannot be opened.
FileStream* openCopy(const char* tempPath)
{
    if (!ownsCopy(tempPath)) {
        return nullptr;
    }
    os::keepToOwner(rewriteLock);
    // One that is empty already is not emptied again: file systems take that for the beginning of
    // a replacement, and write all of it to the disk when it is closed.
    return openOwnStream(kIniCopy, tempPath, os::isEmptyFile(rewriteLock) ? "r+" : "w");
}

// The copy takes the place of the file. Not when it has gone: the old file is all there is then.
bool replace(const char* path, const char* directory, const char* tempPath)
{
    os::bringDirectoryToDisk(directory);
    if (!ownsCopy(tempPath) || rm_fileRemove(path) != RM_SUCCESS ||
        rm_fileRename(tempPath, path) != RM_SUCCESS) {
        return false;
    }
    os::bringDirectoryToDisk(directory);
    return true;
}

int16_t rewrite(const Change& change, const char* path, const char* directory, const char* tempPath)
{
    if (!os::isPlainFile(path) || os::leadsTo(path, rewriteLock)) {
        return RM_CANNOT_OPEN;
    }
    FileStream* in = openOwnStream(kIniRead, path, "r");
    FileStream* out = in != nullptr ? openCopy(tempPath) : nullptr;
    if (out == nullptr) {
        closeOwn(kIniRead);
        return RM_CANNOT_OPEN;
    }
    const bool complete = copyWith(change, in, out);
    closeOwn(kIniRead);
    closeOwn(kIniCopy);
    // Through the lock's descriptor: with the permissions of the old file a copy that was parked
    // could not be opened again, and what takes the place of that file is what is locked.
    os::copyPermissions(path, rewriteLock);
    if (!complete || os::bringToDisk(rewriteLock) != RM_SUCCESS) {
        removeCopy(tempPath);
        return RM_RENAME_FAILED;
    }
    return replace(path, directory, tempPath) ? int16_t{RM_SUCCESS} : int16_t{RM_RENAME_FAILED};
}

// Bytes of the path up to and including its last slash.
std::size_t directoryLength(const char* path)
{
    const char* slash = std::strrchr(path, '/');
    return slash != nullptr ? static_cast<std::size_t>(slash - path) + 1 : 0;
}

// The directory of `path` followed by `name`, under tag 0.
char* besides(const char* path, const char* name)
{
    const std::size_t length = directoryLength(path);
    auto* result =
        static_cast<char*>(rm_getMemory(static_cast<uint32_t>(length + std::strlen(name) + 1), 0));
    std::memcpy(result, path, length);
    std::strcpy(result + length, name);
    return result;
}

bool exists(const char* path)
{
    return rm_fileValidate(path) == RM_SUCCESS;
}

int16_t rewriteLocked(const Change& change, const char* path, const char* directory,
                      const char* tempPath)
{
    bool made = false;
    rewriteLock = os::lockFile(tempPath, file::kLockTimeoutMs, &made);
    if (rewriteLock < 0) {
        rewriteLock = RM_NONE;
        return RM_CANNOT_OPEN;
    }
    const int16_t result = rewrite(change, path, directory, tempPath);
    // Only the file that the lock has made, and that nobody has written in between: any other may
    // be all that is left of a file.
    if (result == RM_CANNOT_OPEN && made && os::isEmptyFile(rewriteLock)) {
        removeCopy(tempPath);
    }
    abandonRewrite();
    return result;
}
}  // namespace

int16_t rmutil::AddLine(FileStream* stream, const char* section, const char* key, const char* value)
{
    if (key == nullptr || value == nullptr) {
        return RM_MISSING_ARGUMENT;
    }
    if (section != nullptr) {
        const std::string_view header[] = {"[", section, "]"};
        putLine(stream, {});
        putLine(stream, header);
    }
    const std::string_view entry[] = {key, "=", value};
    putLine(stream, entry);
    return RM_SUCCESS;
}

bool rmutil::isThere(const char* path)
{
    if (exists(path)) {
        return true;
    }
    // Between two looks at the path and at the copy a rewrite may end and the next one remove the
    // file again; that this happens several times in a row is not believed.
    char* tempPath = besides(path, kTempName);
    const int64_t deadline = os::nowMs() + file::kLockTimeoutMs;
    bool there = false;
    for (int looks = kLooks; !there && looks > 0 && os::nowMs() < deadline; there = exists(path)) {
        if (os::isLocked(tempPath)) {
            os::waitABit();
        } else {
            --looks;
        }
    }
    rm_freeMemory(tempPath, 0);
    return there;
}

void rmutil::abandonRewrite()
{
    os::unlockFile(rewriteLock);
    rewriteLock = RM_NONE;
}

int16_t rm_iniSetPrivate(const char* section, const char* key, const char* value, const char* path)
{
    if (section == nullptr || path == nullptr) {
        return RM_MISSING_ARGUMENT;
    }
    closeStaleInis();
    if (!isThere(path)) {
        return RM_CANNOT_OPEN;  // what stands in the temporary file may be all that is left of it
    }
    char* directory = besides(path, ".");
    char* tempPath = besides(path, kTempName);
    const Change change = {section, key, value};
    const int16_t result = rewriteLocked(change, path, directory, tempPath);
    rm_freeMemory(tempPath, 0);
    rm_freeMemory(directory, 0);
    return result;
}

int16_t rm_iniSet(const char* section, const char* key, const char* value)
{
    if (section == nullptr) {
        return RM_MISSING_ARGUMENT;
    }
    char* path = defaultIniPath();
    if (path == nullptr) {
        return RM_OUT_OF_MEMORY;
    }
    const int16_t result = rm_iniSetPrivate(section, key, value, path);
    rm_freeMemory(path, 0);
    if (result == RM_SUCCESS && key != nullptr && value != nullptr &&
        stricmp(section, kEnvironment) == 0) {
        const char* entry[] = {key, "=", value};
        char* text = StrArrayCat(entry, 3, 0);
        rm_putLocalEnv(text);
        rm_freeMemory(text, 0);
    }
    return result;
}
