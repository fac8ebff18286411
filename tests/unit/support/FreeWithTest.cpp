#include "support/FreeWith.h"

#include <gtest/gtest.h>
#include <memory>

namespace orvexd {
namespace {

int freed = 0;

void freeInt(int* number) {
    ++freed;
    *number = -1;
}

using Handle = std::unique_ptr<int, FreeWith<freeInt>>;

TEST(FreeWith, CallsTheFunctionOnceAtTheEndOfTheScope) {
    freed = 0;
    int number = 5;
    { const Handle handle(&number); }
    EXPECT_EQ(freed, 1);
    EXPECT_EQ(number, -1);
}

TEST(FreeWith, DoesNotFreeNull) {
    freed = 0;
    { const Handle handle; }
    EXPECT_EQ(freed, 0);
}

static_assert(sizeof(Handle) == sizeof(int*), "the owner is as small as a pointer");

} // namespace
} // namespace orvexd
