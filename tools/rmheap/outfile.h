// A file that is there whole or not at all.
#ifndef RMHEAP_OUTFILE_H
#define RMHEAP_OUTFILE_H

#include <string>
#include <string_view>

namespace rmheap
{

// Writes the bytes beside the file and then puts them in its place. False with a message; an old
// file is then as it was.
bool replaceFile(const std::string& name, std::string_view bytes);

}  // namespace rmheap

#endif
