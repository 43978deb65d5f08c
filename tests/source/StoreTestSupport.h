#ifndef ZQ_TESTS_SOURCE_STORETESTSUPPORT_H
#define ZQ_TESTS_SOURCE_STORETESTSUPPORT_H

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "source/SingleFileBucketStore.h"
#include "zq/orvane/Bucket.h"
#include "zq/orvane/StatusCodes.h"

namespace zq {
namespace test {

using kel::AutoRef;
using kel::StatusChain;
using kel::WString;
using orvane::IBucket;
using orvane::IBucketStore;

inline StatusChain okStatus() {
    StatusChain status;
    status.clear();
    return status;
}

// A bucket holding one value, "v" = `value`; -1 makes an empty bucket.
inline AutoRef<IBucket> makeBucket(const std::wstring& name, int32_t value = -1) {
    AutoRef<IBucket> bucket(new orvane::Bucket(WString(name.c_str())));
    if (value != -1) {
        StatusChain status = okStatus();
        bucket->setInt32Value(WString(L"v"), value, status, true);
    }
    return bucket;
}

// What the store holds, as name -> value of "v" (-1 for a bucket without).
using State = std::map<std::wstring, int32_t>;

// Commits `changes` (value -2 deletes the name) and applies them to `state`.
// Each updated bucket also holds a blob "pad" of `padding` bytes, e.g. to
// make the commit's segment larger than one piece of the writer.
inline void commitChanges(IBucketStore& store, const State& changes, State* state,
                          StatusChain& status, uint32_t padding = 0) {
    IBucketStore::UpdatedBuckets updated;
    IBucketStore::DeletedNames deleted;
    const std::vector<unsigned char> pad(padding, 0x5a);
    for (const auto& [name, value] : changes) {
        if (value == -2) {
            deleted.insert(WString(name.c_str()));
            continue;
        }
        AutoRef<IBucket> bucket = makeBucket(name, value);
        if (padding != 0) {
            StatusChain padded = okStatus();
            bucket->setBlobValue(WString(L"pad"), pad.data(), padding, padded, true);
        }
        updated[WString(name.c_str())] = bucket;
    }
    store.commit(updated, deleted, status);
    if (state != nullptr && status.isNotFatal()) {
        for (const auto& [name, value] : changes) {
            if (value == -2) {
                state->erase(name);
            } else {
                (*state)[name] = value;
            }
        }
    }
}

// Reads every name of `names` back; fails the test on any error.
inline State readState(IBucketStore& store, const std::set<std::wstring>& names) {
    State state;
    for (const std::wstring& name : names) {
        StatusChain status = okStatus();
        AutoRef<IBucket> bucket = store.readBucket(WString(name.c_str()), status);
        EXPECT_TRUE(status.isNotFatal()) << status.getCode();
        if (!bucket) {
            continue;
        }
        EXPECT_FALSE(bucket->isModified());
        StatusChain valueStatus = okStatus();
        AutoRef<orvane::IBucketValue> value = bucket->getValue(WString(L"v"), valueStatus);
        state[name] = value ? value->getInt32(valueStatus) : -1;
    }
    return state;
}

// Opens a store on `dir` and commits each of `commits` in turn; the store is
// closed again on return. Fails the test on any error.
inline void commitInTurn(const WString& dir, std::initializer_list<State> commits,
                         kel::osdep::FileSystem& fs, uint32_t padding = 0) {
    orvane::SingleFileBucketStore store(dir, nullptr, fs);
    StatusChain status = okStatus();
    store.open(0, status);
    for (const State& changes : commits) {
        commitChanges(store, changes, nullptr, status, padding);
    }
    EXPECT_EQ(status.getCode(), 0);
}

inline std::set<std::wstring> namesOf(const std::vector<State>& states) {
    std::set<std::wstring> names;
    for (const State& state : states) {
        for (const auto& entry : state) {
            names.insert(entry.first);
        }
    }
    return names;
}

}  // namespace test
}  // namespace zq

#endif  // ZQ_TESTS_SOURCE_STORETESTSUPPORT_H
