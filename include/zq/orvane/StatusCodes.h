#ifndef ZQ_ORVANE_STATUSCODES_H
#define ZQ_ORVANE_STATUSCODES_H

#include <cstdint>

#include "zq/kel/Export.h"

// Every status code the library sets, in one place. Negative codes are errors,
// 0 is success, positive codes are warnings.
namespace zq {
namespace orvane {
namespace status {

constexpr int32_t kSuccess = 0;

// Warnings.
constexpr int32_t kBucketNotFound = 314501;
constexpr int32_t kValueReplaced = 314503;
constexpr int32_t kCursorInvalidated = 314504;
// The store was opened after a repair that dropped data; a copy of the file
// as it was is kept beside it ("registry.bin.damaged-N").
constexpr int32_t kStoreRepaired = 314505;
// Part of the store is damaged and left as it is: buckets in or behind the
// damaged segment report kOutsideFile.
constexpr int32_t kStoreDamaged = 314506;

// Errors of the registry.
constexpr int32_t kWrongType = -314500;
constexpr int32_t kNoData = -314501;
constexpr int32_t kBufferTooSmall = -314502;
constexpr int32_t kIndexOutOfRange = -314503;
constexpr int32_t kNullArgument = -314504;
constexpr int32_t kAlreadyPresent = -314505;
constexpr int32_t kValueDiffers = -314506;
// A full name is "/" or "/" followed by non-empty components separated by
// single "/", with no "/" at the end.
constexpr int32_t kBadBucketName = -314507;
// The parent holds a value (of a file older than the rule that reserves
// value names beginning with "/") under the name of the new child's link.
constexpr int32_t kLinkNameTaken = -314508;
constexpr int32_t kFileSystem = -314509;
constexpr int32_t kUnexpected = -314510;
constexpr int32_t kManagerExists = -314510;  // shares the code of kUnexpected
constexpr int32_t kOutOfMemory = -314511;
constexpr int32_t kStoreNotOpen = -314512;
constexpr int32_t kBadMode = -314513;
constexpr int32_t kCannotMerge = -314515;
constexpr int32_t kParentNotPersistent = -314516;
constexpr int32_t kInternalObject = -314517;
constexpr int32_t kNotAbsolutePath = -314518;
constexpr int32_t kEmptyName = -314519;
constexpr int32_t kWrongUpdateId = -314520;
constexpr int32_t kRootNotDeletable = -314521;
constexpr int32_t kNoRegistryObject = -314522;
constexpr int32_t kNullValue = -314523;
constexpr int32_t kUnknownHandle = -314524;
constexpr int32_t kAlreadyUpdating = -314525;
constexpr int32_t kNotUpdating = -314526;
constexpr int32_t kStoreFailed = -314527;
constexpr int32_t kNoParent = -314528;
constexpr int32_t kOverSizeLimit = -314529;
constexpr int32_t kStoreUnexpected = -314530;
constexpr int32_t kStoreInternal = -314531;
constexpr int32_t kOutsideFile = -314532;
constexpr int32_t kCallbackLibrary = -314533;
// The registry was opened for reading only: no transaction.
constexpr int32_t kReadOnly = -314534;

// Codes shared with the support library.
constexpr int32_t kNotCompleted = static_cast<int32_t>(0x80004005u);
constexpr int32_t kNotImplemented = static_cast<int32_t>(0x80004001u);
constexpr int32_t kVersionNotSupported = static_cast<int32_t>(0x8ABC7001u);

// Exception codes of the support library, as `statusCode` reports them.
constexpr int32_t kKelUnspecified = -1;
constexpr int32_t kKelOutOfRange = static_cast<int32_t>(0x8ABC7007u);
constexpr int32_t kKelObjectAlreadyExists = static_cast<int32_t>(0x8ABC7009u);
constexpr int32_t kKelNonexistent = static_cast<int32_t>(0x8ABC700Au);
constexpr int32_t kKelInvalidOperation = static_cast<int32_t>(0x8ABC700Eu);
constexpr int32_t kKelInvalidArgument = static_cast<int32_t>(0x8ABC700Fu);
constexpr int32_t kKelFileWriteFailed = static_cast<int32_t>(0x8ABC7011u);
constexpr int32_t kKelFileReadFailed = static_cast<int32_t>(0x8ABC7012u);
constexpr int32_t kKelDeserialization = static_cast<int32_t>(0x8ABC7014u);
constexpr int32_t kKelBufferOverflow = static_cast<int32_t>(0x8ABC7017u);
constexpr int32_t kKelAccessDenied = static_cast<int32_t>(0x8ABC7019u);
constexpr int32_t kKelFileAlreadyExists = static_cast<int32_t>(0x8ABC701Bu);
constexpr int32_t kKelInvalidLocale = static_cast<int32_t>(0x8ABC7024u);
constexpr int32_t kKelInvalidSequence = static_cast<int32_t>(0x8ABC7030u);
constexpr int32_t kKelBadGuidString = static_cast<int32_t>(0x8ABC7032u);
constexpr int32_t kKelUnableToConvert = static_cast<int32_t>(0x8ABC7034u);

// What `OSException::statusCode` and `PosixError::statusCode` report.
constexpr int32_t kOsError = 42;
constexpr int32_t kOsNotFound = 7;

// The text a user reads for a code ("the parent bucket does not exist"), or
// null for a code the library never sets.
ZQ_EXPORT const char* describe(int32_t code);

}  // namespace status
}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_STATUSCODES_H
