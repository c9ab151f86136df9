#include "app/symbols.h"

const char *symbol_lookup(const void *)
{
    return nullptr;
}
