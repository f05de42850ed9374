// The handle table: how it comes and goes, what opening writes into a slot, and closing.
#include "tests/file/file_case.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>

using namespace filetest;

namespace
{

class FileTable : public FileTest
{
};

class FileOpen : public FileTest
{
};

class FileClose : public FileTest
{
};

class FileHandleLimit : public FileTest
{
};

class FileCounts : public FileTest
{
};

// --- The table comes and goes

TEST(FileVariables, HaveTheirInitialValues)
{
    EXPECT_EQ(fileHandleLimit, 32);
    EXPECT_EQ(fileSem, -1);
    EXPECT_EQ(growSem, -1);
    EXPECT_EQ(file::fileOps, 0);
    EXPECT_EQ(rmDiskFull, 1);
    EXPECT_EQ(rminfree, 0.0);
    EXPECT_EQ(fileCommit, -1);
    EXPECT_EQ(sysfile, -1);
}

TEST_F(FileTable, DoesNotExistBeforeTheFirstOpen)
{
    EXPECT_EQ(file::ftab, nullptr);
    EXPECT_EQ(file::ftabSize, 0);
    EXPECT_EQ(file::nHandles, 0);
    EXPECT_EQ(file::nFilesOpen, 0);
    EXPECT_EQ(file::lruNext, 0);
    EXPECT_EQ(file::fileTag, 0);
}

TEST_F(FileTable, IsBuiltWith32SlotsByTheFirstOpen)
{
    EXPECT_EQ(openNew("f"), 0);
    EXPECT_NE(file::ftab, nullptr);
    EXPECT_EQ(file::ftabSize, 32);
    EXPECT_EQ(file::nHandles, 1);
    EXPECT_EQ(file::nFilesOpen, 1);
}

TEST_F(FileTable, HasAFreeEntryInEveryOtherSlot)
{
    openNew("f");
    for (int16_t slot = 1; slot < 32; ++slot) {
        ASSERT_NE(entryOf(slot), nullptr);
        EXPECT_EQ(entryOf(slot)->state, file::kSlotFree);
        EXPECT_EQ(entryOf(slot)->name, nullptr);
    }
}

TEST_F(FileTable, BelongsToATagNamedFileTag)
{
    openNew("f");
    ASSERT_GT(file::fileTag, 0);
    EXPECT_STREQ(rmalloc::tagTable[file::fileTag].name, "fileTag");
}

TEST_F(FileTable, TakesItsMemoryInSegmentsOf4096Bytes)
{
    openNew("f");
    EXPECT_EQ(rmalloc::tagTable[file::fileTag].segmentSize, 4096U);
}

TEST_F(FileTable, OwnsEntriesAndNamesUnderItsTag)
{
    openNew("f");
    const auto ownedByFileTag = [](void* block) {
        return rmalloc::findInTag(file::fileTag, rmalloc::headerOf(block)) != nullptr;
    };
    EXPECT_TRUE(ownedByFileTag(file::ftab));
    EXPECT_TRUE(ownedByFileTag(entryOf(0)));
    EXPECT_TRUE(ownedByFileTag(entryOf(0)->name));
}

TEST_F(FileTable, GrowsTo64SlotsWithThe33rdHandle)
{
    fileHandleLimit = -1;
    openMany(32);
    EXPECT_EQ(file::ftabSize, 32);
    EXPECT_EQ(openNew("f32"), 32);
    EXPECT_EQ(file::ftabSize, 64);
}

TEST_F(FileTable, KeepsHandlesAndTheirFilesWhenItGrows)
{
    fileHandleLimit = -1;
    openMany(32);
    std::vector<file::FileEntry*> before(file::ftab, file::ftab + 32);
    openNew("f32");
    EXPECT_THAT(std::vector<file::FileEntry*>(file::ftab, file::ftab + 32),
                ::testing::ContainerEq(before));
    for (int16_t handle = 0; handle <= 32; ++handle) {
        EXPECT_EQ(entryOf(handle)->name, "f" + std::to_string(handle));
    }
}

TEST_F(FileTable, GrowsWithFreeSlots)
{
    fileHandleLimit = -1;
    openMany(33);
    for (int16_t slot = 33; slot < 64; ++slot) {
        EXPECT_EQ(entryOf(slot)->state, file::kSlotFree);
        EXPECT_EQ(entryOf(slot)->name, nullptr);
    }
}

TEST_F(FileTable, GrowsAgainTo96Slots)
{
    fileHandleLimit = -1;
    openMany(65);
    EXPECT_EQ(file::ftabSize, 96);
    EXPECT_EQ(file::nHandles, 65);
}

TEST_F(FileTable, FreesItsOldArrayWhenItGrows)
{
    fileHandleLimit = -1;
    openMany(32);
    const uint32_t before = rmalloc::tagTable[file::fileTag].allocated;
    openNew("f32");
    const auto pointers = static_cast<uint32_t>(sizeof(file::FileEntry*));
    const uint32_t entries = 32 * rmalloc::unitsFor(sizeof(file::FileEntry));
    const uint32_t arrays = rmalloc::unitsFor(64 * pointers) - rmalloc::unitsFor(32 * pointers);
    const uint32_t name = rmalloc::unitsFor(sizeof("f32"));
    EXPECT_EQ(rmalloc::tagTable[file::fileTag].allocated - before,
              (entries + arrays + name) * rmalloc::kUnit);
}

TEST_F(FileTable, GivesTheLowestFreeSlotToTheNextFile)
{
    openMany(5);
    rm_fileClose(3);
    rm_fileClose(1);
    EXPECT_EQ(openNew("a"), 1);
    EXPECT_EQ(openNew("b"), 3);
    EXPECT_EQ(openNew("c"), 5);
}

TEST_F(FileTable, UsesTheEntryOfAFreeSlotAgain)
{
    openMany(2);
    const file::FileEntry* entry = entryOf(0);
    rm_fileClose(0);
    EXPECT_EQ(entryOf(0), entry);
    EXPECT_EQ(openNew("again"), 0);
    EXPECT_EQ(entryOf(0), entry);
}

TEST_F(FileTable, StaysWhileAnyHandleExists)
{
    openMany(33);
    for (int16_t handle = 0; handle < 32; ++handle) {
        rm_fileClose(handle);
    }
    EXPECT_NE(file::ftab, nullptr);
    EXPECT_EQ(file::ftabSize, 64);
    EXPECT_EQ(file::nHandles, 1);
}

TEST_F(FileTable, GoesWithTheLastHandle)
{
    openMany(3);
    for (int16_t handle = 0; handle < 3; ++handle) {
        rm_fileClose(handle);
    }
    EXPECT_EQ(file::ftab, nullptr);
    EXPECT_EQ(file::ftabSize, 0);
    EXPECT_EQ(file::nHandles, 0);
    EXPECT_EQ(file::nFilesOpen, 0);
}

TEST_F(FileTable, ReleasesItsTagWithTheLastHandle)
{
    openNew("f");
    const int16_t tag = file::fileTag;
    rm_fileClose(0);
    EXPECT_EQ(file::fileTag, 0);
    EXPECT_EQ(rmalloc::tagTable[tag].state, rmalloc::kTagFree);
    EXPECT_EQ(rmalloc::tagTable[tag].segments, nullptr);
}

TEST_F(FileTable, GivesAllItsMemoryBackWithTheLastHandle)
{
    rm_freeMemory(rm_getMemory(8, 0), 0);
    const uint32_t before = rm_memused();
    openMany(40);
    for (int16_t handle = 0; handle < 40; ++handle) {
        rm_fileClose(handle);
    }
    EXPECT_EQ(rm_memused(), before);
}

TEST_F(FileTable, GoesAlsoWhenTheLastHandleIsParked)
{
    parkedWith("f", "text");
    rm_fileClose(0);
    EXPECT_EQ(file::ftab, nullptr);
}

TEST_F(FileTable, StartsItsSweepAt0AgainWhenItIsBuiltAnew)
{
    openMany(3);
    park(1);
    EXPECT_EQ(file::lruNext, 2);
    for (int16_t handle = 0; handle < 3; ++handle) {
        rm_fileClose(handle);
    }
    EXPECT_EQ(file::lruNext, 0);
}

TEST_F(FileTable, IsBuiltAfreshWithHandlesFrom0)
{
    openMany(40);
    for (int16_t handle = 0; handle < 40; ++handle) {
        rm_fileClose(handle);
    }
    EXPECT_EQ(openNew("again"), 0);
    EXPECT_EQ(file::ftabSize, 32);
    EXPECT_STREQ(rmalloc::tagTable[file::fileTag].name, "fileTag");
}

TEST_F(FileTable, HasNoSlotBeyondThe32767th)
{
    // 32,704 slots that all show one and the same parked entry stand in for as many files.
    openMany(32);
    constexpr int16_t kSlots = INT16_MAX - 31;
    auto** slots = static_cast<file::FileEntry**>(
        rm_getMemory(static_cast<uint32_t>(kSlots * sizeof(file::FileEntry*)), file::fileTag));
    file::FileEntry parked = *entryOf(0);
    parked.state = file::kSlotParked;
    parked.fd = -1;
    std::copy_n(file::ftab, 32, slots);
    std::fill(slots + 32, slots + kSlots, &parked);
    file::FileEntry** built = file::ftab;
    file::ftab = slots;
    file::ftabSize = kSlots;
    file::nHandles = kSlots;
    rm_freeMemory(built, file::fileTag);

    for (int handle = kSlots; handle < INT16_MAX; ++handle) {
        ASSERT_EQ(openNew("one more"), handle);
    }
    EXPECT_EQ(file::ftabSize, INT16_MAX);
    EXPECT_EQ(openNew("too many"), -1);
    EXPECT_FALSE(std::filesystem::exists("too many"));
    expectSound();
    rm_fileClose(7);
    EXPECT_EQ(openNew("one goes, one comes"), 7);
    expectSound();
    rm_freeall();  // before the stand-in goes out of scope
}

TEST_F(FileTable, IsForgottenWhenItsTagIsReleasedByTheHost)
{
    openMany(3);
    park(1);
    const std::size_t descriptors = rmtest::openDescriptors().size();
    rm_freeTagMemory(file::fileTag, 1);
    EXPECT_EQ(file::ftab, nullptr);
    EXPECT_EQ(file::fileTag, 0);
    EXPECT_EQ(rmtest::openDescriptors().size(), descriptors - 2);
    expectSound();
    EXPECT_EQ(openNew("again"), 0);
}

TEST_F(FileTable, IsForgottenWithTheLogFileWhenAllMemoryIsReleased)
{
    openLog("log");
    openMany(2);
    rm_freeall();
    EXPECT_EQ(file::ftab, nullptr);
    EXPECT_EQ(file::nHandles, 0);
    EXPECT_EQ(file::nFilesOpen, 0);
    EXPECT_EQ(sysfile, -1);
    expectSound();
    EXPECT_EQ(openNew("again"), 0);
    EXPECT_EQ(write(0, "works"), 5U);
}

TEST_F(FileTable, CleanedUpBeforeThereIsOneStaysAway)
{
    file::cleanupFtab();
    EXPECT_EQ(file::ftab, nullptr);
    EXPECT_EQ(file::fileTag, 0);
}

// --- The checker

TEST_F(FileTable, CheckerSaysNothingAboutASoundTable)
{
    EXPECT_EQ(file::checkFtab(), 0U);
    openMany(3);
    park(1);
    rm_fileClose(2);
    EXPECT_THAT(linesOf([] { EXPECT_EQ(file::checkFtab(), 0U); }), IsEmpty());
}

TEST_F(FileTable, CheckerCountsWrongNumbers)
{
    openMany(2);
    for (int16_t* number : {&file::nHandles, &file::nFilesOpen}) {
        ++*number;
        linesOf([] { EXPECT_EQ(file::checkFtab(), 1U); });
        --*number;
    }
    file::lruNext = 32;
    EXPECT_THAT(linesOf([] { EXPECT_EQ(file::checkFtab(), 1U); }),
                ElementsAre("WARNING: file table: 32 slots, 2 handles for 2, 2 open for 2"));
    file::lruNext = 0;
    file::FileEntry** table = std::exchange(file::ftab, nullptr);
    const int16_t size = std::exchange(file::ftabSize, int16_t{0});
    linesOf([] { EXPECT_EQ(file::checkFtab(), 1U); });
    file::ftab = table;
    linesOf([] { EXPECT_EQ(file::checkFtab(), 1U); });
    file::ftabSize = size;
}

TEST_F(FileTable, CheckerCountsSlotsThatContradictThemselves)
{
    openMany(2, FILE_STREAM);
    park(1);
    const file::FileEntry open = *entryOf(0);
    const file::FileEntry parked = *entryOf(1);
    const file::FileEntry none = *entryOf(2);
    const auto check = [](int16_t slot, const file::FileEntry& wrong,
                          const file::FileEntry& right) {
        *entryOf(slot) = wrong;
        linesOf([] { EXPECT_GE(file::checkFtab(), 1U); });
        *entryOf(slot) = right;
        EXPECT_EQ(file::checkFtab(), 0U);
    };
    file::FileEntry wrong = parked;
    wrong.state = 3;
    check(1, wrong, parked);
    wrong = parked;
    wrong.name = nullptr;
    check(1, wrong, parked);
    wrong = parked;
    wrong.fd = 0;
    check(1, wrong, parked);
    wrong = parked;
    wrong.stream = stdout;
    check(1, wrong, parked);
    wrong = open;
    wrong.fd = -1;
    check(0, wrong, open);
    wrong = none;
    wrong.name = open.name;
    check(2, wrong, none);
}

TEST_F(FileTable, CheckerNamesTheSlot)
{
    openMany(1);
    const int32_t fd = std::exchange(entryOf(0)->fd, -1);
    EXPECT_THAT(linesOf([] { file::checkFtab(); }),
                ElementsAre("WARNING: file table: slot 0, state 1, descriptor -1, name f0"));
    entryOf(0)->fd = fd;
}

// --- Opening

TEST_F(FileOpen, MakesFileSemOnFirstUse)
{
    openNew("f");
    EXPECT_NE(fileSem, -1);
    EXPECT_EQ(rm_syncOpen("fileSem"), fileSem);
    EXPECT_EQ(fileSemValue(), 1);
}

TEST_F(FileOpen, TakesTheFileSemThatTheHostHasMade)
{
    fileSem = rm_syncCreate("fileSem");
    openNew("f");
    openNew("g");
    EXPECT_EQ(os::nSems, 1);
    EXPECT_EQ(fileSemValue(), 1);
}

TEST_F(FileOpen, HoldsFileSemAroundAllOfItsWork)
{
    rm_fileClose(openNew("f"));
    int value = -1;
    Spy spy(Call::kOpen, [&](const CallRecord&) { value = fileSemValue(); });
    LockWatch locks;
    openNew("f");
    EXPECT_EQ(spy.seen(), 1);
    EXPECT_EQ(value, 0);
    EXPECT_THAT(locks.steps(), ElementsAre(enters(fileSem), leaves(fileSem)));
}

TEST_F(FileOpen, WaitsForFileSemFor14Seconds)
{
    fileSem = rm_syncCreate("fileSem");
    std::vector<int64_t> seconds;
    Spy spy(Call::kSemtimedop, [&](const CallRecord& call) {
        seconds.push_back(call.pointer<const timespec>(3)->tv_sec);
    });
    resetCalls();
    openNew("f");
    EXPECT_THAT(seconds, ElementsAre(14));
    const std::vector<CallRecord> alarms = callTrace({Call::kAlarm});
    ASSERT_EQ(alarms.size(), 2U);
    EXPECT_EQ(alarms[0].args[0], 14);
    EXPECT_EQ(alarms[1].args[0], 0);
}

TEST_F(FileOpen, FillsTheSlotOfTheHandle)
{
    const int16_t handle = rm_fileOpen("f", RM_O_RDWR | RM_O_CREAT, FILE_PINNED, 100, 1000);
    const file::FileEntry& entry = *entryOf(handle);
    EXPECT_STREQ(entry.name, "f");
    EXPECT_GE(entry.fd, 0);
    EXPECT_EQ(entry.stream, nullptr);
    EXPECT_EQ(entry.position, 0U);
    EXPECT_EQ(entry.initialSize, 100U);
    EXPECT_EQ(entry.growIncrement, 1000U);
    EXPECT_EQ(entry.seekSem, RM_NULL_SYNC);
    EXPECT_EQ(entry.openFlags, RM_O_RDWR | RM_O_CREAT);
    EXPECT_EQ(entry.modeFlags, FILE_PINNED);
    EXPECT_EQ(entry.state, file::kSlotOpen);
    EXPECT_EQ(entry.busyCount, 0);
    EXPECT_EQ(entry.recentlyUsed, 1);
}

TEST_F(FileOpen, LeavesNothingOfThePreviousFileInTheSlot)
{
    openMany(2);
    write(0, "moves the position");
    rm_fileClose(0);
    writeFile("g", "");
    EXPECT_EQ(rm_fileOpen("g", RM_O_RDONLY, 0, 0, 0), 0);
    const file::FileEntry& entry = *entryOf(0);
    EXPECT_EQ(entry.position, 0U);
    EXPECT_EQ(entry.knownSize, 0U);
    EXPECT_EQ(entry.openFlags, RM_O_RDONLY);
}

TEST_F(FileOpen, CopiesTheName)
{
    char name[] = "f";
    const int16_t handle = openNew(name);
    EXPECT_NE(entryOf(handle)->name, name);
    name[0] = 'g';
    EXPECT_STREQ(entryOf(handle)->name, "f");
}

TEST_F(FileOpen, KeepsModeBitsThatItDoesNotKnow)
{
    writeFile("f", "");
    const int16_t handle = rm_fileOpen("f", RM_O_RDONLY, 0xFF32, 0, 0);
    EXPECT_EQ(entryOf(handle)->modeFlags, 0xFF32);
    EXPECT_EQ(entryOf(handle)->state, file::kSlotOpen);
}

TEST_F(FileOpen, CreatesFilesForTheirOwnerOnly)
{
    const mode_t mask = umask(0);
    openNew("f");
    umask(mask);
    struct stat status = {};
    ASSERT_EQ(stat("f", &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
}

TEST_F(FileOpen, GivesADescriptorToEachHandleOfTheSamePath)
{
    const int16_t one = openWith("f", kDigits);
    const int16_t other = rm_fileOpen("f", RM_O_RDONLY, 0, 0, 0);
    EXPECT_NE(one, other);
    EXPECT_EQ(read(one, 4), "0123");
    EXPECT_EQ(read(other, 2), "01");
}

TEST_F(FileOpen, StandsAtTheStartOfTheFile)
{
    const int16_t handle = openWith("f", kDigits);
    EXPECT_EQ(rm_filePosition(handle), 0U);
    EXPECT_EQ(lseek(entryOf(handle)->fd, 0, SEEK_CUR), 0);
}

TEST_F(FileOpen, OfAMissingFileIsRefusedWithoutALine)
{
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileOpen("missing", RM_O_RDWR, 0, 0, 0), -1); }),
                IsEmpty());
}

