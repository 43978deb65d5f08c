#include "source/OrvaneAtomicInt.h"

#include <gtest/gtest.h>

namespace zq {
namespace orvane {
namespace {

TEST(OrvaneAtomicIntTest, ComparesWithCountersAndIntegers) {
    OrvaneAtomicInt handles(1);
    OrvaneAtomicInt other(3);
    EXPECT_TRUE(handles.lessOrEqual(other));
    EXPECT_FALSE(other.lessOrEqual(handles));
    EXPECT_TRUE(handles.lessOrEqual(1));
    EXPECT_EQ(handles.increment(), 2);
    EXPECT_FALSE(handles.lessOrEqual(1));
    EXPECT_EQ(handles.isAtomic(), 1);
}

}  // namespace
}  // namespace orvane
}  // namespace zq
