// The least that a program linked with the C library can do.
int main()
{
    return 0;
}