TEST_F(FileOpen, ThatFailsLeavesNoTableBehind)
{
    EXPECT_EQ(rm_fileOpen("missing", RM_O_RDWR, 0, 0, 0), -1);
    EXPECT_EQ(file::ftab, nullptr);
    EXPECT_EQ(file::nHandles, 0);
    EXPECT_EQ(file::fileTag, 0);
}

TEST_F(FileOpen, ThatFailsLeavesNoTraceAmongOtherHandles)
{
    openMany(2);
    rm_fileClose(0);
    EXPECT_EQ(rm_fileOpen("missing", RM_O_RDWR, 0, 0, 0), -1);
    EXPECT_EQ(entryOf(0)->state, file::kSlotFree);
    EXPECT_EQ(entryOf(0)->name, nullptr);
    EXPECT_EQ(file::nHandles, 1);
    EXPECT_EQ(file::nFilesOpen, 1);
    EXPECT_EQ(openNew("next"), 0);
}

TEST_F(FileOpen, LeavesFileSemWhenItFails)
{
    EXPECT_EQ(rm_fileOpen("missing", RM_O_RDWR, 0, 0, 0), -1);
    EXPECT_EQ(fileSemValue(), 1);
}

TEST_F(FileOpen, WithoutANameIsRefused)
{
    EXPECT_EQ(rm_fileOpen(nullptr, kReadWrite, 0, 0, 0), -1);
    EXPECT_EQ(file::ftab, nullptr);
}

