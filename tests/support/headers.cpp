// The program whose precompiled headers the test programs share.
int main()
{
    return 0;
}
