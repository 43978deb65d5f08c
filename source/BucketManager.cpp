// Construction, transactions and the commit of the bucket manager.
#include "zq/orvane/BucketManager.h"

#include <cmath>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <limits>

#include "kel/osdep/FileSystem.h"
#include "kel/osdep/Mutex.h"
#include "kel/osdep/Path.h"
#include "kel/osdep/SharedCounter.h"
#include "kel/osdep/SharedLibrary.h"
#include "source/BucketCache.h"
#include "source/BucketName.h"
#include "source/BucketUpdateCache.h"
#include "source/DebugComparison.h"
#include "source/Guard.h"
#include "source/ManagerOptions.h"
#include "source/SingleFileBucketStore.h"
#include "source/TouchFile.h"
#include "zq/orvane/Bucket.h"

namespace zq {
namespace orvane {

namespace {

using kel::AutoRef;
using kel::Guid;
using kel::StatusChain;
using kel::WString;

constexpr ErrorCodes kManagerCodes{status::kFileSystem, status::kFileSystem, status::kUnexpected};
const wchar_t kProcessLockName[] = L"__zq_orvane_BucketManager_lock__";

uint32_t readCacheLimit(const Options& options) {
    // Kilobytes to bytes in 32 bits, as the read cache has always been sized.
    return static_cast<uint32_t>(options.number(Options::kMemoryCacheSizeLimitKB)) << 10;
}

uint32_t updateCacheLimit(const Options& options) {
    const double bytes = options.number(Options::kMemoryCacheSizeLimitKB) *
                         (options.number(Options::kMemoryCacheUpdatePct) / 100.0) * 1024.0;
    if (std::isnan(bytes) || bytes < 0) {
        return 0;
    }
    if (bytes >= 4294967296.0) {
        return std::numeric_limits<uint32_t>::max();
    }
    return static_cast<uint32_t>(bytes);
}

// Holds the process lock for the scope: files are changed by one process at
// a time. The hold is the manager's, like a transaction's, so it nests in an
// open transaction of this manager whatever thread began that.
class ProcessLockHold {
  public:
    explicit ProcessLockHold(kel::osdep::Mutex& lock) : lock_(lock) { lock_.lockForObject(); }
    ~ProcessLockHold() { lock_.unlockForObject(); }
    ProcessLockHold(const ProcessLockHold&) = delete;
    ProcessLockHold& operator=(const ProcessLockHold&) = delete;

