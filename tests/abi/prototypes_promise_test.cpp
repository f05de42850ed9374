// Every function, variable, record and named value of the header, type by type: programs outside of
// the project are compiled against them.
#include "tests/support/support.h"

#include "rm.h"

#include <csetjmp>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <type_traits>

#include <gtest/gtest.h>

// The check of a format's arguments is no part of a function's type.
#pragma GCC diagnostic ignored "-Wignored-attributes"

namespace
{
template <typename Expected, typename Actual>
bool isFunction(Actual* /*function*/)
{
    return std::is_same_v<Expected, Actual>;
}

// Does not compile when the function may come back: nothing is returned behind it.
[[maybe_unused]] int endsInASystemCall()
{
    internalErrorExit("f", "m", 0);
}

[[maybe_unused]] int endsInAProblem()
{
    fatalRMExit("a problem");
}

[[maybe_unused]] int endsInTheCommonTail()
{
    rm_errorExit();
}

[[maybe_unused]] int endsInTheExit()
{
    rm_exit(0);
}

class Prototypes : public rmtest::RmTest
{
};

TEST_F(Prototypes, OfTheServiceCore)
{
    EXPECT_TRUE((isFunction<void(jmp_buf)>(rm_errorJump)));
    EXPECT_TRUE((isFunction<void(jmp_buf)>(rm_exitJump)));
    EXPECT_TRUE((isFunction<void(const char*, const char*, int32_t)>(internalErrorExit)));
    EXPECT_TRUE((isFunction<void(const char*)>(fatalRMExit)));
    EXPECT_TRUE((isFunction<void()>(rm_errorExit)));
    EXPECT_TRUE((isFunction<void(int16_t)>(rm_exit)));
    EXPECT_TRUE((isFunction<void(const char*, uint16_t)>(rm_userSave)));
    EXPECT_TRUE((isFunction<void(char*, uint16_t*)>(rm_userGet)));
    EXPECT_TRUE((isFunction<int16_t(int16_t)>(rm_systemLog)));
    EXPECT_TRUE((isFunction<void(const char*, ...)>(rm_systemLogWrite)));
    EXPECT_TRUE((isFunction<void(const char*, ...)>(rm_systemLogOptWrite)));
    EXPECT_TRUE((isFunction<void(const char*)>(rm_systemLogOpen)));
    EXPECT_TRUE((isFunction<void()>(rm_systemLogClose)));
    EXPECT_TRUE((isFunction<void(uint16_t)>(rm_statInit)));
    EXPECT_TRUE((isFunction<void(int16_t, uint16_t)>(rm_statInc)));
    EXPECT_TRUE((isFunction<void(int16_t)>(rm_statClear)));
    EXPECT_TRUE((isFunction<void()>(rm_statClearAll)));
    EXPECT_TRUE((isFunction<uint32_t*(uint16_t*)>(rm_statRep)));
    EXPECT_TRUE((isFunction<void(uint32_t, int16_t, double)>(rm_init)));
    EXPECT_TRUE((isFunction<double(const char*)>(rm_getDiskFreeSpace)));
    EXPECT_TRUE((isFunction<void(int16_t)>(rm_setDiskFull)));
    EXPECT_TRUE((isFunction<int16_t()>(rm_getDiskFull)));
}

TEST_F(Prototypes, OfTheMemoryManager)
{
    EXPECT_TRUE((isFunction<int16_t(jmp_buf, uint32_t)>(rm_allocTag)));
    EXPECT_TRUE((isFunction<char*(const char*, int16_t)>(rm_setTagName)));
    EXPECT_TRUE((isFunction<void(uint32_t, int16_t)>(rm_setTagAlloc)));
    EXPECT_TRUE((isFunction<void(jmp_buf, int16_t)>(rm_resetTag)));
    EXPECT_TRUE((isFunction<void(int16_t, int16_t)>(rm_freeTagMemory)));
    EXPECT_TRUE((isFunction<void()>(rm_freeall)));
    EXPECT_TRUE((isFunction<void*(uint32_t, int16_t)>(rm_getMemory)));
    EXPECT_TRUE((isFunction<void*(uint32_t, int16_t)>(rm_cGetMemory)));
    EXPECT_TRUE((isFunction<char*(const char*, int16_t)>(rm_Strdup)));
    EXPECT_TRUE((isFunction<void(void*, int16_t)>(rm_freeMemory)));
    EXPECT_TRUE((isFunction<void(void*, int16_t)>(rm_zFreeMemory)));
    EXPECT_TRUE((isFunction<void*(void*, uint32_t, int16_t)>(rm_extendMemory)));
    EXPECT_TRUE((isFunction<void*(void*, uint32_t, int16_t)>(rm_growMemory)));
    EXPECT_TRUE((isFunction<int32_t(int16_t)>(rm_memoryAvail)));
    EXPECT_TRUE((isFunction<void(uint32_t)>(rm_setMemoryLimit)));
    EXPECT_TRUE((isFunction<uint32_t()>(rm_memused)));
    EXPECT_TRUE((isFunction<RmPool*(uint32_t, int16_t, const char*, uint32_t)>(rm_allocPool)));
    EXPECT_TRUE((isFunction<void*(uint32_t, RmPool*)>(rm_getFromPool)));
    EXPECT_TRUE((isFunction<int(void*, RmPool*)>(rm_putInPool)));
    EXPECT_TRUE((isFunction<int(RmPool**)>(rm_zFreePool)));
    EXPECT_TRUE((isFunction<void(int16_t, int16_t, const char*, ...)>(rm_memReport)));
    EXPECT_TRUE((isFunction<void*(uint32_t, int16_t, const char*, unsigned)>(rm_LOG_getMemory)));
    EXPECT_TRUE((isFunction<void*(uint32_t, int16_t, const char*, unsigned)>(rm_LOG_cGetMemory)));
    EXPECT_TRUE(
        (isFunction<void*(void*, uint32_t, int16_t, const char*, unsigned)>(rm_LOG_extendMemory)));
    EXPECT_TRUE(
        (isFunction<void*(void*, uint32_t, int16_t, const char*, unsigned)>(rm_LOG_growMemory)));
    EXPECT_TRUE((isFunction<char*(const char*, int16_t, const char*, unsigned)>(rm_LOG_Strdup)));
    EXPECT_TRUE((isFunction<void(void*, int16_t)>(rm_LOG_freeMemory)));
    EXPECT_TRUE((isFunction<void(void*, int16_t)>(rm_LOG_zFreeMemory)));
}

TEST_F(Prototypes, OfTheSystemServices)
{
    EXPECT_TRUE((isFunction<int16_t(const char*, uint32_t, void**)>(rm_gshmCreate)));
    EXPECT_TRUE((isFunction<int16_t(int16_t)>(rm_gshmDelete)));
    EXPECT_TRUE((isFunction<int16_t()>(rm_gshmTerminate)));
    EXPECT_TRUE((isFunction<void(const char*)>(rm_tokenName)));
    EXPECT_TRUE((isFunction<int16_t(const char*)>(rm_syncCreate)));
    EXPECT_TRUE((isFunction<int16_t(const char*)>(rm_syncOpen)));
    EXPECT_TRUE((isFunction<int16_t(int16_t)>(rm_syncDelete)));
    EXPECT_TRUE((isFunction<int16_t(int16_t, uint32_t)>(rm_syncEnterExcl)));
    EXPECT_TRUE((isFunction<int16_t(int16_t)>(rm_syncExitExcl)));
    EXPECT_TRUE((isFunction<int16_t(int16_t, uint32_t)>(rm_syncWait)));
    EXPECT_TRUE((isFunction<int16_t(int16_t)>(rm_syncStart)));
    EXPECT_TRUE((isFunction<int16_t(int16_t)>(rm_syncResume)));
    EXPECT_TRUE((isFunction<int16_t()>(rm_syncTerminate)));
    EXPECT_TRUE((isFunction<int16_t(int16_t)>(rm_syncRecover)));
    EXPECT_TRUE((isFunction<void(int)>(catchAlarm)));
    EXPECT_TRUE((isFunction<int16_t(const char*)>(rm_queueCreate)));
    EXPECT_TRUE((isFunction<int16_t(const char*)>(rm_queueOpen)));
    EXPECT_TRUE((isFunction<int16_t(int16_t, const void*, int16_t, uint16_t)>(rm_queueWrite)));
    EXPECT_TRUE((isFunction<int16_t(int16_t, void*, int16_t*, uint16_t*, uint16_t)>(rm_queueRead)));
    EXPECT_TRUE((isFunction<int16_t(int16_t)>(rm_queueDelete)));
    EXPECT_TRUE((isFunction<int16_t()>(rm_queueTerminate)));
    EXPECT_TRUE((isFunction<int16_t(int16_t)>(rm_threadDefaultPriority)));
    EXPECT_TRUE((isFunction<int16_t(...)>(rm_threadBegin)));
    EXPECT_TRUE((isFunction<void()>(rm_threadEnd)));
    EXPECT_TRUE((isFunction<int16_t()>(rm_foregroundThread)));
    EXPECT_TRUE((isFunction<int16_t()>(rm_setForegroundThread)));
    EXPECT_TRUE((isFunction<void(int16_t)>(rm_enterCritSec)));
    EXPECT_TRUE((isFunction<void(int16_t)>(rm_exitCritSec)));
    EXPECT_TRUE((isFunction<uint32_t(uint32_t)>(rm_sleep)));
    EXPECT_TRUE((isFunction<char*(const char*)>(rm_OSgetenv)));
    EXPECT_TRUE((isFunction<void()>(rm_setOSHandleLimit)));
    EXPECT_TRUE((isFunction<void(int16_t)>(rm_setOSTerm)));
    EXPECT_TRUE((isFunction<int16_t()>(rm_getOSTerm)));
    EXPECT_TRUE((isFunction<void*(uint32_t)>(rm_getSeg)));
    EXPECT_TRUE((isFunction<void(void*)>(rm_freeSeg)));
    EXPECT_TRUE(
        (isFunction<int16_t(const char*, uint32_t, uint16_t, uint32_t, int32_t*)>(rm_flOpen)));
    EXPECT_TRUE((isFunction<int16_t(int32_t)>(rm_flClose)));
    EXPECT_TRUE((isFunction<int16_t(int32_t, void*, int32_t, int32_t*)>(rm_flRead)));
    EXPECT_TRUE((isFunction<int32_t(int32_t, const void*, int32_t)>(rm_flWrite)));
    EXPECT_TRUE((isFunction<int16_t(int32_t, int32_t, int16_t, uint32_t*)>(rm_flSeek)));
    EXPECT_TRUE((isFunction<int16_t(int32_t, uint32_t*)>(rm_flSize)));
    EXPECT_TRUE((isFunction<int16_t(int32_t, uint32_t)>(rm_flSetSize)));
    EXPECT_TRUE((isFunction<int16_t(int32_t)>(rm_flSync)));
    EXPECT_TRUE((isFunction<int16_t(int32_t)>(rm_flSetWriteThrough)));
    EXPECT_TRUE((isFunction<int16_t(const char*)>(rm_flRemove)));
    EXPECT_TRUE((isFunction<int16_t(const char*, const char*)>(rm_flRename)));
    EXPECT_TRUE((isFunction<char*()>(rm_flTempName)));
    EXPECT_TRUE((isFunction<double(const char*)>(rm_flGetDiskFreeSpace)));
    EXPECT_TRUE((isFunction<int16_t(const char*)>(rm_fileValidate)));
    EXPECT_TRUE((isFunction<int16_t(const char*, void**)>(rm_OSemLoad)));
    EXPECT_TRUE((isFunction<int16_t(void*, const char*, void**)>(rm_OSemGetFcnAddr)));
    EXPECT_TRUE((isFunction<int16_t(void*)>(rm_OSemUnload)));
}

TEST_F(Prototypes, OfManagedFiles)
{
    EXPECT_TRUE(
        (isFunction<int16_t(const char*, uint32_t, uint16_t, uint32_t, uint32_t)>(rm_fileOpen)));
    EXPECT_TRUE((isFunction<void(int16_t)>(rm_fileClose)));
    EXPECT_TRUE((isFunction<void(int16_t)>(rm_fileHandleLimit)));
    EXPECT_TRUE((isFunction<int16_t()>(rm_fileSetWriteThrough)));
    EXPECT_TRUE((isFunction<uint32_t(int16_t, uint32_t)>(rm_fileSeek)));
    EXPECT_TRUE((isFunction<uint16_t(int16_t, const char*, ...)>(rm_filePrintf)));
    EXPECT_TRUE((isFunction<uint32_t(int16_t, const void*, uint32_t)>(rm_fileWrite)));
    EXPECT_TRUE((isFunction<uint32_t(int16_t, uint32_t, const void*, uint32_t)>(rm_fileSeekWrite)));
    EXPECT_TRUE((isFunction<uint32_t(int16_t, void*, uint32_t)>(rm_fileRead)));
    EXPECT_TRUE((isFunction<uint32_t(int16_t, uint32_t, void*, uint32_t)>(rm_fileSeekRead)));
    EXPECT_TRUE((isFunction<uint32_t(int16_t)>(rm_fileLength)));
    EXPECT_TRUE((isFunction<uint32_t(int16_t)>(rm_filePosition)));
    EXPECT_TRUE((isFunction<int16_t(int16_t)>(rm_fileSync)));
    EXPECT_TRUE((isFunction<int16_t(const char*)>(rm_fileRemove)));
    EXPECT_TRUE((isFunction<int16_t(const char*, const char*)>(rm_fileRename)));
    EXPECT_TRUE((isFunction<char*(const char*)>(rm_fileTempName)));
    EXPECT_TRUE((isFunction<void(uint32_t*, uint32_t*, uint32_t*, uint32_t*)>(rm_fileCounts)));
}

TEST_F(Prototypes, OfConfigurationAndTextFiles)
{
    EXPECT_TRUE((isFunction<FileStream*(const char*, const char*)>(rm_fileStreamOpen)));
    EXPECT_TRUE((isFunction<void(FileStream*)>(rm_fileStreamClose)));
    EXPECT_TRUE((isFunction<char*(FileStream*, char*, int32_t)>(rm_fileStreamGets)));
    EXPECT_TRUE((isFunction<uint32_t(FileStream*, const char*)>(rm_fileStreamPuts)));
    EXPECT_TRUE((isFunction<char*(FileStream*, char**, uint32_t*)>(rm_fileStreamGetLine)));
    EXPECT_TRUE(
        (isFunction<int16_t(const char*, const char*, char*, int16_t, uint16_t, const char*)>(
            rm_iniGetPrivate)));
    EXPECT_TRUE(
        (isFunction<int16_t(const char*, const char*, char*, int16_t, uint16_t)>(rm_iniGet)));
    EXPECT_TRUE((
        isFunction<int16_t(const char*, const char*, const char*, const char*)>(rm_iniSetPrivate)));
    EXPECT_TRUE((isFunction<int16_t(const char*, const char*, const char*)>(rm_iniSet)));
    EXPECT_TRUE((isFunction<void(const char*)>(rm_putLocalEnv)));
    EXPECT_TRUE((isFunction<char*(const char*)>(rm_getLocalEnv)));
    EXPECT_TRUE((isFunction<char*(const char*)>(rm_getenv)));
    EXPECT_TRUE((isFunction<int32_t(const char*, const char*)>(rm_fileCopy)));
    EXPECT_TRUE((isFunction<int16_t(const char*, const char*)>(rm_fileMove)));
}

TEST_F(Prototypes, OfExtensionModules)
{
    EXPECT_TRUE((isFunction<int16_t()>(rm_emInit)));
    EXPECT_TRUE(
        (isFunction<void(uint16_t*, const EmListEntry**, uint16_t*, const IefListEntry**, uint16_t*,
                         const UdfListEntry**, uint16_t*, const UdpListEntry**)>(rm_getEmList)));
    EXPECT_TRUE((isFunction<int16_t(const char*, int16_t*)>(rm_emLoad)));
    EXPECT_TRUE((isFunction<int16_t(int16_t, const char*, void**)>(rm_emGetFcnAddr)));
    EXPECT_TRUE((isFunction<int16_t(int16_t)>(rm_emUnload)));
    EXPECT_TRUE((isFunction<int16_t(const char*, const char*, void*)>(rm_emRegFcn)));
}

TEST_F(Prototypes, OfContainers)
{
    EXPECT_TRUE((isFunction<int16_t(const BagCtl*, Bag**)>(bagCreate)));
    EXPECT_TRUE((isFunction<int16_t(Bag*)>(bagDestroy)));
    EXPECT_TRUE((isFunction<int16_t(Bag*, const void*)>(bagAdd)));
    EXPECT_TRUE((isFunction<int16_t(Bag*)>(bagDelete)));
    EXPECT_TRUE((isFunction<int16_t(Bag*)>(bagFirst)));
    EXPECT_TRUE((isFunction<int16_t(Bag*)>(bagNext)));
    EXPECT_TRUE((isFunction<int16_t(Bag*)>(bagLast)));
    EXPECT_TRUE((isFunction<int16_t(Bag*)>(bagPrev)));
    EXPECT_TRUE((isFunction<int16_t(Bag*, uint16_t*)>(bagGetCurHandle)));
    EXPECT_TRUE((isFunction<int16_t(Bag*, uint16_t)>(bagSetCurHandle)));
    EXPECT_TRUE((isFunction<int16_t(Bag*, void**)>(bagGetCurPtr)));
    EXPECT_TRUE((isFunction<int16_t(Bag*, void*)>(bagGetCurData)));
    EXPECT_TRUE((isFunction<int16_t(Bag*, const void*, uint16_t*, void**)>(bagFind)));
    EXPECT_TRUE((isFunction<int16_t(uint16_t, uint16_t, void**, void**)>(ffBagCreate)));
    EXPECT_TRUE((isFunction<int16_t(void*, const void*)>(ffBagPush)));
    EXPECT_TRUE((isFunction<int16_t(void*, void*)>(ffBagPop)));
    EXPECT_TRUE((isFunction<DArray*(int16_t, int16_t, int16_t)>(darrayCreate)));
    EXPECT_TRUE((isFunction<void(DArray*)>(darrayDestroy)));
    EXPECT_TRUE((isFunction<int16_t(DArray*, const char*, void**)>(darrayCreateEntry)));
    EXPECT_TRUE((isFunction<int16_t(DArray*, const char*, void**)>(darrayFindEntry)));
    EXPECT_TRUE((isFunction<int16_t(DArray*, const void*, int16_t, uint16_t, uint16_t, void**)>(
        darrayGetEntryFromData)));
    EXPECT_TRUE((isFunction<int16_t(DArray*)>(darrayGetFirstUsedEntry)));
    EXPECT_TRUE((isFunction<void(DArray*, int16_t)>(darrayDeleteEntry)));
    EXPECT_TRUE((isFunction<void*(DArray*, int16_t)>(darrayGetEntryPtr)));
    EXPECT_TRUE((isFunction<const char*(DArray*, int16_t)>(darrayGetEntryName)));
}

TEST_F(Prototypes, OfTextsAndPaths)
{
    EXPECT_TRUE((isFunction<int(const char*)>(AllDigits)));
    EXPECT_TRUE((isFunction<char*(char*)>(StrUpper)));
    EXPECT_TRUE((isFunction<char*(char*)>(StrLower)));
    EXPECT_TRUE((isFunction<int(const char*, const char*)>(stricmp)));
    EXPECT_TRUE((isFunction<int(const char*, const char*, uint32_t)>(strnicmp)));
    EXPECT_TRUE((isFunction<int16_t(char*, int*, char***, int16_t)>(StrToArgv)));
    EXPECT_TRUE((isFunction<char*(const char* const*, int16_t, int16_t)>(StrArrayCat)));
    EXPECT_TRUE(
        (isFunction<int16_t(const char* const*, uint16_t, char*, uint16_t)>(StrArrayCatBuf)));
    EXPECT_TRUE((isFunction<char*(char*, const char*, int)>(StrncpyZ)));
    EXPECT_TRUE((isFunction<char*(char*, int16_t, FILE*)>(FgetsTrim)));
    EXPECT_TRUE((isFunction<char*(const char*)>(pathBaseExt)));
    EXPECT_TRUE(
        (isFunction<uint16_t(const char**, const char*, const char*, const char*)>(makePathInt)));
    EXPECT_TRUE((isFunction<char*(const char*)>(allocWithCatPath)));
    EXPECT_TRUE((isFunction<char*(const char*, const char*, const char*, int16_t)>(makeAllocPath)));
    EXPECT_TRUE(
        (isFunction<int16_t(char*, uint16_t, const char*, const char*, const char*)>(makePath)));
}

TEST_F(Prototypes, OfVariables)
{
    EXPECT_TRUE((std::is_same_v<decltype(seg_alloc), int16_t>));
    EXPECT_TRUE((std::is_same_v<decltype(rmemavail), uint32_t>));
    EXPECT_TRUE((std::is_same_v<decltype(rminfree), double>));
    EXPECT_TRUE((std::is_same_v<decltype(fileHandleLimit), int16_t>));
    EXPECT_TRUE((std::is_same_v<decltype(fileSem), int16_t>));
    EXPECT_TRUE((std::is_same_v<decltype(growSem), int16_t>));
    EXPECT_TRUE((std::is_same_v<decltype(fileCommit), int16_t>));
    EXPECT_TRUE((std::is_same_v<decltype(rmDiskFull), int16_t>));
    EXPECT_TRUE((std::is_same_v<decltype(hNormSh), uint32_t>));
    EXPECT_TRUE((std::is_same_v<decltype(hPriSh), uint32_t>));
    EXPECT_TRUE((std::is_same_v<decltype(syslogon), int16_t>));
    EXPECT_TRUE((std::is_same_v<decltype(sysfile), int16_t>));
    EXPECT_TRUE((std::is_same_v<decltype(rmanTerm), int16_t>));
}

TEST_F(Prototypes, OfRecords)
{
    // As braces fill them: each field with a value of its own type, in their order.
    static int place = 0;
    const BagCtl ctl = {1, 2, 3, 4, 5, int16_t{6}, uint32_t{7}, uint16_t{8}};
    EXPECT_EQ(ctl.flags + ctl.initialSlots * 10 + ctl.growIncrement * 100, 321);
    EXPECT_EQ(ctl.growThreshold + ctl.elementSize * 10 + ctl.tag * 100, 654);
    EXPECT_EQ(ctl.keyOffset + ctl.keyLength * 10U, 87U);
    EXPECT_TRUE((std::is_same_v<decltype(BagCtl::flags), uint16_t>));
    EXPECT_TRUE((std::is_same_v<decltype(BagCtl::initialSlots), uint16_t>));
    EXPECT_TRUE((std::is_same_v<decltype(BagCtl::growIncrement), uint16_t>));
    EXPECT_TRUE((std::is_same_v<decltype(BagCtl::growThreshold), uint16_t>));
    EXPECT_TRUE((std::is_same_v<decltype(BagCtl::elementSize), uint16_t>));
    EXPECT_TRUE((std::is_same_v<decltype(BagCtl::tag), int16_t>));
    EXPECT_TRUE((std::is_same_v<decltype(BagCtl::keyOffset), uint32_t>));
    EXPECT_TRUE((std::is_same_v<decltype(BagCtl::keyLength), uint16_t>));

    uint16_t map = 0;
    const Bag bag = {&ctl, 1, 2, 3, 4, &place, &map};
    EXPECT_EQ(bag.ctl, &ctl);
    EXPECT_EQ(bag.slotCount + bag.usedCount * 10 + bag.curSlot * 100 + bag.nextSlot * 1000, 4321);
    EXPECT_EQ(bag.data, &place);
    EXPECT_EQ(bag.slotMap, &map);

    const EmListEntry em = {"em", &place, nullptr, &map};
    EXPECT_STREQ(em.name, "em");
    EXPECT_TRUE(em.init == &place && em.cleanup == nullptr && em.describe == &map);
    const IefListEntry ief = {"ief", &place};
    EXPECT_TRUE(ief.name != nullptr && ief.describe == &place);
    const UdfListEntry udf = {"udf", &place};
    EXPECT_TRUE(udf.name != nullptr && udf.describe == &place);
    const UdpListEntry udp = {"udp", &place, nullptr, &map};
    EXPECT_STREQ(udp.name, "udp");
    EXPECT_TRUE(udp.reserved1 == &place && udp.reserved2 == nullptr && udp.describe == &map);
}

TEST_F(Prototypes, OfFlags)
{
    EXPECT_EQ(RM_O_RDONLY, 0U);
    EXPECT_EQ(RM_O_WRONLY, 1U);
    EXPECT_EQ(RM_O_RDWR, 2U);
    EXPECT_EQ(RM_O_APPEND, 8U);
    EXPECT_EQ(RM_O_CREAT, 0x100U);
    EXPECT_EQ(RM_O_TRUNC, 0x200U);
    EXPECT_EQ(RM_O_EXCL, 0x400U);
    EXPECT_EQ(FILE_FATAL, 0x01U);
    EXPECT_EQ(FILE_NOPRESIZE, 0x04U);
    EXPECT_EQ(FILE_STREAM, 0x08U);
    EXPECT_EQ(FILE_PINNED, 0x40U);
    EXPECT_EQ(FILE_NOWRITETHROUGH, 0x80U);
    EXPECT_EQ(BAG_KEY_STRING, 1);
    EXPECT_EQ(BAG_KEY_ISTRING, 2);
    EXPECT_EQ(BAG_KEY_BINARY, 3);
    EXPECT_EQ(BAG_KEY_INDIRECT, 0x80);
    EXPECT_EQ(BAG_SLOT_MAP, 0x100);
    EXPECT_EQ(BAG_POINTERS, 0x200);
    EXPECT_EQ(BAG_RING, 0x400);
    EXPECT_EQ(RM_REPORT_FREE, 0x0001);
    EXPECT_EQ(RM_REPORT_TAG, 0x0002);
    EXPECT_EQ(RM_REPORT_TOTALS, 0x0004);
    EXPECT_EQ(RM_REPORT_DETAIL, 0x0010);
    EXPECT_EQ(RM_REPORT_SUMMARY, 0x0040);
    EXPECT_EQ(RM_REPORT_ALL, INT16_MIN);
}
}  // namespace
