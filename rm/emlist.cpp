// The modules that are linked into this build: none.
//
// Why: a server that links modules statically brings its own list. The definition is weak and the
// library calls it by name, so a host that defines the function is asked instead, from the shared
// object as from the archive.
#include "rm/base.h"

extern "C" __attribute__((weak)) void rm_getEmList(uint16_t* emCount, const EmListEntry** emList,
                                                   uint16_t* iefCount, const IefListEntry** iefList,
                                                   uint16_t* udfCount, const UdfListEntry** udfList,
                                                   uint16_t* udpCount, const UdpListEntry** udpList)
{
    *emCount = 0;
    *emList = nullptr;
    *iefCount = 0;
    *iefList = nullptr;
    *udfCount = 0;
    *udfList = nullptr;
    *udpCount = 0;
    *udpList = nullptr;
}
