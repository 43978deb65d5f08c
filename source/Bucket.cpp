#include "zq/orvane/Bucket.h"

#include <cerrno>
#include <cstdio>
#include <new>
#include <utility>

#include "kel/Throw.h"
#include "source/BucketContents.h"
#include "source/BucketName.h"
#include "source/BucketNames.h"
#include "source/Guard.h"
#include "source/RecordReader.h"
#include "source/RecordWriter.h"
#include "source/ValueTraits.h"

namespace zq {
namespace orvane {

using kel::AutoRef;
using kel::NString;
using kel::StatusChain;
using kel::WString;

namespace {

constexpr uint32_t kRecordFormatVersion = 1;
// Format version, version, name length and entry count.
constexpr uint32_t kRecordFixedSize = 16;
// The smallest entry: an empty name and an unset value.
constexpr size_t kMinEntrySize = 4 + 8;
constexpr uint32_t kBucketMemory = 228;

constexpr ErrorCodes kBucketCodes = {status::kUnexpected, status::kUnexpected, status::kUnexpected};

using Lock = std::lock_guard<std::mutex>;

uint32_t characterMemory(const WString& text) { return static_cast<uint32_t>(text.capacity()) * 4; }

const char* yesNo(bool flag) { return flag ? "true" : "false"; }

NString digestText(const Digest& digest) {
    WString text;
    return NString(digest.getString(text));
}

// A fresh status for an inner step whose outcome the caller filters.
StatusChain cleared() {
    StatusChain status;
    status.clear();
    return status;
}

}  // namespace

Bucket::Bucket()
    : names_(BucketNames::empty()),
      persistentFlag_(true),
      version_(0),
      modified_(true),
      modifiedTime_(kel::AbsoluteTime::now()) {
    new (contentsStorage_) BucketContents();
    static_assert(sizeof(BucketContents) <= sizeof contentsStorage_ &&
                      alignof(BucketContents) <= alignof(std::max_align_t),
                  "the bucket's inline room is too small for its contents");
}

Bucket::Bucket(const WString& fullName, bool persistent) : Bucket() {
    persistentFlag_ = persistent;
    setNames(fullName);
}

// Not through Bucket(): a lookup's copy would make and drop an empty map and
// read the clock for nothing. The source's lock is held from the first field
// to the last.
Bucket::Bucket(const Bucket& other) : Bucket(other, Lock(other.mutex_)) {}

Bucket::Bucket(const Bucket& other, const Lock& /*held*/)
    : names_(other.names_),
      fileName_(other.fileName_),
      persistentFlag_(other.persistentFlag_),
      version_(other.version_),
      modified_(other.modified_),
      modifiedTime_(other.modifiedTime_) {
    new (contentsStorage_) BucketContents(*other.contents());
}

Bucket::~Bucket() { contents()->~BucketContents(); }

BucketContents* Bucket::contents() const {
    return std::launder(reinterpret_cast<BucketContents*>(contentsStorage_));
}

void Bucket::setNames(WString fullName, const Digest* digest) {
    if (fullName == names_->full()) {
        return;  // everything derived from it is already in place
    }
    // Everything that allocates comes first, so running out of memory leaves
    // the old names in place.
    auto names = std::make_shared<const BucketNames>(std::move(fullName), digest);
    WString noFileName;  // the old one belongs to the old name
    names_ = std::move(names);
    fileName_ = std::move(noFileName);
}

void Bucket::touch() {
    modified_ = true;
    modifiedTime_ = kel::AbsoluteTime::now();
}

// ---- storing

bool Bucket::storeValue(const WString& name, const AutoRef<BucketValue>& value, StatusChain& status,
                        bool replace) {
    if (name.empty()) {
        status.setCode(status::kEmptyName);
        return false;
    }
    if (!value) {
        status.setCode(status::kNullValue);
        return false;
    }
    if (!isKnownType(value->getType())) {
        status.setCode(status::kWrongType);
        return false;
    }
    if (BucketName::isLinkName(name) && !mayTakeLinkName(name, *value)) {
        status.setCode(status::kEmptyName);
        WString message(L"the value name \"");
        message += name;
        message += L"\" begins with \"/\": such names are the links to child buckets";
        status.setMessage(message);
        return false;
    }
    Lock lock(mutex_);
    switch (contents()->store(name, value, replace)) {
        case BucketContents::Outcome::kInserted:
            touch();
            return true;
        case BucketContents::Outcome::kUnchanged:
            return false;
        case BucketContents::Outcome::kConflict:
            status.setCode(status::kValueDiffers);
            return false;
        case BucketContents::Outcome::kReplaced:
            touch();
            status.setCode(status::kValueReplaced);
            return true;
    }
    return false;
}

// A value under a "/" name would hide the child of that name from every walk
// of the tree, so only the link to a child of this bucket may take one. A
// value of an older file, stored before the rule, may pass through a merge
// unchanged.
bool Bucket::mayTakeLinkName(const WString& name, const BucketValue& value) const {
    {
        Lock lock(mutex_);
        bool fresh = false;
        const AutoRef<BucketValue> held = contents()->find(name, fresh);
        if (held && held->equals(value)) return true;
    }
    return BucketName::isWellFormed(name) && name.length() > 1 &&
           kel::equalsNoCase(BucketName::parentName(name).c_str(), getFullName().c_str()) &&
           BucketName::isLinkTo(name, value);
}

// Makes a value with `fill` (one of the value's setters, which reports its own
// failure) and stores it.
template <class Fill>
bool Bucket::storeNew(const WString& name, StatusChain& status, bool replace, Fill&& fill) {
    return guarded(status, kBucketCodes, [&] {
        AutoRef<BucketValue> value(new BucketValue());
        if (!fill(*value)) {
            return false;
        }
        return storeValue(name, value, status, replace);
    });
}

bool Bucket::setValue(const WString& name, const AutoRef<IBucketValue>& value, StatusChain& status,
                      bool replace) {
    return guarded(status, kBucketCodes, [&] {
        if (name.empty()) {
            status.setCode(status::kEmptyName);
            return false;
        }
        if (!value) {
            status.setCode(status::kNullValue);
            return false;
        }
        // BucketValue is the only implementation of the interface.
        AutoRef<BucketValue> copy(new BucketValue(*static_cast<const BucketValue*>(value.get())));
        return storeValue(name, copy, status, replace);
    });
}

bool Bucket::setBlobValue(const WString& name, const unsigned char* bytes, uint32_t size,
                          StatusChain& status, bool replace) {
    return storeNew(name, status, replace,
                    [&](BucketValue& value) { return value.setBlob(bytes, size, status); });
}
bool Bucket::setDigestValue(const WString& name, const Digest& content, StatusChain& status,
                            bool replace) {
    return storeNew(name, status, replace,
                    [&](BucketValue& value) { return value.setDigest(content, status); });
}
bool Bucket::setAnsiStringValue(const WString& name, const NString& content, StatusChain& status,
                                bool replace) {
    return storeNew(name, status, replace,
                    [&](BucketValue& value) { return value.setAnsiString(content, status); });
}
bool Bucket::setStringValue(const WString& name, const WString& content, StatusChain& status,
                            bool replace) {
    return storeNew(name, status, replace,
                    [&](BucketValue& value) { return value.setString(content, status); });
}
bool Bucket::setAnsiStringArrayValue(const WString& name, const NString* elements, uint32_t count,
                                     StatusChain& status, bool replace) {
    return storeNew(name, status, replace, [&](BucketValue& value) {
        return value.setAnsiStringArray(elements, count, status);
    });
}
bool Bucket::setStringArrayValue(const WString& name, const WString* elements, uint32_t count,
                                 StatusChain& status, bool replace) {
    return storeNew(name, status, replace, [&](BucketValue& value) {
        return value.setStringArray(elements, count, status);
    });
}

#define ZQ_ORVANE_DEFINE(Name, Type, Tag, ArrayTag)                                               \
    bool Bucket::set##Name##Value(const WString& name, Type content, StatusChain& status,         \
                                  bool replace) {                                                 \
        return storeNew(name, status, replace,                                                    \
                        [&](BucketValue& value) { return value.set##Name(content, status); });    \
    }                                                                                             \
    bool Bucket::set##Name##ArrayValue(const WString& name, const Type* elements, uint32_t count, \
                                       StatusChain& status, bool replace) {                       \
        return storeNew(name, status, replace, [&](BucketValue& value) {                          \
            return value.set##Name##Array(elements, count, status);                               \
        });                                                                                       \
    }
ZQ_ORVANE_PLAIN_KINDS(ZQ_ORVANE_DEFINE)
#undef ZQ_ORVANE_DEFINE

bool Bucket::addChild(const WString& childName, StatusChain& status, bool replace) {
    return guarded(status, kBucketCodes, [&] {
        if (childName.empty()) {
            status.setCode(status::kEmptyName);
            return false;
        }
        const WString child = BucketName::childName(getFullName(), childName);
        return setDigestValue(child, Digest(child), status, replace);
    });
}

// ---- removing and reading

// With no status to report through, lack of memory (the values of a bucket
// read from the store are rewritten) leaves the value where it was.
bool Bucket::removeValue(const WString& name) {
    try {
        return removeValueOrThrow(name);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return false;
    }
}

bool Bucket::removeValueOrThrow(const WString& name) {
    Lock lock(mutex_);
    if (!contents()->remove(name)) {
        return false;
    }
    touch();
    return true;
}

bool Bucket::hasValue(const WString& name) const {
    Lock lock(mutex_);
    return contents()->contains(name);
}

void Bucket::removeAllValues() {
    Lock lock(mutex_);
    if (contents()->removeAll()) {
        touch();
    }
}

void Bucket::removeDataValues() {
    try {
        removeDataValuesOrThrow();
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;  // the values stay, as removeValue's do
    }
}

void Bucket::removeDataValuesOrThrow() {
    Lock lock(mutex_);
    if (contents()->removeAllButChildren()) {
        touch();
    }
}

AutoRef<IBucketValue> Bucket::getValue(const WString& name, StatusChain& status) const {
    return guarded(status, kBucketCodes, [&] {
        AutoRef<BucketValue> found;
        bool fresh = false;
        {
            Lock lock(mutex_);
            found = contents()->find(name, fresh);
        }
        if (!found || fresh) {
            return AutoRef<IBucketValue>(std::move(found));
        }
        // Stored values never change, so the copy is made outside the lock.
        return AutoRef<IBucketValue>(new BucketValue(*found));
    });
}

WString Bucket::getFullName() const {
    Lock lock(mutex_);
    return names_->full();
}
WString Bucket::getShortName() const {
    Lock lock(mutex_);
    return names_->shortName();
}
Digest Bucket::getDigest() const {
    Lock lock(mutex_);
    return names_->digest();
}
std::shared_ptr<const BucketNames> Bucket::names() const {
    Lock lock(mutex_);
    return names_;
}
Digest Bucket::getParentDigest() const {
    Lock lock(mutex_);
    return parentDigest();
}

Digest Bucket::parentDigest() const { return names_->parentDigest(); }

WString Bucket::getFileName() {
    Lock lock(mutex_);
    if (fileName_.empty()) {
        Digest digest;
        DigestString digits;
        Digest::calculateDigest(names_->full(), digest, digits);
        WString name(digits.c_str());
        name += L".bucket";
        fileName_ = std::move(name);
    }
    return fileName_;
}
bool Bucket::isPersistent() const {
    Lock lock(mutex_);
    return persistentFlag_;
}
uint32_t Bucket::getNumKeys() const {
    Lock lock(mutex_);
    return contents()->size();
}
uint32_t Bucket::getVersion() const {
    Lock lock(mutex_);
    return version_;
}
void Bucket::setVersion(uint32_t version) {
    Lock lock(mutex_);
    version_ = version;
}
bool Bucket::isModified() const {
    Lock lock(mutex_);
    return modified_;
}
kel::AbsoluteTime Bucket::getModifiedTime() const {
    Lock lock(mutex_);
    return modifiedTime_;
}

// ---- enumeration

uint32_t Bucket::openEnumeration() {
    Lock lock(mutex_);
    try {
        return contents()->openCursor();
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return 0;  // never a valid handle
    }
}

bool Bucket::closeEnumeration(uint32_t handle) {
    Lock lock(mutex_);
    return contents()->closeCursor(handle);
}

// One step of a cursor; the found entry's name and value are taken under the
// lock, the copy handed out is made after it.
bool Bucket::step(uint32_t handle, bool first, bool childrenOnly, WString* name,
                  AutoRef<BucketValue>& value, StatusChain* status) {
    Lock lock(mutex_);
    BucketContents::Entry entry;
    const BucketContents::Step step = first ? contents()->first(handle, childrenOnly, entry)
                                            : contents()->next(handle, childrenOnly, entry);
    switch (step) {
        case BucketContents::Step::kFound:
            if (name != nullptr) {
                *name = entry->second.name;
            }
            value = entry->second.value;
            return true;
        case BucketContents::Step::kUnknownHandle:
            status->setCode(status::kUnknownHandle);
            return false;
        case BucketContents::Step::kInvalidated:
            status->setCode(status::kCursorInvalidated);
            return false;
        case BucketContents::Step::kEnd:
            break;
    }
    return false;
}

bool Bucket::getFirstValue(uint32_t handle, WString& name, AutoRef<IBucketValue>& value) {
    StatusChain unused = cleared();  // no status to report through: the caller sees the end
    return stepValue(handle, true, name, value, unused);
}

bool Bucket::getNextValue(uint32_t handle, WString& name, AutoRef<IBucketValue>& value,
                          StatusChain& status) {
    return stepValue(handle, false, name, value, status);
}

bool Bucket::stepValue(uint32_t handle, bool first, WString& name, AutoRef<IBucketValue>& value,
                       StatusChain& status) {
    return guarded(status, kBucketCodes, [&] {
        AutoRef<BucketValue> found;
        if (!step(handle, first, false, &name, found, &status)) {
            return false;
        }
        value = AutoRef<IBucketValue>(new BucketValue(*found));
        return true;
    });
}

bool Bucket::getFirstChild(uint32_t handle, Digest& child) {
    try {
        StatusChain inner = cleared();
        AutoRef<BucketValue> found;
        if (!step(handle, true, true, nullptr, found, &inner)) {
            return false;
        }
        child = found->getDigest(inner);
        return true;
    } catch (...) {
        return false;
    }
}

bool Bucket::getNextChild(uint32_t handle, Digest& child, StatusChain& status) {
    return guarded(status, kBucketCodes, [&] {
        AutoRef<BucketValue> found;
        if (!step(handle, false, true, nullptr, found, &status)) {
            return false;
        }
        child = found->getDigest(status);
        return true;
    });
}

// ---- update and comparison

// Stored one by one into no values, `given`'s values would come out as they
// are: they are shared whole instead. False when there are values here.
bool Bucket::adoptFrom(const Bucket& given) {
    std::scoped_lock both(mutex_, given.mutex_);
    if (contents()->size() != 0 || given.contents()->size() == 0) {
        return false;
    }
    contents()->shareValues(*given.contents());
    return true;
}

std::unique_ptr<BucketContents> Bucket::snapshotValues() const {
    Lock lock(mutex_);
    return std::make_unique<BucketContents>(*contents());
}

// Another implementation's values, through its enumeration: each step hands
// out a copy that is ours to keep. The walk runs under a handle drawn from
// this bucket while its cursor lives in the other one, as existing callers
// expect.
template <class Take>
void Bucket::mergeWalk(IBucket& other, Take& take, StatusChain& status) {
    const uint32_t handle = openEnumeration();
    if (handle == 0) {
        throw std::bad_alloc();  // the only reason for no handle
    }
    WString name;
    AutoRef<IBucketValue> value;
    StatusChain walk = cleared();
    for (bool more = other.getFirstValue(handle, name, value); more;
         more = other.getNextValue(handle, name, value, walk)) {
        if (!take(name, AutoRef<BucketValue>(static_cast<BucketValue*>(value.get())))) {
            break;
        }
    }
    closeEnumeration(handle);
    status.merge(walk);
}

bool Bucket::update(const AutoRef<IBucket>& other, int32_t mode, StatusChain& status) {
    return guarded(status, kBucketCodes, [&] {
        // A bucket merged with itself stays as it is (mode 1 would empty it).
        if (!other || other.get() == this || !sameNameAs(*other)) {
            return false;
        }
        if (mode != kReplaceAll && mode != kMergeOverwriting && mode != kMergeKeeping) {
            status.setCode(status::kBadMode);
            return false;
        }
        if (mode == kReplaceAll) {
            removeAllValues();
        }
        const bool replace = mode != kMergeKeeping;
        bool stored = false;
        // False once the merge must stop.
        auto take = [&](const WString& name, const AutoRef<BucketValue>& value) {
            StatusChain one = cleared();
            stored |= storeValue(name, value, one, replace);
            if (one.getCode() != status::kValueDiffers) {
                status.merge(one);  // a replace warning or an error
            }
            return status.isNotFatal();
        };
        if (const auto* own = dynamic_cast<const Bucket*>(other.get())) {
            // Values never change once stored, so they are shared, not copied.
            if (adoptFrom(*own)) {
                stored = true;
            } else {
                const std::unique_ptr<BucketContents> given = own->snapshotValues();
                for (const auto& entry : given->values()) {
                    if (!take(entry.second.name, entry.second.value)) {
                        break;
                    }
                }
            }
        } else {
            mergeWalk(*other, take, status);
        }
        if (stored) {
            const uint32_t version = other->getVersion();
            Lock lock(mutex_);
            contents()->invalidateCursors();
            version_ = version;
            touch();
        }
        return stored;
    });
}

// Copies share their names, so the usual case is one pointer comparison.
bool Bucket::sameNameAs(const IBucket& other) const {
    const std::shared_ptr<const BucketNames> mine = names();
    if (const auto* own = dynamic_cast<const Bucket*>(&other)) {
        const std::shared_ptr<const BucketNames> theirs = own->names();
        return theirs == mine || theirs->full() == mine->full() ||
               kel::equalsNoCase(theirs->full().c_str(), mine->full().c_str());
    }
    return kel::equalsNoCase(other.getFullName().c_str(), mine->full().c_str());
}

bool Bucket::isEqual(const AutoRef<IBucket>& a, const AutoRef<IBucket>& b) const {
    if (!a || !b) {
        return !a && !b;
    }
    // Bucket is the only implementation of the interface.
    return static_cast<const Bucket*>(a.get())->isEqualTo(*static_cast<const Bucket*>(b.get()));
}

// Lack of memory (a stored bucket decodes its values to compare them) reads
// as unequal, with errno ENOMEM: there is no status to report through.
bool Bucket::isEqualTo(const Bucket& other) const {
    if (&other == this) {
        return true;
    }
    try {
        return sameContentAs(other);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return false;
    }
}

bool Bucket::sameContentAs(const Bucket& other) const {
    if (!kel::equalsNoCase(getFullName().c_str(), other.getFullName().c_str()) ||
        serializationSize() != other.serializationSize()) {
        return false;
    }
    std::scoped_lock both(mutex_, other.mutex_);
    if (contents()->size() != other.contents()->size()) {
        return false;
    }
    for (const auto& entry : contents()->values()) {
        bool fresh = false;
        const AutoRef<BucketValue> match = other.contents()->find(entry.second.name, fresh);
        if (!match || !entry.second.value->equals(*match)) {
            return false;
        }
    }
    return true;
}

// ---- the record

uint32_t Bucket::recordSize() const {
    uint32_t size = kRecordFixedSize + names_->full().serializationSize() - 4;
    if (const EncodedValues* encoded = contents()->encoded()) {
        return size + encoded->size();
    }
    for (const auto& entry : contents()->values()) {
        size += entry.second.name.serializationSize() + entry.second.value->serializationSize();
    }
    return size;
}

uint32_t Bucket::serializationSize() const {
    Lock lock(mutex_);
    return recordSize();
}

void Bucket::serialize(unsigned char*& cursor, const unsigned char* end) const {
    Lock lock(mutex_);
    RecordWriter writer(cursor, end);
    writer.require(recordSize());
    writeFields(writer);
}

void Bucket::writeRecord(RecordWriter& writer) const {
    Lock lock(mutex_);
    writeFields(writer);
}

void Bucket::writeFields(RecordWriter& writer) const {
    writer.u32(kRecordFormatVersion);
    writer.u32(version_);
    writer.serialized(names_->full());
    writer.u32(contents()->size());
    if (const EncodedValues* encoded = contents()->encoded()) {
        writer.bytes(encoded->data(), encoded->size());
        return;
    }
    for (const auto& entry : contents()->values()) {
        writer.serialized(entry.second.name);
        entry.second.value->writeRecord(writer);
    }
}

// The whole record is read before anything of this bucket changes, so a
// damaged record leaves the bucket as it was.
void Bucket::deserialize(const unsigned char*& cursor, const unsigned char* end) {
    try {
        readRecord(cursor, end, nullptr, nullptr);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        ZQ_THROW(DeserializationError);
    }
}

void Bucket::deserializeFound(const unsigned char*& cursor, const unsigned char* end,
                              const WString& name, const Digest& digest) {
    readRecord(cursor, end, &name, &digest);
}

void Bucket::readRecord(const unsigned char*& cursor, const unsigned char* end, const WString* name,
                        const Digest* digest) {
    try {
        RecordReader reader(cursor, end);
        reader.u32();  // the format version: never checked
        const uint32_t version = reader.u32();
        WString fullName;
        fullName.deserialize(reader.cursor(), reader.end());
        const uint32_t count = reader.u32();
        reader.requireItems(count, kMinEntrySize);
        BucketContents read;
        WString entry;  // decoded into again and again: its storage is reused
        for (uint32_t i = read.adoptEncoded(reader, count) ? count : 0; i < count; ++i) {
            entry.deserialize(reader.cursor(), reader.end());
            AutoRef<BucketValue> value(new BucketValue());
            value->readRecord(reader.cursor(), reader.end());
            // As setValue with replace: an unset value or an empty name is
            // not stored, a later entry of the same name wins.
            if (!entry.empty() && isKnownType(value->getType())) {
                read.store(entry, std::move(value), true);
            }
        }
        const bool named = name != nullptr && fullName == *name;
        Lock lock(mutex_);
        setNames(std::move(fullName), named ? digest : nullptr);
        version_ = version;
        contents()->swapValues(read);
        modifiedTime_ = kel::AbsoluteTime::now();
        modified_ = false;
    } catch (const kel::exception::DeserializationError&) {
        throw;
    } catch (const kel::exception::Exception&) {
        ZQ_THROW(DeserializationError);  // bad UTF-8 in a name
    }
}

// ---- accounting and dumps

uint32_t Bucket::getMemUsage() const {
    Lock lock(mutex_);
    return memUsageLocked();
}

uint32_t Bucket::memUsageLocked() const {
    // The short name weighs what a copy of its text would.
    return kBucketMemory + characterMemory(names_->full()) +
           4 * static_cast<uint32_t>(names_->shortLength()) + characterMemory(fileName_) +
           contents()->memoryUsage();
}

Bucket::CacheFacts Bucket::cacheFacts() const {
    Lock lock(mutex_);
    return CacheFacts{memUsageLocked(), names_, modifiedTime_};
}

void Bucket::print() const {
    try {
        Lock lock(mutex_);
        std::puts("\r");
        std::printf("fullName_       %s\r\n", NString(names_->full()).c_str());
        std::printf("shorName_       %s\r\n", NString(names_->shortName()).c_str());
        std::printf("digest_         %s\r\n", digestText(names_->digest()).c_str());
        std::printf("parent_         %s\r\n", digestText(parentDigest()).c_str());
        std::printf("fileName_       %s\r\n", NString(fileName_).c_str());
        std::printf("persistentFlag_ %s\r\n", yesNo(persistentFlag_));
        std::printf("version_        %d\r\n", static_cast<int>(version_));
        std::printf("modified_       %s\r\n", yesNo(modified_));
        std::printf("numKeys         %d\r\n", static_cast<int>(contents()->size()));
        int index = 0;
        for (const auto& entry : contents()->values()) {
            std::printf("[%d] %s = %s\r\n", index++, NString(entry.second.name).c_str(),
                        NString(entry.second.value->toString()).c_str());
        }
    } catch (...) {
        // A dump that cannot be built is not written; nothing else depends on it.
    }
}

WString Bucket::toString() const {
    Lock lock(mutex_);
    WString digest;
    WString text(L"\r\n===================================================\r\n");
    text += L"fullName_       ";
    text += names_->full();
    text += L"\r\nshortName_      ";
    text += names_->shortName();
    text += L"\r\ndigest_         ";
    text += names_->digest().getString(digest);
    text += L"\r\npersistentFlag_ ";
    text += persistentFlag_ ? L"true" : L"false";
    text += L"\r\nversion_        ";
    text += WString::fromInt(static_cast<int32_t>(version_));
    text += L"\r\nmodified_       ";
    text += modified_ ? L"true" : L"false";
    text += L"\r\nnumKeys         ";
    text += WString::fromInt(contents()->size());
    text += L"\r\n";
    int32_t index = 0;
    for (const auto& entry : contents()->values()) {
        text += L"[";
        text += WString::fromInt(index++);
        text += L"] ";
        text += entry.second.name;
        text += L" = ";
        text += entry.second.value->toString();
        text += L"\r\n";
    }
    return text;
}

}  // namespace orvane
}  // namespace zq