TEST_F(FileOpen, OfADirectoryForWritingIsRefused)
{
    EXPECT_EQ(rm_fileOpen(".", RM_O_RDWR, 0, 0, 0), -1);
}

TEST_F(FileOpen, TruncatesWhenAsked)
{
    writeFile("f", "old contents");
    const int16_t handle = rm_fileOpen("f", kReadWrite | RM_O_TRUNC, 0, 0, 0);
    EXPECT_EQ(rm_fileLength(handle), 0U);
}

TEST_F(FileOpen, ForgetsTheTruncateBitOnceItHasWorked)
{
    const int16_t handle = rm_fileOpen("f", kReadWrite | RM_O_TRUNC, 0, 0, 0);
    EXPECT_EQ(entryOf(handle)->openFlags, kReadWrite);
}

TEST_F(FileOpen, ForgetsTheExclusiveBitOnceItHasWorked)
{
    const int16_t handle = rm_fileOpen("f", kReadWrite | RM_O_EXCL, 0, 0, 0);
    EXPECT_EQ(entryOf(handle)->openFlags, kReadWrite);
}

TEST_F(FileOpen, ExclusivelyOfAFileThatExistsIsRefused)
{
    writeFile("f", "");
    EXPECT_EQ(rm_fileOpen("f", kReadWrite | RM_O_EXCL, 0, 0, 0), -1);
}

