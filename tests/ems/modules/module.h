/* What the modules of the tests share.
 *
 * A module says what happens to it by calling its host. Both functions may be missing there: a
 * module can be loaded by any program. */
#ifndef TESTS_EMS_MODULES_MODULE_H
#define TESTS_EMS_MODULES_MODULE_H

#include "rm.h"

/* `symbol` is the entry point without "_ModEntry". */
void moduleEntered(const char* symbol, const char* name) __attribute__((weak));
void moduleClosed(const char* name) __attribute__((weak));

/* Begins the entry point of the module NAME, which may be nothing. */
#define ENTRY_POINT(NAME)                     \
    void NAME##_ModEntry(const char* module); \
    void NAME##_ModEntry(const char* module)

#endif
