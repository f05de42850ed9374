/* Functions of the host with names that the library uses inside: two that it keeps to itself and
   three of its interface. They do nothing useful and count their calls. */
#ifndef TESTS_ABI_HOST_NAMES_H
#define TESTS_ABI_HOST_NAMES_H

extern int ownCalls;

int checkTag(int tag, const char* function);
char* GetLine(void* stream);
char* StrUpper(char* text);
int stricmp(const char* a, const char* b);
int strnicmp(const char* a, const char* b, unsigned n);

#endif
