#include <gtest/gtest.h>

#include "tests/support/heap/counted_heap.h"

int main(int argc, char** argv) {
    corvalin::test::note_main();
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
