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
    EXPECT_EQ(facts.st_size, 4096);  // the count, then the notes
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

// A note put by one process is found by another, for its file only. A file
// of the four bytes an older library made grows to hold notes and keeps its
// count.
TEST(SharedCounterTest, NotesAreSharedPerFile) {
    test::TempDir dir;
    setenv("ZQKELTMPSHAREDFILEDIR", dir.path().c_str(), 1);
    ASSERT_EQ(::mkdir(dir.file("counter").c_str(), 0777), 0);
    const uint32_t count = 6;
    dir.write("counter/__zq_orvane_BucketManager_lock__",
              std::string(reinterpret_cast<const char*>(&count), sizeof count));
    SharedCounter counter(kName);
    EXPECT_EQ(counter.load(), 6u);

    SharedCounter::FileNote note;
    EXPECT_FALSE(counter.findNote(8, 77, note));
    ASSERT_EQ(test::inChild([] {
                  SharedCounter own(kName);
                  SharedCounter::FileNote put;
                  put.device = 8;
                  put.inode = 77;
                  put.length = 4321;
                  put.digest[31] = 0xAB;
                  own.putNote(put);
                  return 0;
              }),
              0);
    ASSERT_TRUE(counter.findNote(8, 77, note));
    EXPECT_EQ(note.length, 4321);
    EXPECT_EQ(note.digest[31], 0xAB);
    EXPECT_FALSE(counter.findNote(9, 77, note));
    EXPECT_FALSE(counter.findNote(8, 77 + 32, note));  // the same slot, another file
    EXPECT_EQ(counter.load(), 6u);
    unsetenv("ZQKELTMPSHAREDFILEDIR");
}

}  // namespace
}  // namespace osdep
}  // namespace kel
}  // namespace zq
