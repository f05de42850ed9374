// The rotation: backups of the bucket files.
#ifndef CATALOGUE_ROTATION_H
#define CATALOGUE_ROTATION_H

#include "board.h"

#include <cstdint>

namespace catalogue
{

// Makes a new backup of a bucket; the one before is kept as NAME.old. Takes the lock of the bucket
// for as long as the copying lasts, unless nobody else is at work: then `figures` is null. False
// when the run ends meanwhile, or after having said that a lock is not given back. A backup that
// cannot be made is a warning: the one before stays.
bool backUpBucket(const Board& board, uint32_t bucket, Figures* figures);

// Once a run has ended: looks whether every backup is a whole bucket file. Returns how many are
// not, having said so. `tag` owns the memory that it takes.
uint32_t checkBackups(const Board& board, int16_t tag, uint32_t largest);

}  // namespace catalogue

#endif
