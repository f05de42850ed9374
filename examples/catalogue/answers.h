// The answers to clients: what a job has come to, in the form of the protocol.
#ifndef CATALOGUE_ANSWERS_H
#define CATALOGUE_ANSWERS_H

#include "board.h"
#include "jobs.h"
#include "records.h"
#include "store.h"

namespace catalogue
{

// A part of a record. Its texts stand together in a buffer, body before note.
void answerGet(Board& board, const Job& job, const StoredRecord& stored);

// An update that is done.
void answerPut(Board& board, const Job& job, uint32_t version);

// The next names that begin with the prefix.
void answerList(Board& board, const Job& job, const Input& input);

// An answer without anything: it is not done, or not to be done.
void answerStatus(Board& board, const Job& job, Status status);

}  // namespace catalogue

#endif