TEST_F(FileOpen, InStreamModeAttachesAStreamToTheDescriptor)
{
    const int16_t handle = openNew("f", FILE_STREAM);
    ASSERT_NE(entryOf(handle)->stream, nullptr);
    EXPECT_EQ(fileno(entryOf(handle)->stream), entryOf(handle)->fd);
}

TEST_F(FileOpen, InStreamModeKeepsTheContents)
{
    const int16_t handle = openWith("f", kDigits, FILE_STREAM);
    EXPECT_EQ(rm_fileLength(handle), 10U);
}

TEST_F(FileOpen, InStreamModeForReadingOnlyIsRefused)
{
    rm_fileClose(openWith("f", ""));
    const std::size_t before = rmtest::openDescriptors().size();
    EXPECT_EQ(rm_fileOpen("f", RM_O_RDONLY, FILE_STREAM, 0, 0), -1);
    EXPECT_EQ(rmtest::openDescriptors().size(), before);
    EXPECT_EQ(file::ftab, nullptr);
}

TEST_F(FileOpen, InFatalModeOfAMissingFileEndsWithItsLine)
{
    const FatalEnd end = fatalEnd([] { rm_fileOpen("missing", RM_O_RDWR, FILE_FATAL, 0, 0); });
    EXPECT_TRUE(end.jumped);
    EXPECT_THAT(end.lines, ElementsAre("reopenFile: errno=2: failed to open file 'missing'"));
}

