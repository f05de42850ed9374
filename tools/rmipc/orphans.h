// rmipc orphans: objects that look like the library's and belong to no token file that was named.
#ifndef RMIPC_ORPHANS_H
#define RMIPC_ORPHANS_H

#include "options.h"

namespace rmipc
{

int listOrphans(const Options& options);

}  // namespace rmipc

#endif
