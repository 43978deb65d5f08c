#include "zq/orvane/StatusCodes.h"

namespace zq {
namespace orvane {
namespace status {

namespace {

struct Description {
    int32_t code;
    const char* text;
};

// kManagerExists shares its value with kUnexpected and so its text.
constexpr Description kDescriptions[] = {
    {kSuccess, "success"},
    {kBucketNotFound, "the bucket does not exist"},
    {kValueReplaced, "a different value was replaced"},
    {kCursorInvalidated, "the enumeration was invalidated by a change"},
    {kStoreRepaired, "the store was repaired on open; what it dropped is kept beside it"},
    {kStoreDamaged, "part of the store is damaged and cannot be read"},
    {kWrongType, "the value does not hold that type"},
    {kNoData, "the value holds no data"},
    {kBufferTooSmall, "the buffer is too small for the value"},
    {kIndexOutOfRange, "the array index is out of range"},
    {kNullArgument, "a required argument is null"},
    {kAlreadyPresent, "the name is already present"},
    {kValueDiffers, "a different value is present and replacing was not asked for"},
    {kBadBucketName,
     "a bucket name is \"/\" or \"/\" followed by non-empty names separated by single \"/\", "
     "with no \"/\" at the end"},
    {kLinkNameTaken, "the parent holds a value under the name of the link to this child"},
    {kFileSystem, "a file-system operation failed"},
    {kUnexpected, "unexpected failure, or a bucket manager already exists"},
    {kOutOfMemory, "out of memory"},
    {kStoreNotOpen, "the store is not open"},
    {kBadMode, "the mode must be 1, 2 or 3"},
    {kCannotMerge, "the bucket cannot be merged"},
    {kParentNotPersistent, "the parent bucket is not persistent"},
    {kInternalObject, "an internal object was handed back instead of a copy"},
    {kNotAbsolutePath, "the registry directory is not an absolute path"},
    {kEmptyName, "the value name is empty, or begins with \"/\", which only child links may"},
    {kWrongUpdateId, "the update id differs from the current one"},
    {kRootNotDeletable, "the root bucket cannot be deleted"},
    {kNoRegistryObject, "no registry object exists"},
    {kNullValue, "the value is null"},
    {kUnknownHandle, "the enumeration handle is unknown"},
    {kAlreadyUpdating, "an update is already in progress"},
    {kNotUpdating, "no update is in progress"},
    {kStoreFailed, "a store operation failed"},
    {kNoParent, "the parent bucket does not exist"},
    {kOverSizeLimit, "the store file is over its size limit"},
    {kStoreUnexpected, "unexpected failure in the store"},
    {kStoreInternal, "unexpected failure in the store"},
    {kOutsideFile, "a record lies outside the store file (the file is damaged)"},
    {kCallbackLibrary, "the callback library did not load or lacks an entry point"},
    {kReadOnly, "the registry is open for reading only"},
    {kNotCompleted, "the operation has not completed"},
    {kNotImplemented, "not implemented"},
    {kVersionNotSupported, "the interface version is not supported"},
    {kKelInvalidSequence, "a text is not valid UTF-8"},
};

}  // namespace

const char* describe(int32_t code) {
    for (const Description& d : kDescriptions) {
        if (d.code == code) {
            return d.text;
        }
    }
    return nullptr;
}

}  // namespace status
}  // namespace orvane
}  // namespace zq