TEST_F(FileOpen, InFatalModeSaysCreateWhenItShouldHaveCreated)
{
    const FatalEnd end = fatalEnd([] { rm_fileOpen("no/f", kReadWrite, FILE_FATAL, 0, 0); });
    EXPECT_TRUE(end.jumped);
    EXPECT_THAT(end.lines, ElementsAre("reopenFile: errno=2: failed to create file 'no/f'"));
}

TEST_F(FileOpen, InFatalModeWithoutATargetExitsWithStatus0)
{
    const rmtest::ChildResult child = rmtest::runChild([] {
        rm_fileOpen("missing", RM_O_RDWR, FILE_FATAL, 0, 0);
        _exit(99);
    });
    EXPECT_EQ(child.status, 0);
    const Lines lines = logLines(child.err);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front(), "reopenFile: errno=2: failed to open file 'missing'");
    EXPECT_EQ(lines.back(), "Exiting to operating system");
}

TEST_F(FileOpen, InFatalModeLeavesFileSemBeforeItsLine)
{
    rm_fileClose(openNew("f"));
    std::vector<int> values;
    Spy spy(Call::kFwrite, [&](const CallRecord&) { values.push_back(fileSemValue()); });
    fatalEnd([] { rm_fileOpen("missing", RM_O_RDWR, FILE_FATAL, 0, 0); });
    ASSERT_FALSE(values.empty());
    EXPECT_EQ(values.front(), 1);
}

