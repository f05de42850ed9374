// INI files of 1,000 sections and 10,000 keys: the last value read, against a library that loads
// the whole file and against the calls that the blocks need; a value set, against the calls of the
// copy. Nothing is brought to the disk: its time would hide everything else.
#include "bare.h"
#include "pairs.h"

#include "rm.h"

#include <array>
#include <string>

#include <fcntl.h>
#include <glib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
using rmbench::BareLock;
using rmbench::must;
using rmbench::Scratch;

constexpr int kSections = 1000;
constexpr int kKeys = 10;  // of each section
constexpr std::size_t kBlock = 512;
constexpr int16_t kValueSize = 64;
constexpr const char* kLastSection = "section-999";
constexpr const char* kLastKey = "setting-9";

std::string text()
{
    std::string all;
    for (int section = 0; section < kSections; ++section) {
        all += "[section-" + std::to_string(section) + "]\n";
        for (int key = 0; key < kKeys; ++key) {
            all += "setting-" + std::to_string(key) + "=" + std::to_string(section * key) + "\n";
        }
        all += "\n";
    }
    return all;
}

void getOurs(benchmark::State& state)
{
    Scratch scratch;
    const std::string path = scratch.make("settings.ini", text());
    char value[kValueSize];
    for (auto _ : state) {
        must(rm_iniGetPrivate(kLastSection, kLastKey, value, kValueSize, 1, path.c_str()) == 0,
             "rm_iniGetPrivate");
    }
    rm_syncTerminate();
}

void getKeyFile(benchmark::State& state)
{
    Scratch scratch;
    const std::string path = scratch.make("settings.ini", text());
    for (auto _ : state) {
        GKeyFile* file = g_key_file_new();
        must(g_key_file_load_from_file(file, path.c_str(), G_KEY_FILE_NONE, nullptr) != FALSE,
             "g_key_file_load_from_file");
        gchar* value = g_key_file_get_value(file, kLastSection, kLastKey, nullptr);
        must(value != nullptr, "g_key_file_get_value");
        g_free(value);
        g_key_file_free(file);
    }
}

// A managed file made bare: its descriptor and its position, each call under the lock.
struct BareFile {
    int fd;
    off_t position;
};

BareFile openBare(const BareLock& lock, const char* path, int flags)
{
    lock.enter();
    const int fd = open(path, flags, 0600);
    must(fd != -1, path);
    if ((flags & O_ACCMODE) != O_RDONLY) {
        lseek(fd, 0, SEEK_CUR);  // the size: where it stands, the end, and back
        lseek(fd, 0, SEEK_END);
        lseek(fd, 0, SEEK_SET);
    }
    lseek(fd, 0, SEEK_SET);
    lock.leave();
    return {fd, 0};
}

template <typename Transfer, typename Block>
ssize_t transferBare(const BareLock& lock, BareFile* file, Transfer transfer, Block block,
                     std::size_t length)
{
    lock.enter();
    lock.leave();
    lseek(file->fd, file->position, SEEK_SET);
    const ssize_t count = transfer(file->fd, block, length);
    file->position += count;
    return count;
}

void closeBare(const BareLock& lock, const BareFile& file)
{
    lock.enter();
    close(file.fd);
    lock.leave();
}

void getBare(benchmark::State& state)
{
    Scratch scratch;
    const std::string path = scratch.make("settings.ini", text());
    const BareLock lock;
    std::array<char, kBlock> block;
    for (auto _ : state) {
        BareFile file = openBare(lock, path.c_str(), O_RDONLY);
        // The last entry stands in the last block: the end of the file is not met.
        while (transferBare(lock, &file, read, block.data(), kBlock) ==
               static_cast<ssize_t>(kBlock)) {
            benchmark::DoNotOptimize(block);
        }
        closeBare(lock, file);
    }
}

void setOurs(benchmark::State& state)
{
    Scratch scratch;
    const std::string path = scratch.make("settings.ini", text());
    fileCommit = 0;
    int number = 0;
    for (auto _ : state) {
        const std::string value = std::to_string(1000 + ++number % 1000);
        must(rm_iniSetPrivate(kLastSection, kLastKey, value.c_str(), path.c_str()) == 0,
             "rm_iniSetPrivate");
    }
    rm_syncTerminate();
}

void setBare(benchmark::State& state)
{
    Scratch scratch;
    const std::string path = scratch.make("settings.ini", text());
    const std::string copy = path + ".copy";
    const std::string directory = path.substr(0, path.rfind('/'));
    const BareLock lock;
    std::array<char, kBlock> block;
    for (auto _ : state) {
        const int held = open(directory.c_str(), O_RDONLY | O_DIRECTORY);
        flock(held, LOCK_EX | LOCK_NB);
        BareFile in = openBare(lock, path.c_str(), O_RDONLY);
        BareFile out = openBare(lock, copy.c_str(), O_WRONLY | O_CREAT | O_TRUNC);
        ssize_t count = 0;
        while ((count = transferBare(lock, &in, read, block.data(), kBlock)) > 0) {
            transferBare(lock, &out, write, block.data(), static_cast<std::size_t>(count));
        }
        closeBare(lock, in);
        closeBare(lock, out);
        struct stat status = {};
        must(stat(path.c_str(), &status) == 0, "stat");
        must(chmod(copy.c_str(), status.st_mode & 07777) == 0, "chmod");
        unlink(path.c_str());
        must(rename(copy.c_str(), path.c_str()) == 0, "rename");
        close(held);
    }
}
}  // namespace

void rmbench::addIniPairs()
{
    constexpr double kFaster = 1.0;
    constexpr double kGetLimit = 1.3;
    constexpr double kSetLimit = 1.5;
    addPair("ini: last of 10,000 values", "GKeyFile load, look up", kFaster, getOurs, getKeyFile);
    addPair("ini: last of 10,000 values, bare", "lock, lseek, read, ...", kGetLimit, getOurs,
            getBare);
    addPair("ini: set the last of 10,000", "lock, read, write, ...", kSetLimit, setOurs, setBare);
}