  private:
    kel::osdep::Mutex& lock_;
};

}  // namespace

using CallbackEntry = int (*)(const char*);

struct BucketManager::Callbacks {
    std::unique_ptr<kel::osdep::SharedLibrary> library;
    CallbackEntry preInit = nullptr;
    CallbackEntry postCommit = nullptr;
    bool active = false;
};

BucketManager::BucketManager(const WString& dataDirectory, const WString& optionsFile,
                             StatusChain& status)
    : fs_(managerFileSystem()),
      dataDirectory_(dataDirectory),
      callbacks_(std::make_unique<Callbacks>()) {
    guarded(status, kManagerCodes, [&] { construct(optionsFile, status); });
}

void BucketManager::construct(const WString& optionsFile, StatusChain& status) {
    // A reader may have no right to make the lock file; it needs none.
    std::exception_ptr lockFailure;
    try {
        processLock_ = std::make_unique<kel::osdep::Mutex>(WString(kProcessLockName));
    } catch (...) {
        lockFailure = std::current_exception();
    }
    try {
        changeCounter();  // no other thread sees the manager yet
    } catch (...) {
        // Lookups look at the files every time; a change maps it first.
    }
    std::srand(static_cast<unsigned>(std::time(nullptr)));
    options_ = loadManagerOptions(optionsFile, status);
    if (status.isFatal()) {
        return;
    }
    readCache_ = AutoRef<BucketCache>(new BucketCache(readCacheLimit(*options_)));
    updateCache_ = AutoRef<BucketUpdateCache>(new BucketUpdateCache(updateCacheLimit(*options_)));
    settleDataDirectory(status);
    decideReadOnly(status);
    if (!readOnly_ && lockFailure) {
        std::rethrow_exception(lockFailure);
    }
    loadCallbacks(status);
    openStore(status);
    if (status.isNotFatal() && !readOnly_) {
        runDebugComparison();
    }
}

void BucketManager::settleDataDirectory(StatusChain& status) {
    if (status.isFatal()) {
        return;
    }
    if (dataDirectory_.empty()) {
        dataDirectory_ = Options::defaultRegistryDirectory();
    }
    // Checked before anything is created: a relative path would otherwise
    // make directories wherever the process happens to run.
    if (!kel::osdep::isAbsolute(dataDirectory_)) {
        status.setCode(status::kNotAbsolutePath);
        return;
    }
    // A reader by choice makes nothing, not even the directory.
    if (!fs_.isDirectory(dataDirectory_) && !askedToOnlyRead()) {
        fs_.createDirectories(dataDirectory_);
    }
    if (!fs_.isDirectory(dataDirectory_)) {
        status.setCode(status::kNotAbsolutePath);
    }
}

// Asked for, or forced: a process that may not write the directory or the
// data file reads, and changes nothing.
void BucketManager::decideReadOnly(const StatusChain& status) {
    if (status.isFatal()) {
        return;
    }
    const WString live = kel::osdep::join(dataDirectory_, WString(L"registry.bin"));
    readOnly_ = askedToOnlyRead() || !fs_.mayWrite(dataDirectory_) ||
                (fs_.stat(live).exists && !fs_.mayWrite(live));
}

bool BucketManager::askedToOnlyRead() const {
    return options_->flag(Options::kReadOnly) || managersOpenForReading();
}

void BucketManager::loadCallbacks(StatusChain& status) {
    if (status.isFatal() || options_->text(Options::kCallbackDLLName).empty()) {
        return;
    }
    using kel::osdep::SharedLibrary;
    callbacks_->library =
        std::make_unique<SharedLibrary>(options_->text(Options::kCallbackDLLName));
    callbacks_->preInit = reinterpret_cast<CallbackEntry>(
        callbacks_->library->getSymbol("OrvanePreInitCallback", SharedLibrary::kNullIfMissing));
    callbacks_->postCommit = reinterpret_cast<CallbackEntry>(
        callbacks_->library->getSymbol("OrvanePostCommitCallback", SharedLibrary::kNullIfMissing));
    if (callbacks_->preInit == nullptr || callbacks_->postCommit == nullptr) {
        status.setCode(status::kCallbackLibrary);
        return;
    }
    callbacks_->preInit(kel::NString(dataDirectory_).c_str());
    callbacks_->active = true;
}

// Recovery, compaction and the root's creation change files: they run under
// the process lock, so no other process sees them half done. A reader takes
// no lock and changes nothing.
void BucketManager::openStore(StatusChain& status) {
    if (status.isFatal()) {
        return;
    }
    auto store = std::make_unique<SingleFileBucketStore>(dataDirectory_, options_.get(), fs_);
    store->shareNotes(changes_.load(std::memory_order_acquire));
    if (readOnly_) {
        store->openForReading(status);
        store_ = std::move(store);
        reloadCaches(status.getCode(), status);
        return;
    }
    ProcessLockHold hold(*processLock_);
    {
        kel::osdep::SharedCounter::Change change(changeCounter());
        removeTemporaryFiles(fs_, dataDirectory_);
        store_ = std::move(store);
        store_->open(storeOpenWord_, status);
    }
    if (status.isFatal()) {
        return;
    }
    reloadCaches(status.getCode(), status);
}

void BucketManager::runDebugComparison() {
    const int32_t mode = options_->number(Options::kDebugCompareRegAtStartMode);
    if (mode != 1 && mode != 2) {
        return;
    }
    StatusChain local;
    local.clear();
    DebugComparison comparison(*this, fs_, dataDirectory_,
                               options_->text(Options::kDebugCompareRegAtStartFile),
                               options_.get());
    if (mode == 2) {
        comparison.writeReference(local);
    } else {
        comparison.compare(local);
    }
}

BucketManager::~BucketManager() {
    // An open transaction ends with the manager: its pending changes are
    // dropped and the process lock goes back, whichever thread runs this.
    std::lock_guard<std::recursive_mutex> hold(transactionMutex_);
    if (!transactionId_.isNull() && processLock_) {
        transactionId_ = Guid();
        processLock_->unlockForObject();
    }
    delete changes_.load();
}

// ---------------------------------------------------------------- transactions

bool BucketManager::tryBeginTransaction(Guid& id, StatusChain& status) {
    return beginTransaction(false, id, status);
}

bool BucketManager::beginTransaction(Guid& id, StatusChain& status) {
    return beginTransaction(true, id, status);
}

// The wait for the process lock happens without the transaction mutex: other
// threads are not held up while another process commits, and the locks are
// always taken in one order (process lock, then transaction mutex). The hold
// is the manager's, not this thread's: any thread may commit and end.
bool BucketManager::beginTransaction(bool wait, Guid& id, StatusChain& status) {
    return guarded(status, kManagerCodes, [&] {
        {
            std::lock_guard<std::recursive_mutex> hold(transactionMutex_);
            if (store_ && readOnly_) {
                status.setCode(status::kReadOnly);
                return false;
            }
            if (!store_ || !transactionId_.isNull() || beginning_) {
                return false;
            }
            beginning_ = true;
        }
        bool locked = false;
        try {
            locked =
                wait ? (processLock_->lockForObject(), true) : processLock_->tryLockForObject();
        } catch (...) {
            std::lock_guard<std::recursive_mutex> hold(transactionMutex_);
            beginning_ = false;
            throw;
        }
        std::lock_guard<std::recursive_mutex> hold(transactionMutex_);
        beginning_ = false;
        if (!locked) {
            return false;
        }
        try {
            // Whatever other processes committed since is the base of this
            // transaction: the files are looked at every time.
            StatusChain caught;
            caught.clear();
            catchUp(caught);
            if (caught.isFatal()) {
                processLock_->unlockForObject();
                passOnError(status, caught);
                return false;
            }
            transactionId_ = Guid::generate();
        } catch (...) {
            processLock_->unlockForObject();
            status.setCode(status::kUnexpected);
            return false;
        }
        id = transactionId_;
        return true;
    });
}

bool BucketManager::endTransaction(const Guid& id, StatusChain& status) {
    return guarded(status, kManagerCodes, [&] {
        std::lock_guard<std::recursive_mutex> hold(transactionMutex_);
        updateMode_ = false;
        if (transactionId_.isNull() || id != transactionId_) {
            return false;
        }
        updateCache_->clear();
        transactionId_ = Guid();
        processLock_->unlockForObject();
        return true;
    });
}

bool BucketManager::getTransactionId(Guid& id, StatusChain& status) {
    if (status.isFatal()) {
        return false;
    }
    std::lock_guard<std::recursive_mutex> hold(transactionMutex_);
    id = transactionId_;
    return !id.isNull();
}

bool BucketManager::beginUpdate(const Guid& id, StatusChain& status) {
    return guarded(status, kManagerCodes, [&] {
        std::lock_guard<std::recursive_mutex> hold(transactionMutex_);
        if (!store_) {
            return false;
        }
        if (transactionId_.isNull() || id != transactionId_) {
            status.setCode(status::kWrongUpdateId);
            return false;
        }
        if (updateMode_) {
            status.setCode(status::kAlreadyUpdating);
            return false;
        }
        updateMode_ = true;
        updateCache_->clear();
        return true;
    });
}

bool BucketManager::checkChange(const Guid& id, StatusChain& status) const {
    if (!store_) {
        return false;
    }
    if (transactionId_.isNull() || id != transactionId_) {
        status.setCode(status::kWrongUpdateId);
        return false;
    }
    if (!updateMode_) {
        status.setCode(status::kNotUpdating);
        return false;
    }
    return true;
}

bool BucketManager::commit(const Guid& id, StatusChain& status) {
    return guarded(status, kManagerCodes, [&] {
        std::lock_guard<std::recursive_mutex> hold(transactionMutex_);
        if (!checkChange(id, status)) {
            return false;
        }
        commitPending(status);
        updateMode_ = false;
        if (callbacks_->active && status.isNotFatal()) {
            callbacks_->postCommit(kel::NString(dataDirectory_).c_str());
        }
        return true;
    });
}

// With the process lock held, or before the manager is shared. Another process's lookup that finds
// the count it last looked at would miss the change: a change without the counter fails.
kel::osdep::SharedCounter& BucketManager::changeCounter() {
    kel::osdep::SharedCounter* counter = changes_.load(std::memory_order_acquire);
    if (counter == nullptr) {
        counter = new kel::osdep::SharedCounter(WString(kProcessLockName));
        changes_.store(counter, std::memory_order_release);
    }
    return *counter;
}

// Under the process lock. Once the change ends, the files are as this
// process left them and the count says so: its next transaction and its
// lookups need not look at the files until the count moves again.
void BucketManager::commitPending(StatusChain& status) {
    guarded(status, kManagerCodes, [&] {
        kel::osdep::SharedCounter::Change change(changeCounter());
        updateCache_->writeBack(*readCache_, *store_, status);
        const uint32_t after = change.end();
        if (status.isNotFatal()) {
            validated_.store(after, std::memory_order_release);
            leftAt_ = after;
        }
    });
}

// When another process committed or compacted since this one last looked,
// every cached bucket may be stale. Every change of the files makes the
// shared count odd before it starts and even once it is durable. The count is
// read before the files are looked at, so a commit completed before this
// lookup began either preceded that read, and the look sees it, or moved the
// count past it. Hence an even count equal to the one read before a complete
// look means the files are as that look found them. A writer that died keeps
// the count odd: every lookup looks until the next change completes. (A
// 32-bit count wraps only after 2^31 changes between two lookups.)
void BucketManager::dropStaleCaches() {
    using kel::osdep::SharedCounter;
    if (!store_) {
        return;
    }
    const SharedCounter* counter = changes_.load(std::memory_order_acquire);
    const uint32_t seen = counter != nullptr ? counter->load() : 1;
    if (SharedCounter::isSettled(seen) && seen == validated_.load(std::memory_order_acquire)) {
        return;
    }
    StatusChain local;
    local.clear();
    const IBucketStore::Refresh found = store_->refresh(local);
    if (found == IBucketStore::Refresh::kChanged) {
        readCache_->clearTo(store_->viewVersion());
    }
    // Stored after the cache is cleared: a thread that skips on it finds
    // the cache as fresh as this look left it.
    if (SharedCounter::isSettled(seen) && local.isNotFatal() &&
        found != IBucketStore::Refresh::kUnsettled) {
        validated_.store(seen, std::memory_order_release);
    }
}

// Under the process lock, before this process writes.
//
// A settled count that has not moved since this process itself last changed
// or looked at the files means nobody else did: every process that changes
// them moves the count first, and one that dies half way leaves it odd.
void BucketManager::catchUp(StatusChain& status) {
    if (!store_) {
        return;
    }
    const kel::osdep::SharedCounter* counter = changes_.load(std::memory_order_acquire);
    const uint32_t seen = counter != nullptr ? counter->load() : 1;
    if (kel::osdep::SharedCounter::isSettled(seen) && seen == leftAt_) {
        return;
    }
    if (store_->catchUp(status)) {
        readCache_->clearTo(store_->viewVersion());
    }
    if (status.isNotFatal() && kel::osdep::SharedCounter::isSettled(seen)) {
        leftAt_ = seen;
    }
}

void BucketManager::reloadCaches(int32_t code, StatusChain& status) {
    guarded(status, kManagerCodes, [&] {
        if (!store_) {
            return;
        }
        readCache_->clear(code);
        readCache_->clearTo(store_->viewVersion());
        updateCache_->clear();
        const WString root(L"/");
        StatusChain read;
        read.clear();
        AutoRef<IBucket> held = store_->readBucket(root, read);
        if (read.getCode() == status::kOutsideFile) {
            // A root behind damage: what newer segments hold is still
            // served, and the open says so.
            status.setCode(status::kStoreDamaged);
            return;
        }
        status.merge(read);
        if (status.isFatal()) {
            return;
        }
        if (held) {
            bool replace = true;
            readCache_->insertBucket(held, &replace, status);
            return;
        }
        if (readOnly_) {
            return;  // a writer makes the root
        }
        // A new store always holds its root.
        ProcessLockHold lock(*processLock_);
        std::lock_guard<std::recursive_mutex> hold(transactionMutex_);
        AutoRef<IBucket> fresh(new Bucket(root, true));
        if (putLocked(fresh, IBucket::kMergeOverwriting, false, status)) {
            commitPending(status);
        }
    });
}

void BucketManager::purgeStore() {
    StatusChain local;
    local.clear();
    if (!store_ || readOnly_) {
        return;
    }
    // Inside an open transaction of this manager, begun on any thread, the
    // purge runs under that transaction's hold and between its operations;
    // the transaction stays open, and what it had pending goes with the files.
    ProcessLockHold hold(*processLock_);
    std::lock_guard<std::recursive_mutex> transaction(transactionMutex_);
    updateCache_->clear();
    kel::osdep::SharedCounter::Change change(changeCounter());
    store_->close(local);
    const WString reference =
        DebugComparison::referenceName(options_->text(Options::kDebugCompareRegAtStartFile));
    for (const WString& path : fs_.findFiles(kel::osdep::join(dataDirectory_, WString(L"*.*")))) {
        const WString name = kel::osdep::baseName(path);
        if (fs_.isDirectory(path) || name == WString(L"debugRunCounter.txt") || name == reference) {
            continue;
        }
        fs_.removeFile(path, kel::osdep::FileSystem::kRemoveMustExist);
    }
    // A purge that returns stays done, even when the reopen below fails and
    // never syncs the directory itself.
    fs_.syncDirectory(dataDirectory_);
    local.clear();
    store_->open(storeOpenWord_, local);
}

// ---------------------------------------------------------------- names

void BucketManager::getDataDirectory(WString& directory, StatusChain& status) {
    if (status.isNotFatal()) {
        directory = dataDirectory_;
    }
}

WString BucketManager::getDefaultDataDirectory(StatusChain& status) {
    return guarded(status, kManagerCodes, [] {
        WString directory = Options::defaultRegistryDirectory();
        directory += L"/";
        return directory;
    });
}

WString BucketManager::getParentName(const WString& fullName, StatusChain& status) {
    return guarded(status, kManagerCodes, [&] { return BucketName::parentName(fullName); });
}

WString BucketManager::getShortName(const WString& fullName, StatusChain& status) {
    return guarded(status, kManagerCodes, [&] { return BucketName::shortName(fullName); });
}

Digest BucketManager::createDigest(const WString& fullName, StatusChain& status) {
    return guarded(status, kManagerCodes, [&] {
        return BucketName::check(fullName, status) ? Digest(fullName) : Digest();
    });
}

AutoRef<IBucketCase> BucketManager::createBucketCase(StatusChain& status) {
    return guarded(status, kManagerCodes, [] { return AutoRef<IBucketCase>(new BucketCase()); });
}

}  // namespace orvane
}  // namespace zq
