// rmipc remove: takes away what has no living owner.
#ifndef RMIPC_REMOVE_H
#define RMIPC_REMOVE_H

#include "options.h"

namespace rmipc
{

int removeLeftovers(const Options& options);

}  // namespace rmipc

#endif
