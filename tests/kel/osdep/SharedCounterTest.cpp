#include "kel/osdep/SharedCounter.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include "support/Child.h"
#include "support/TempDir.h"

namespace zq {
namespace kel {
namespace osdep {
namespace {

const WString kName(L"__zq_orvane_BucketManager_lock__");

// Whatever one process does to the counter, another sees, including a
// change left half done by a writer that died.
TEST(SharedCounterTest, ProcessesShareOneCountThatStaysOddAfterADeadWriter) {
    test::TempDir dir;
    setenv("ZQKELTMPSHAREDFILEDIR", dir.path().c_str(), 1);
    SharedCounter counter(kName);
    struct stat facts;
    ASSERT_EQ(::stat(dir.file("counter/__zq_orvane_BucketManager_lock__").c_str(), &facts), 0);
    EXPECT_EQ(facts.st_size, 4);
    EXPECT_EQ(counter.load(), 0u);

    {
        SharedCounter::Change change(counter);
        EXPECT_EQ(counter.load(), 1u);
    }
    EXPECT_EQ(counter.load(), 2u);

    // A second mapping (the next open of the file) keeps the count.
    ASSERT_EQ(test::inChild([] {
                  SharedCounter own(kName);
                  return own.load() == 2u && own.beginChange() ? 0 : 1;  // dies mid-change
              }),
              0);
    EXPECT_EQ(counter.load(), 3u);
    EXPECT_FALSE(SharedCounter::isSettled(counter.load()));

    // The next writer neither settles the dead one's count nor skips past it.
    EXPECT_FALSE(counter.beginChange());
    EXPECT_EQ(counter.load(), 3u);
    EXPECT_EQ(counter.endChange(), 4u);
    unsetenv("ZQKELTMPSHAREDFILEDIR");
}

}  // namespace
}  // namespace osdep
}  // namespace kel
}  // namespace zq
