/* A host in C that loads the shared library while it runs. Arguments: the case, the library. */
#define _GNU_SOURCE /* RTLD_DEFAULT, RTLD_NOLOAD */

#include "host_case.h"

#include "rm.h"

#include <dlfcn.h>
#include <setjmp.h>
#include <stdio.h>
#include <string.h>

static const char* libraryPath;
static void* library;
static jmp_buf exitTarget;

/* Stores the address of a function of the library. By its bytes, since ISO C has no conversion
   from an object pointer to a function pointer. */
static void resolve(const char* name, void* function, size_t size)
{
    void* address = dlsym(library, name);
    CHECK(address != NULL);
    memcpy(function, &address, size);
}

static void useLibrary(void)
{
    int16_t (*allocTag)(jmp_buf, uint32_t);
    void* (*getMemory)(uint32_t, int16_t);
    void (*freeMemory)(void*, int16_t);
    uint32_t (*memused)(void);
    resolve("rm_allocTag", &allocTag, sizeof(allocTag));
    resolve("rm_getMemory", &getMemory, sizeof(getMemory));
    resolve("rm_freeMemory", &freeMemory, sizeof(freeMemory));
    resolve("rm_memused", &memused, sizeof(memused));

    const int16_t tag = allocTag(NULL, RM_NO_LIMIT);
    CHECK(tag >= 0);
    const uint32_t before = memused();
    char* block = getMemory(100, tag);
    CHECK(block != NULL);
    memset(block, 'x', 100);
    CHECK(memused() > before);
    freeMemory(block, tag);
    CHECK(memused() == before);
}

static void servesAHostThatLoadsIt(void)
{
    useLibrary();
}

static void namesStayOutOfTheGlobalScope(void)
{
    CHECK(dlsym(library, "rm_getMemory") != NULL);
    CHECK(dlsym(RTLD_DEFAULT, "rm_getMemory") == NULL);
}

/* A signal handler of the library may be installed, so its code has to stay where it is. */
static void staysLoadedAfterDlclose(void)
{
    void (*handler)(int);
    resolve("catchAlarm", &handler, sizeof(handler));
    useLibrary();
    CHECK(dlclose(library) == 0);

    handler(0);
    library = dlopen(libraryPath, RTLD_NOW | RTLD_LOCAL | RTLD_NOLOAD);
    CHECK(library != NULL);
    void (*handlerAgain)(int);
    resolve("catchAlarm", &handlerAgain, sizeof(handlerAgain));
    CHECK(handlerAgain == handler);
    useLibrary();
}

static void endLibrary(void)
{
    void (*exitJump)(jmp_buf);
    void (*exitLibrary)(int16_t);
    resolve("rm_exitJump", &exitJump, sizeof(exitJump));
    resolve("rm_exit", &exitLibrary, sizeof(exitLibrary));
    if (setjmp(exitTarget) == 0) {
        exitJump(exitTarget);
        exitLibrary(9);
    }
    CHECK(dlclose(library) == 0);
}

int main(int argc, char** argv)
{
    static const HostCase cases[] = {
        {"ServesAHostThatLoadsIt", servesAHostThatLoadsIt},
        {"NamesStayOutOfTheGlobalScope", namesStayOutOfTheGlobalScope},
        {"StaysLoadedAfterDlclose", staysLoadedAfterDlclose},
        {NULL, NULL},
    };
    libraryPath = argc > 2 ? argv[2] : "";
    library = dlopen(libraryPath, RTLD_NOW | RTLD_LOCAL);
    if (library == NULL) {
        fprintf(stderr, "%s\n", dlerror());
        return 2;
    }
    return runCase(cases, argc > 1 ? argv[1] : "", endLibrary);
}
