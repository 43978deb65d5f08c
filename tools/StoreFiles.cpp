#include "StoreFiles.h"

#include <cstring>
#include <map>

#include "Session.h"
#include "Text.h"
#include "Tool.h"
#include "Tree.h"
#include "kel/osdep/FileSystem.h"
#include "kel/osdep/Mutex.h"
#include "source/Options.h"
#include "source/TouchFile.h"
#include "zq/kel/OSException.h"
#include "zq/orvane/Bucket.h"

namespace orvane_tool {

using zq::kel::AutoRef;
using zq::kel::WString;
using zq::orvane::Bucket;
using zq::orvane::Digest;
using zq::orvane::DigestKey;
using zq::orvane::IBucketValue;
using zq::orvane::StoreCheck;

std::string defaultDataDirectory() {
    return zq::kel::NString(zq::orvane::Options::defaultRegistryDirectory()).c_str();
}

const wchar_t kProcessLockName[] = L"__zq_orvane_BucketManager_lock__";

ProcessLock::ProcessLock()
    : mutex_(std::make_unique<zq::kel::osdep::Mutex>(WString(kProcessLockName))) {
    mutex_->lock();
}

ProcessLock::~ProcessLock() { mutex_->unlock(); }

StoreCheck checkStore(const std::string& directory) {
    try {
        StoreCheck check(zq::kel::osdep::FileSystem::posix(), WString(directory.c_str()));
        if (!check.found()) throw ToolError(kExitNotFound, "no registry in " + directory);
        return check;
    } catch (const zq::kel::osdep::PosixError& e) {
        throw ToolError(kExitStore, "cannot read the registry in " + directory + ": " +
                                        std::strerror(e.osErrorCode()));
    }
}

LockedStore::LockedStore(const Globals& globals, const std::string& directory)
    : changes_(std::make_unique<zq::kel::osdep::SharedCounter>(WString(kProcessLockName))),
      change_(std::make_unique<zq::kel::osdep::SharedCounter::Change>(*changes_)),
      globals_(globals),
      directory_(directory) {}

LockedStore::~LockedStore() {
    try {
        close();
    } catch (...) {
        // The files stay as the command left them.
    }
}

zq::orvane::SingleFileBucketStore& LockedStore::open(zq::kel::StatusChain& status) {
    const WString directory(directory_.c_str());
    // The options give the files the owner and mode the library uses.
    options_ = std::make_unique<zq::orvane::Options>(
        zq::orvane::Options::findOptionsFile(WString(absolutePath(globals_.optionsFile).c_str())),
        status);
    checkStatus(status, "reading the options");
    zq::kel::osdep::FileSystem& fs = zq::kel::osdep::FileSystem::posix();
    zq::orvane::removeTemporaryFiles(fs, directory);
    store_ = std::make_unique<zq::orvane::SingleFileBucketStore>(directory, options_.get(), fs);
    store_->open(0, status);
    checkStatus(status, "opening the store");
    return *store_;
}

void LockedStore::close() {
    if (!store_) return;
    zq::kel::StatusChain status;
    status.clear();
    store_->close(status);
    store_.reset();
    checkStatus(status, "closing the store");
}

namespace {

const char kData[] = "registry.bin";

struct LiveBucket {
    AutoRef<Bucket> bucket;
    int64_t offset;
};

// Every live record decoded; the ones that do not decode are problems.
std::map<DigestKey, LiveBucket> decodeLive(StoreCheck& check) {
    std::map<DigestKey, LiveBucket> decoded;
    for (const auto& [digest, record] : check.live()) {
        const std::vector<unsigned char> content = check.recordContent(record);
        const unsigned char* begin = content.data();
        const unsigned char* end = begin + content.size();
        const unsigned char* cursor = begin;
        AutoRef<Bucket> bucket(new Bucket());
        try {
            bucket->deserialize(cursor, end);
        } catch (const std::exception&) {
            check.addProblem(kData, record.offset + 8, "the record does not decode as a bucket");
            continue;
        }
        if (cursor != end) {
            check.addProblem(kData, record.offset,
                             "the record is " + std::to_string(record.length) +
                                 " bytes but its bucket " + std::to_string(cursor - begin));
        }
        if (zq::orvane::keyOf(bucket->getDigest()) != digest) {
            check.addProblem(kData, record.entry,
                             "the index entry's digest is not that of the bucket " +
                                 quotedText(toUtf8(bucket->getFullName())));
            continue;
        }
        decoded.emplace(digest, LiveBucket{bucket, record.offset});
    }
    return decoded;
}

void checkLinks(StoreCheck& check, const std::map<DigestKey, LiveBucket>& live) {
    for (const auto& [digest, entry] : live) {
        Bucket& bucket = *entry.bucket;
        const std::string name = toUtf8(bucket.getFullName());
        const int64_t offset = entry.offset;  // a structured binding is not captured before C++20
        forEachValue(bucket, [&](const WString& valueName, const AutoRef<IBucketValue>& value) {
            if (!isChildLink(bucket, valueName, *value)) return;
            if (live.count(zq::orvane::keyOf(Digest(valueName))) == 0) {
                check.addProblem(kData, offset,
                                 "bucket " + quotedText(name) + " links the child " +
                                     quotedText(toUtf8(valueName)) + ", which does not exist");
            }
        });
        if (bucket.getFullName() == WString(L"/")) continue;
        const WString parentName = parentPath(bucket.getFullName());
        const auto parent = live.find(zq::orvane::keyOf(Digest(parentName)));
        if (parent == live.end()) {
            check.addProblem(
                kData, entry.offset,
                "bucket " + quotedText(name) + " has no parent " + quotedText(toUtf8(parentName)));
            continue;
        }
        zq::kel::StatusChain status;
        status.clear();
        AutoRef<IBucketValue> link = parent->second.bucket->getValue(bucket.getFullName(), status);
        if (!link || !isChildLink(*parent->second.bucket, bucket.getFullName(), *link)) {
            check.addProblem(kData, entry.offset,
                             "bucket " + quotedText(name) + " is not linked from its parent " +
                                 quotedText(toUtf8(parentName)));
        }
    }
    if (!check.live().empty() &&
        check.live().count(zq::orvane::keyOf(Digest(WString(L"/")))) == 0) {
        check.addProblem(kData, check.committedLength(), "the root bucket \"/\" is missing");
    }
}

}  // namespace

StoreCheck checkRegistry(const std::string& directory) {
    StoreCheck check = checkStore(directory);
    checkLinks(check, decodeLive(check));
    return check;
}

OfflineView::OfflineView(const std::string& directory) {
    ProcessLock lock;
    try {
        check_ = std::make_unique<StoreCheck>(checkStore(directory));
    } catch (const ToolError& e) {
        if (e.code() != kExitNotFound) throw;
    }
}

bool OfflineView::exists(const WString& path) const {
    return path == WString(L"/") ||
           (check_ && check_->live().count(zq::orvane::keyOf(zq::orvane::Digest(path))) != 0);
}

zq::kel::AutoRef<zq::orvane::IBucket> OfflineView::find(const WString& path) const {
    if (!check_) return {};
    const auto found = check_->live().find(zq::orvane::keyOf(zq::orvane::Digest(path)));
    if (found == check_->live().end()) return {};
    const std::vector<unsigned char> content = check_->recordContent(found->second);
    const unsigned char* cursor = content.data();
    zq::kel::AutoRef<zq::orvane::IBucket> bucket(new zq::orvane::Bucket());
    try {
        bucket->deserialize(cursor, content.data() + content.size());
    } catch (const std::exception&) {
        return {};  // the library's own read reports it
    }
    return bucket;
}

}  // namespace orvane_tool
