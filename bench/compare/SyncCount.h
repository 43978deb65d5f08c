// Counts the calls that force data to stable storage, made by any code in
// this process: Orvane, SQLite and LMDB all reach the C library through the
// wrappers in SyncCount.cpp.
#ifndef ORVANE_BENCH_COMPARE_SYNCCOUNT_H
#define ORVANE_BENCH_COMPARE_SYNCCOUNT_H

#include <cstdint>

namespace compare {

struct SyncCount {
    uint64_t syncs = 0;       // fsync, fdatasync, msync(MS_SYNC), sync_file_range, syncfs, sync
    uint64_t syncWrites = 0;  // writes on a descriptor opened with O_SYNC or O_DSYNC

    uint64_t total() const { return syncs + syncWrites; }
};

SyncCount syncCount();

// Fails (returns false) when the wrappers do not see this program's own
// fdatasync or O_DSYNC write: then every count would silently read zero.
bool syncCountWorks(const char* directory);

}  // namespace compare

#endif