TEST_F(FileOpen, InFatalModeWithAStreamThatCannotBeHadEndsWithItsLine)
{
    writeFile("f", "");
    const FatalEnd end =
        fatalEnd([] { rm_fileOpen("f", RM_O_RDONLY, FILE_FATAL | FILE_STREAM, 0, 0); });
    EXPECT_TRUE(end.jumped);
    EXPECT_THAT(end.lines, ElementsAre("reopenFile: errno=22: failed to open file 'f'"));
}

TEST_F(FileOpen, InFatalModeCutsALongPathInItsLine)
{
    const std::string path = std::string(300, 'x') + "/f";
    const FatalEnd end = fatalEnd([&] { rm_fileOpen(path.c_str(), RM_O_RDWR, FILE_FATAL, 0, 0); });
    const std::string whole = "reopenFile: errno=36: failed to open file '" + path + "'";
    EXPECT_THAT(end.lines, ElementsAre(whole.substr(0, 259)));
}

TEST_F(FileOpen, MeasuresAFileThatIsOpenForWriting)
{
    writeFile("f", kDigits);
    for (const uint32_t flags : {RM_O_WRONLY, RM_O_RDWR, RM_O_APPEND, RM_O_WRONLY | RM_O_APPEND}) {
        const int16_t handle = rm_fileOpen("f", flags, 0, 0, 0);
        EXPECT_EQ(entryOf(handle)->knownSize, 10U) << "flags " << flags;
    }
}

TEST_F(FileOpen, DoesNotMeasureAFileThatIsOnlyRead)
{
    writeFile("f", kDigits);
    const int16_t handle = rm_fileOpen("f", RM_O_RDONLY, 0, 0, 0);
    EXPECT_EQ(entryOf(handle)->knownSize, 0U);
}

TEST_F(FileOpen, ExtendsAFileToItsInitialSizeWithZeros)
{
    rmDiskFull = 0;
    writeFile("f", kDigits);
    const int16_t handle = rm_fileOpen("f", RM_O_RDWR, 0, 1300, 0);
    EXPECT_EQ(entryOf(handle)->knownSize, 1300U);
    EXPECT_EQ(readFile("f"), std::string(kDigits) + std::string(1290, '\0'));
}

TEST_F(FileOpen, StandsAtTheStartOfAFileThatItHasExtended)
{
    rmDiskFull = 0;
    const int16_t handle = openNew("f", 0, 1300);
    EXPECT_EQ(rm_filePosition(handle), 0U);
    EXPECT_EQ(lseek(entryOf(handle)->fd, 0, SEEK_CUR), 0);
}

TEST_F(FileOpen, ExtendsForEveryWayOfWriting)
{
    rmDiskFull = 0;
    for (const uint32_t flags : {RM_O_WRONLY, RM_O_RDWR, RM_O_WRONLY | RM_O_APPEND}) {
        const int16_t handle = rm_fileOpen("f", flags | RM_O_CREAT | RM_O_TRUNC, 0, 600, 0);
        EXPECT_EQ(rm_fileLength(handle), 600U) << "flags " << flags;
    }
}

TEST_F(FileOpen, DoesNotExtendAFileThatIsOnlyRead)
{
    rmDiskFull = 0;
    writeFile("f", kDigits);
    const int16_t handle = rm_fileOpen("f", RM_O_RDONLY, 0, 1300, 0);
    EXPECT_EQ(rm_fileLength(handle), 10U);
}

TEST_F(FileOpen, DoesNotExtendWhenToldNotTo)
{
    rmDiskFull = 0;
    writeFile("f", kDigits);
    const int16_t handle = rm_fileOpen("f", RM_O_RDWR, FILE_NOPRESIZE, 1300, 0);
    EXPECT_EQ(rm_fileLength(handle), 10U);
    EXPECT_EQ(entryOf(handle)->knownSize, 10U);
}

TEST_F(FileOpen, LeavesAFileThatIsLargeEnoughAsItIs)
{
    rmDiskFull = 0;
    writeFile("f", kDigits);
    const int16_t handle = rm_fileOpen("f", RM_O_RDWR, 0, 10, 0);
    EXPECT_EQ(rm_fileLength(handle), 10U);
    EXPECT_EQ(entryOf(handle)->knownSize, 10U);
    EXPECT_EQ(growSem, -1);
}

TEST_F(FileOpen, OnAFullDiskCountsTheFileAsExtendedAndDoesNotExtendIt)
{
    rmDiskFull = 1;
    writeFile("f", kDigits);
    const int16_t handle = rm_fileOpen("f", RM_O_RDWR, 0, 1300, 0);
    EXPECT_EQ(rm_fileLength(handle), 10U);
    EXPECT_EQ(entryOf(handle)->knownSize, 1300U);
}

