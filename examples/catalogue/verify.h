// The verification: whether the files hold what they must.
#ifndef CATALOGUE_VERIFY_H
#define CATALOGUE_VERIFY_H

#include "board.h"
#include "report.h"
#include "server.h"

namespace catalogue
{

// In the parent, when no child is left: compares every record with the input and the updates made
// to it, and looks whether the backups are whole. False after having said what is wrong.
bool verify(const Host& host, Board& board, RunFigures& run);

}  // namespace catalogue

#endif
