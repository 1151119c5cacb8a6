// Every test program runs in a mount namespace of its own with an empty /dev/shm, so that it
// meets no other store of the machine and leaves none.
#include "support/main.h"

#include <gtest/gtest.h>

int main(int argc, char **argv)
{
    if (!private_shm())
        return 1;
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
