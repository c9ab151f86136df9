#include "app/glob.h"
#include "tests/support/support.h"
TEST(glob, a) { EXPECT_TRUE(glob_match("a*", "abc")); }
