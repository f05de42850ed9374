/* A module like the smallest that a server would load: an entry point and a function. */
void SCALES_ModEntry(const char* name);
int weighShipment(int grams);

static int entered;

void SCALES_ModEntry(const char* name)
{
    entered += name != 0;
}

int weighShipment(int grams)
{
    return entered != 0 ? grams : 0;
}