TEST_F(FileOpen, TakesAPipeWithoutOffsets)
{
    ASSERT_EQ(mkfifo("pipe", 0600), 0);
    const int16_t handle = rm_fileOpen("pipe", RM_O_RDWR, 0, 0, 0);
    EXPECT_NE(handle, -1);
    EXPECT_EQ(entryOf(handle)->state, file::kSlotOpen);
}

TEST_F(FileOpen, OffersNoWriteThroughOfItsOwn)
{
    EXPECT_EQ(rm_fileSetWriteThrough(), 0);
    EXPECT_EQ(file::ftab, nullptr);
}

TEST_F(FileOpen, IsTheSameWithAndWithoutWriteThrough)
{
    const int16_t with = openNew("f");
    const int16_t without = openNew("g", FILE_NOWRITETHROUGH);
    EXPECT_EQ(fcntl(entryOf(with)->fd, F_GETFL), fcntl(entryOf(without)->fd, F_GETFL));
}

// --- Closing

TEST_F(FileClose, ClosesTheDescriptorAndFreesTheSlot)
{
    openMany(2);
    const int fd = entryOf(0)->fd;
    rm_fileClose(0);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(entryOf(0)->state, file::kSlotFree);
    EXPECT_EQ(entryOf(0)->name, nullptr);
    EXPECT_EQ(file::nHandles, 1);
    EXPECT_EQ(file::nFilesOpen, 1);
}

TEST_F(FileClose, WritesNoLine)
{
    openNew("f");
    EXPECT_THAT(linesOf([] { rm_fileClose(0); }), IsEmpty());
}

TEST_F(FileClose, FreesTheName)
{
    openMany(2);
    const uint32_t before = rmalloc::tagTable[file::fileTag].allocated;
    rm_fileClose(0);
    EXPECT_EQ(before - rmalloc::tagTable[file::fileTag].allocated,
              rmalloc::unitsFor(sizeof("f0")) * rmalloc::kUnit);
}

TEST_F(FileClose, ClosesAStreamModeFileThroughItsStream)
{
    openMany(2, FILE_STREAM);
    resetCalls();
    rm_fileClose(0);
    EXPECT_EQ(callCount(Call::kFclose), 1);
    EXPECT_EQ(callCount(Call::kClose), 0);
}

TEST_F(FileClose, ClosesAnyOtherFileThroughItsDescriptor)
{
    openMany(2);
    resetCalls();
    rm_fileClose(0);
    EXPECT_EQ(callCount(Call::kClose), 1);
    EXPECT_EQ(callCount(Call::kFclose), 0);
}

TEST_F(FileClose, OfAParkedFileClosesNoDescriptor)
{
    openMany(1);
    parkedWith("f", "text");
    resetCalls();
    rm_fileClose(1);
    EXPECT_EQ(callCount(Call::kClose), 0);
    EXPECT_EQ(file::nHandles, 1);
    EXPECT_EQ(file::nFilesOpen, 1);
}

TEST_F(FileClose, HoldsFileSemAroundItsWork)
{
    openNew("f");
    int value = -1;
    Spy spy(Call::kClose, [&](const CallRecord&) { value = fileSemValue(); });
    LockWatch locks;
    rm_fileClose(0);
    EXPECT_EQ(value, 0);
    EXPECT_THAT(locks.steps(), ElementsAre(enters(fileSem), leaves(fileSem)));
}

TEST_F(FileClose, OfAFreeSlotLogsItsHandle)
{
    openMany(2);
    rm_fileClose(1);
    EXPECT_THAT(linesOf([] { rm_fileClose(1); }), ElementsAre("rm_fileClose: invalid handle 1"));
}

TEST_F(FileClose, OfAFreeSlotChangesNothing)
{
    openMany(2);
    rm_fileClose(1);
    const Counts before = counts();
    linesOf([] { rm_fileClose(1); });
    EXPECT_EQ(counts(), before);
}

TEST_F(FileClose, OfAFreeSlotLeavesFileSemBeforeItsLine)
{
    openMany(1);
    int value = -1;
    Spy spy(Call::kFwrite, [&](const CallRecord&) { value = fileSemValue(); });
    linesOf([] { rm_fileClose(5); });
    EXPECT_EQ(value, 1);
}

TEST_F(FileClose, TakesAnyHandleOfTheWholeRange)
{
    openMany(3);
    rm_fileClose(1);
    const Counts before = counts();
    Lines expected;
    const Lines lines = linesOf([&] {
        for (int handle = INT16_MIN; handle <= INT16_MAX; ++handle) {
            if (handle != 0 && handle != 2) {
                rm_fileClose(static_cast<int16_t>(handle));
            }
        }
    });
    for (int handle = INT16_MIN; handle <= INT16_MAX; ++handle) {
        if (handle != 0 && handle != 2) {
            expected.push_back("rm_fileClose: invalid handle " + std::to_string(handle));
        }
    }
    EXPECT_EQ(lines.size(), expected.size());
    EXPECT_TRUE(lines == expected);
    EXPECT_EQ(counts(), before);
}

