// The one place where control leaves the library without returning.
//
// Why: a jump over frames is only safe when nothing on them needs an end. What those frames held
// for others - locks between processes, counts of operations in progress - is given back here, so
// that no caller of a fatal function has to remember it.
//
// Invariant: no other file of the library contains the jump; a gate of the build looks for it.
#include "rm/file/file.h"
#include "rm/rmsrv/rmsrv.h"
#include "rm/rmutil/rmutil.h"

void rmsrv::unwindTo(jmp_buf env, int value)
{
    file::abandonOperations();
    rmutil::abandonRewrite();
    rmutil::abandonOwnFiles();
    abandonLogLine();
    leaveFatalPath();
    longjmp(env, value);
}
