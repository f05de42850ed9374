// Remove, rename and temporary names: operations on paths, next to those on handles.
//
// Why: removing a file that a handle still holds would succeed on this system, and the handle
// would find another file, or none, when it is opened again after parking. So it is refused.
#include "rm/file/file.h"

#include <cstring>

using namespace file;

int16_t rm_fileRemove(const char* path)
{
    for (int16_t slot = 0; slot < ftabSize; ++slot) {
        const FileEntry* entry = usedEntry(slot);
        if (entry != nullptr && std::strcmp(entry->name, path) == 0) {
            return -1;  // byte for byte: another spelling of the path is not recognised
        }
    }
    return rm_flRemove(path);
}

int16_t rm_fileRename(const char* oldPath, const char* newPath)
{
    return rm_flRename(oldPath, newPath);
}

char* rm_fileTempName(const char* /*path*/)
{
    // Deliberate: the directory of the path has no influence on this system; all temporary files
    // stand in the system's own place for them.
    return rm_flTempName();
}