TEST_F(FileClose, BeforeAnyTableLogsItsHandle)
{
    EXPECT_THAT(linesOf([] { rm_fileClose(0); }), ElementsAre("rm_fileClose: invalid handle 0"));
    EXPECT_THAT(linesOf([] { rm_fileClose(-7); }), ElementsAre("rm_fileClose: invalid handle -7"));
}

TEST_F(FileClose, BeforeAnyTableEntersNoLock)
{
    resetCalls();
    linesOf([] { rm_fileClose(0); });
    EXPECT_EQ(callCount(Call::kSemget), 0);
    EXPECT_EQ(callCount(Call::kSemtimedop) + callCount(Call::kSemop), 0);
    EXPECT_EQ(fileSem, -1);
}

TEST_F(FileClose, DeletesTheLockOfTheFile)
{
    openMany(2);
    const int16_t seekSem = rm_syncCreate("seek");
    entryOf(0)->seekSem = seekSem;
    rm_fileClose(0);
    EXPECT_EQ(rm_syncOpen("seek"), -1);
    EXPECT_EQ(semValue(os::iSem, seekSem), 0);
}

TEST_F(FileClose, DeletesTheLockOfAParkedFile)
{
    openMany(1);
    parkedWith("f", "text");
    entryOf(1)->seekSem = rm_syncCreate("seek");
    rm_fileClose(1);
    EXPECT_EQ(rm_syncOpen("seek"), -1);
}

// --- The limit

TEST_F(FileHandleLimit, IsRaised)
{
    rm_fileHandleLimit(33);
    EXPECT_EQ(fileHandleLimit, 33);
    rm_fileHandleLimit(9999);
    EXPECT_EQ(fileHandleLimit, 9999);
}

TEST_F(FileHandleLimit, IsNeverLowered)
{
    rm_fileHandleLimit(31);
    EXPECT_EQ(fileHandleLimit, 32);
    rm_fileHandleLimit(4);
    EXPECT_EQ(fileHandleLimit, 32);
}

TEST_F(FileHandleLimit, Of3IsTooLow)
{
    fileHandleLimit = 1;
    rm_fileHandleLimit(3);
    EXPECT_EQ(fileHandleLimit, 1);
}

TEST_F(FileHandleLimit, Of4IsTheLowest)
{
    fileHandleLimit = 1;
    rm_fileHandleLimit(4);
    EXPECT_EQ(fileHandleLimit, 4);
}

TEST_F(FileHandleLimit, Of10000IsTooHigh)
{
    rm_fileHandleLimit(10000);
    EXPECT_EQ(fileHandleLimit, 32);
    rm_fileHandleLimit(INT16_MAX);
    EXPECT_EQ(fileHandleLimit, 32);
}

TEST_F(FileHandleLimit, BelowZeroChangesNothing)
{
    rm_fileHandleLimit(-1);
    EXPECT_EQ(fileHandleLimit, 32);
    rm_fileHandleLimit(INT16_MIN);
    EXPECT_EQ(fileHandleLimit, 32);
}

TEST_F(FileHandleLimit, ReplacesTheAbsenceOfALimit)
{
    fileHandleLimit = -1;
    rm_fileHandleLimit(4);
    EXPECT_EQ(fileHandleLimit, 4);
}

// --- The counts

TEST_F(FileCounts, AreZeroBeforeAnything)
{
    EXPECT_EQ(counts(), (Counts{0, 0, 0, 0}));
}

TEST_F(FileCounts, TellOpenAndParkedFilesApart)
{
    openMany(5);
    park(1);
    park(3);
    EXPECT_EQ(counts(), (Counts{3, 2, 2, 0}));
}

TEST_F(FileCounts, CountReopens)
{
    openMany(2);
    park(1);
    rm_fileLength(1);
    EXPECT_EQ(counts(), (Counts{2, 0, 1, 1}));
}

TEST_F(FileCounts, KeepParkingsAndReopensWhenTheTableGoes)
{
    parkedWith("f", "");
    rm_fileLength(0);
    park(0);
    rm_fileClose(0);
    EXPECT_EQ(counts(), (Counts{0, 0, 2, 1}));
}

TEST_F(FileCounts, LeaveOutWhatIsNotAskedFor)
{
    openMany(3);
    park(1);
    rm_fileLength(1);
    park(2);
    const Counts all = counts();
    rm_fileCounts(nullptr, nullptr, nullptr, nullptr);
    const std::array<uint32_t, 4> values = {all.open, all.parked, all.parkings, all.reopens};
    for (std::size_t wanted = 0; wanted < values.size(); ++wanted) {
        std::array<uint32_t, 4> got = {99, 99, 99, 99};
        std::array<uint32_t*, 4> targets = {};
        targets[wanted] = &got[wanted];
        rm_fileCounts(targets[0], targets[1], targets[2], targets[3]);
        EXPECT_EQ(got[wanted], values[wanted]);
    }
}

}  // namespace
