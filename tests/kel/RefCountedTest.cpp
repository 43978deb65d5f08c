#include "zq/kel/RefCounted.h"

#include <gtest/gtest.h>

#include <thread>

#include "source/OrvaneAtomicInt.h"
#include "zq/kel/AutoRef.h"

namespace zq {
namespace kel {
namespace {

class IThing : public RefCountedInterface<IThing> {
  public:
    virtual int value() const = 0;
};

class Thing : public RefCountedImplementation<IThing, RefCountedThreadSafePolicy> {
  public:
    explicit Thing(int* destroyed) : destroyed_(destroyed) {}
    ~Thing() override { ++*destroyed_; }
    int value() const override { return 7; }

  private:
    int* destroyed_;
};

TEST(RefCountedTest, LastReleaseRunsTheMostDerivedDestructorOnce) {
    int destroyed = 0;
    IThing* thing = new Thing(&destroyed);
    EXPECT_EQ(thing->addRef(), 1);
    EXPECT_EQ(thing->addRef(), 2);
    EXPECT_EQ(thing->release(), 1);
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(thing->release(), 0);
    EXPECT_EQ(destroyed, 1);
}

TEST(RefCountedTest, ConcurrentAddRefsAreAllCounted) {
    int destroyed = 0;
    auto* thing = new Thing(&destroyed);
    thing->addRef();
    constexpr int kTimes = 200000;
    auto hammer = [thing] {
        for (int i = 0; i < kTimes; ++i) {
            thing->addRef();
        }
    };
    std::thread a(hammer);
    std::thread b(hammer);
    a.join();
    b.join();
    EXPECT_EQ(thing->refCount(), 2 * kTimes + 1);

    auto drop = [thing] {
        for (int i = 0; i < kTimes; ++i) {
            thing->release();
        }
    };
    std::thread c(drop);
    std::thread d(drop);
    c.join();
    d.join();
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(thing->release(), 0);
    EXPECT_EQ(destroyed, 1);
}

TEST(RefCountedTest, AutoRefHoldsExactlyOneReference) {
    int destroyed = 0;
    auto* thing = new Thing(&destroyed);
    {
        AutoRef<IThing> empty;
        EXPECT_FALSE(empty);
        empty.reset();  // nothing to release

        AutoRef<IThing> a(thing);
        EXPECT_EQ(thing->refCount(), 1);
        AutoRef<IThing> b(a);
        EXPECT_EQ(thing->refCount(), 2);
        AutoRef<IThing> c(std::move(b));
        EXPECT_EQ(thing->refCount(), 2);
        EXPECT_FALSE(b);  // NOLINT(bugprone-use-after-move)
        c = a;
        EXPECT_EQ(thing->refCount(), 2);
        c.reset(thing);  // the same pointer again
        EXPECT_EQ(thing->refCount(), 2);
        c = std::move(a);
        EXPECT_EQ(thing->refCount(), 1);
        EXPECT_EQ(c->value(), 7);
        EXPECT_EQ((*c).value(), 7);
    }
    EXPECT_EQ(destroyed, 1);
}

TEST(RefCountedTest, AtomicIntWrapsLikeTheMachineWord) {
    osdep::AtomicInt n(INT32_MAX);
    EXPECT_EQ(n.increment(), INT32_MIN);
    EXPECT_EQ(n.decrement(), INT32_MAX);
    n.set(-3);
    EXPECT_EQ(n.get(), -3);

    // The handle counters of buckets and cases compare with counters and integers.
    orvane::OrvaneAtomicInt handles(1);
    const orvane::OrvaneAtomicInt other(3);
    EXPECT_TRUE(handles.lessOrEqual(other));
    EXPECT_FALSE(other.lessOrEqual(handles));
    EXPECT_TRUE(handles.lessOrEqual(1));
    EXPECT_EQ(handles.increment(), 2);
    EXPECT_FALSE(handles.lessOrEqual(1));
    EXPECT_EQ(handles.isAtomic(), 1);
}

}  // namespace
}  // namespace kel
}  // namespace zq
