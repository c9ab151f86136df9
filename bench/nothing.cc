// The least that a program linked with the C library does.
int main()
{
    return 0;
}
