/* A module that needs a function which nobody has. */
void aFunctionThatNobodyHas(const char* module);
void UNRESOLVED_ModEntry(const char* module);

void UNRESOLVED_ModEntry(const char* module)
{
    aFunctionThatNobodyHas(module);
}
