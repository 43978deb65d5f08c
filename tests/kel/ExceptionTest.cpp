#include "zq/kel/Exception.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>

#include "kel/Throw.h"
#include "zq/kel/OSException.h"

namespace zq {
namespace kel {
namespace {

using namespace exception;

struct Row {
    std::function<void()> thrower;
    const char* what;
    uint32_t code;
};

TEST(ExceptionTest, EveryClassHasItsTextAndCode) {
    const Row rows[] = {
        {[] { throw Exception(); }, "unspecified exception", 0xFFFFFFFFu},
        {[] { throw OutOfRange(); }, "Out of range", 0x8ABC7007u},
        {[] { throw OutOfRange2("at 7"); }, "Out of range: at 7", 0x8ABC7007u},
        {[] { throw BoundExceeded(); }, "A request was made that would exceed the bounds",
         0x8ABC7007u},
        {[] { throw BoundExceeded2("x"); }, "A request was made that would exceed the bounds: x",
         0x8ABC7007u},
        {[] { throw ObjectAlreadyExists(); }, "Object already exists", 0x8ABC7009u},
        {[] { throw NonexistentException(); }, "The object does not exist", 0x8ABC700Au},
        {[] { throw InvalidOperation(); }, "Invalid operation", 0x8ABC700Eu},
        {[] { throw InvalidArgument(); }, "Invalid argument(s)", 0x8ABC700Fu},
        {[] { throw InvalidArgument2("n"); }, "Invalid argument(s): n", 0x8ABC700Fu},
        {[] { throw FileWriteFailed(); }, "Write file operation failed", 0x8ABC7011u},
        {[] { throw FileReadFailed(); }, "Read file operation failed", 0x8ABC7012u},
        {[] { throw DeserializationError(); }, "Failed to deserialize", 0x8ABC7014u},
        {[] { throw BufferOverflow(); }, "Buffer overflowed", 0x8ABC7017u},
        {[] { throw AccessDenied("/etc"); }, "Access denied: /etc", 0x8ABC7019u},
        {[] { throw FileAlreadyExists(); }, "File already exists", 0x8ABC701Bu},
        {[] { throw InvalidLocale(); }, "Invalid locale", 0x8ABC7024u},
        {[] { throw InvalidSequence(); }, "Invalid UTF8 encoding sequence", 0x8ABC7030u},
        {[] { throw BadGuidString(); }, "Badly formatted Guid string.", 0x8ABC7032u},
        {[] { throw UnableToConvert(); }, "Unable to convert.", 0x8ABC7034u},
        {[] { throw NotImplemented(); }, "Not implemented", 0x80004001u},
    };
    for (const Row& row : rows) {
        try {
            row.thrower();
            ADD_FAILURE() << "nothing thrown for " << row.what;
        } catch (const std::exception& e) {
            // Caught as the root class: what and statusCode are virtual.
            EXPECT_STREQ(e.what(), row.what);
            const auto* kel = dynamic_cast<const Exception*>(&e);
            ASSERT_NE(kel, nullptr);
            EXPECT_EQ(static_cast<uint32_t>(kel->statusCode()), row.code) << row.what;
        }
    }
}

TEST(ExceptionTest, DetailClassesAreCaughtAsTheirNamesake) {
    EXPECT_THROW(throw OutOfRange2("d"), OutOfRange);
    EXPECT_THROW(throw BoundExceeded2("d"), BoundExceeded);
    EXPECT_THROW(throw InvalidArgument2("d"), InvalidArgument);
    EXPECT_STREQ(OutOfRange2(nullptr).what(), "Out of range: ");
}

TEST(ExceptionTest, ThrowMacroRecordsWhereItWasThrown) {
    try {
        ZQ_THROW(DeserializationError);
    } catch (const Exception& e) {
        EXPECT_EQ(e.line(), __LINE__ - 2);
        EXPECT_NE(std::strstr(e.file(), "ExceptionTest.cpp"), nullptr);
    }
    const Exception plain;
    EXPECT_EQ(plain.line(), 0);
    EXPECT_EQ(plain.file(), nullptr);
}

TEST(ExceptionTest, PosixErrorMapsErrnoToStatusCodes) {
    EXPECT_EQ(osdep::PosixError(ENOENT, "open").statusCode(), 7);
    EXPECT_EQ(osdep::PosixError(EACCES, "open").statusCode(), 42);
    EXPECT_EQ(osdep::PosixError(0, "open").statusCode(), 0);
    EXPECT_EQ(osdep::OSException("x", ENOENT).statusCode(), 42);

    const osdep::PosixError e(ENOSPC, "write registry.bin");
    EXPECT_EQ(e.osErrorCode(), ENOSPC);
    EXPECT_EQ(std::string(e.what()), std::string("write registry.bin: ") + std::strerror(ENOSPC));
    EXPECT_THROW(throw osdep::PosixError(EIO, "x"), Exception);
}

}  // namespace
}  // namespace kel
}  // namespace zq
