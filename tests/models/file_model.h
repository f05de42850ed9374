// An independent model of the managed files, for comparison with random runs: what a handle reads
// and writes, where it stands, which files are parked, and what is logged.
//
// It is written from the behaviour, not from the library: files are strings, a descriptor is a
// string and an offset, the table is a vector that is searched from its start. It has no locks, no
// faults and no log file, and it must not be asked for what is fatal.
#ifndef RM_TESTS_MODELS_FILE_MODEL_H
#define RM_TESTS_MODELS_FILE_MODEL_H

#include "rm.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace rmtest
{

class FileModel
{
  public:
    static constexpr uint32_t kNoOffset = 0xFFFFFFFFU;

    enum State { kFree, kOpen, kParked };

    // A file's contents. It outlives its name as long as a descriptor is open.
    using Contents = std::shared_ptr<std::string>;

    struct Slot {
        State state = kFree;
        std::string path;
        Contents file;    // open only
        uint64_t at = 0;  // open only: where the descriptor stands
        uint32_t position = 0;
        uint32_t initialSize = 0;
        uint32_t increment = 0;
        uint32_t known = 0;
        uint32_t flags = 0;
        uint16_t mode = 0;
        bool used = false;
    };

    // --- Settings

    int limit = 32;
    bool diskFull = true;

    // --- State to compare with

    const std::vector<Slot>& slots() const { return slots_; }

    int handles() const { return count(kOpen) + count(kParked); }

    int open() const { return count(kOpen); }

    int hand() const { return hand_; }

    uint32_t parkings() const { return parkings_; }

    uint32_t reopens() const { return reopens_; }

    int32_t operations() const { return operations_; }

    const std::map<std::string, Contents>& files() const { return files_; }

    // The lines that were logged since the last time.
    std::vector<std::string> takeLines() { return std::exchange(lines_, {}); }

    bool valid(int handle) const
    {
        return handle >= 0 && handle < static_cast<int>(slots_.size()) &&
               slot(handle).state != kFree;
    }

    const Slot& slot(int handle) const { return slots_[static_cast<std::size_t>(handle)]; }

    // --- Operations, with the results of the interface

    int fileOpen(const std::string& path, uint32_t flags, uint16_t mode, uint32_t initialSize,
                 uint32_t increment)
    {
        if (slots_.empty()) {
            slots_.resize(kStep);
        }
        makeRoom();
        const int handle = lowestFree();
        slots_[static_cast<std::size_t>(handle)] = {
            kParked, path, nullptr, 0, 0, initialSize, increment, 0, flags, mode, true};
        if (!bringBack(handle)) {
            return -1;
        }
        at(handle).flags &= ~(RM_O_TRUNC | RM_O_EXCL);
        return handle;
    }

    void fileClose(int handle)
    {
        if (!valid(handle)) {
            lines_.push_back("rm_fileClose: invalid handle " + std::to_string(handle));
            return;
        }
        drop(handle);
    }

    uint32_t fileSeek(int handle, uint32_t offset)
    {
        if (!begin("rm_fileSeek", handle)) {
            return kNoOffset;
        }
        at(handle).at = offset;
        at(handle).position = offset;
        return offset;
    }

    uint32_t filePrint(int handle, std::string_view text)
    {
        if (!begin("rm_filePrintf", handle)) {
            return 0;
        }
        put(at(handle), text);
        at(handle).position += static_cast<uint16_t>(text.size());
        return static_cast<uint16_t>(text.size());
    }

    uint32_t fileWrite(int handle, std::string_view bytes)
    {
        if (bytes.empty()) {
            return 0;
        }
        const std::string path = pathOf(handle);
        const std::string failure = ": unable to write, file=" + path;
        if (!begin("rm_fileWrite", handle)) {
            if (!path.empty()) {
                lines_.push_back("rm_fileWrite: errno=9" + failure);
            }
            return 0;
        }
        ++operations_;
        Slot& file = at(handle);
        file.at = file.position;
        if (!mayWrite(file)) {
            lines_.push_back("rm_fileWrite: errno=9" + failure);
            return 0;
        }
        put(file, bytes);
        file.position += static_cast<uint32_t>(bytes.size());
        return static_cast<uint32_t>(bytes.size());
    }

    uint32_t fileSeekWrite(int handle, uint32_t offset, std::string_view bytes)
    {
        if (bytes.empty()) {
            return 0;
        }
        const auto length = static_cast<uint32_t>(bytes.size());
        const std::string path = pathOf(handle);
        const auto fail = [&] {
            lines_.push_back("rm_fileSeekWrite: unable to write " + path);
            lines_.push_back("    seek address=" + std::to_string(offset) +
                             ", bytes=" + std::to_string(length) + ", errno=9");
        };
        if (!begin("rm_fileSeekWrite", handle)) {
            if (!path.empty()) {
                fail();
            }
            return 0;
        }
        ++operations_;
        Slot& file = at(handle);
        const uint32_t end = offset + length;
        if (file.known < end) {
            grow(file, file.increment == 0 ? end : (end / file.increment + 1) * file.increment);
        }
        if (offset != kNoOffset) {
            file.at = offset;
            file.position = offset;
        }
        if (!mayWrite(file)) {
            fail();
            return 0;
        }
        put(file, bytes);
        file.position += length;
        return length;
    }

    std::string fileRead(int handle, uint32_t length)
    {
        if (length == 0) {
            return "";
        }
        const std::string path = pathOf(handle);
        if (!begin("rm_fileRead", handle)) {
            if (!path.empty()) {
                lines_.push_back("rm_fileRead: errno=9: unable to read, file=" + path);
            }
            return "";
        }
        ++operations_;
        Slot& file = at(handle);
        file.at = file.position;
        if (!mayRead(file)) {
            lines_.push_back("rm_fileRead: errno=9: unable to read, file=" + path);
            return "";
        }
        return get(file, length);
    }

    std::string fileSeekRead(int handle, uint32_t offset, uint32_t length)
    {
        if (length == 0) {
            return "";
        }
        const std::string path = pathOf(handle);
        const auto fail = [&] {
            lines_.push_back("rm_fileSeekRead: unable to read " + path);
            lines_.push_back("    seek address=" + std::to_string(offset) + ", bytes=0, errno=9");
        };
        if (!begin("rm_fileSeekRead", handle)) {
            if (!path.empty()) {
                fail();
            }
            return "";
        }
        ++operations_;
        Slot& file = at(handle);
        if (offset != kNoOffset) {
            file.at = offset;
            file.position = offset;
        }
        if (!mayRead(file)) {
            fail();
            return "";
        }
        return get(file, length);
    }

    uint32_t fileLength(int handle)
    {
        if (!begin("rm_fileLength", handle)) {
            return 0;
        }
        return static_cast<uint32_t>(at(handle).file->size());
    }

    uint32_t filePosition(int handle)
    {
        if (!valid(handle)) {
            lines_.push_back("rm_filePosition: invalid handle " + std::to_string(handle));
            return 0;
        }
        at(handle).used = true;
        return at(handle).position;
    }

    void fileSync(int handle)
    {
        if (!valid(handle)) {
            lines_.push_back("rm_fileSync: invalid handle " + std::to_string(handle));
        } else if (at(handle).state == kOpen) {
            at(handle).used = true;
        }
    }

    int fileRemove(const std::string& path)
    {
        const bool held = std::any_of(slots_.begin(), slots_.end(), [&](const Slot& file) {
            return file.state != kFree && file.path == path;
        });
        return !held && files_.erase(path) == 1 ? 0 : -1;
    }

    int fileRename(const std::string& from, const std::string& to)
    {
        const auto found = files_.find(from);
        if (found == files_.end()) {
            return -1;
        }
        const Contents file = found->second;
        files_.erase(found);
        files_[to] = file;
        return 0;
    }

  private:
    static constexpr std::size_t kStep = 32;

    Slot& at(int handle) { return slots_[static_cast<std::size_t>(handle)]; }

    int count(State state) const
    {
        return static_cast<int>(std::count_if(
            slots_.begin(), slots_.end(), [&](const Slot& file) { return file.state == state; }));
    }

    int lowestFree()
    {
        for (std::size_t i = 0; i < slots_.size(); ++i) {
            if (slots_[i].state == kFree) {
                return static_cast<int>(i);
            }
        }
        slots_.resize(slots_.size() + kStep);
        return static_cast<int>(slots_.size() - kStep);
    }

    std::string pathOf(int handle) const { return valid(handle) ? slot(handle).path : ""; }

    static bool mayWrite(const Slot& file) { return (file.flags & 3U) != RM_O_RDONLY; }

    static bool mayRead(const Slot& file) { return (file.flags & 3U) != RM_O_WRONLY; }

    void put(Slot& file, std::string_view bytes)
    {
        if (bytes.empty()) {
            return;  // nothing is written, so no file grows
        }
        if ((file.flags & RM_O_APPEND) != 0) {
            file.at = file.file->size();
        }
        const auto from = static_cast<std::size_t>(file.at);
        const std::size_t end = from + bytes.size();
        if (file.file->size() < end) {
            file.file->resize(end, '\0');
        }
        file.file->replace(from, bytes.size(), bytes);
        file.at = end;
    }

    static std::string get(Slot& file, uint32_t length)
    {
        if (file.at >= file.file->size()) {
            return "";
        }
        std::string bytes = file.file->substr(static_cast<std::size_t>(file.at), length);
        file.at += bytes.size();
        file.position += static_cast<uint32_t>(bytes.size());
        return bytes;
    }

    void grow(Slot& file, uint32_t size)
    {
        if (!diskFull) {
            if (file.file->size() < size) {
                file.file->resize(size, '\0');
            }
            file.at = 0;
        }
        file.known = size;
    }

    // What every operation begins with. False when there is nothing to work on.
    bool begin(const char* operation, int handle)
    {
        if (!valid(handle)) {
            lines_.push_back(std::string(operation) + ": invalid handle " + std::to_string(handle));
            return false;
        }
        if (at(handle).state == kParked) {
            makeRoom();
            if (!bringBack(handle)) {
                lines_.push_back(std::string("WARNING: failed file reopen in ") + operation + "(" +
                                 std::to_string(handle) + ")");
                return false;
            }
            ++reopens_;
        }
        at(handle).used = true;
        return true;
    }

    // Opens the file of a slot. The handle is gone when that fails.
    bool bringBack(int handle)
    {
        Slot& file = at(handle);
        const auto found = files_.find(file.path);
        const bool exists = found != files_.end();
        const bool refused =
            exists ? (file.flags & RM_O_EXCL) != 0 : (file.flags & RM_O_CREAT) == 0;
        if (refused) {
            drop(handle);
            return false;
        }
        if (!exists) {
            files_[file.path] = std::make_shared<std::string>();
        }
        file.file = files_[file.path];
        if ((file.flags & RM_O_TRUNC) != 0) {
            file.file->clear();
        }
        if ((file.mode & FILE_STREAM) != 0 && !mayWrite(file)) {
            drop(handle);
            return false;
        }
        file.at = 0;
        if (mayWrite(file)) {
            file.known = static_cast<uint32_t>(file.file->size());
            if (file.known < file.initialSize && (file.mode & FILE_NOPRESIZE) == 0) {
                grow(file, file.initialSize);
            }
        }
        file.at = file.position;
        file.state = kOpen;
        return true;
    }

    void drop(int handle)
    {
        at(handle) = Slot();
        if (handles() == 0) {
            slots_.clear();
            hand_ = 0;
        }
    }

    void makeRoom()
    {
        if (limit == -1 || open() < limit) {
            return;
        }
        for (std::size_t looks = 2 * slots_.size(); looks > 0; --looks) {
            Slot& file = at(hand_);
            hand_ = (hand_ + 1) % static_cast<int>(slots_.size());
            if (file.state == kOpen && !file.used && (file.mode & FILE_PINNED) == 0) {
                if ((file.mode & FILE_STREAM) != 0) {
                    file.position = static_cast<uint32_t>(file.file->size());
                }
                file.state = kParked;
                file.file = nullptr;
                ++parkings_;
                return;
            }
            file.used = false;
        }
    }

    std::map<std::string, Contents> files_;
    std::vector<Slot> slots_;
    std::vector<std::string> lines_;
    int hand_ = 0;
    uint32_t parkings_ = 0;
    uint32_t reopens_ = 0;
    int32_t operations_ = 0;
};

}  // namespace rmtest

#endif
