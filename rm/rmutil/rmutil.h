// Conveniences, front page.
//
//   localenv.cpp  settings of this process that override its environment
#ifndef RM_RMUTIL_RMUTIL_H
#define RM_RMUTIL_RMUTIL_H

#include "rm/base.h"

#include <cstdint>

namespace rmutil
{

extern char** LocalEnv;       // whole NAME=value texts under tag 0; a slot may be null
extern uint16_t NumLocalEnv;  // slots in the array

// Counts and logs what does not hold in the entries; 0 is sound.
uint32_t checkLocalEnv();

// Forgets all entries without freeing them: their memory is about to go.
void forgetLocalEnv();

}  // namespace rmutil

#endif
