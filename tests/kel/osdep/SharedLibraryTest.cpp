#include "kel/osdep/SharedLibrary.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "support/TempDir.h"
#include "zq/kel/OSException.h"

namespace zq {
namespace kel {
namespace osdep {
namespace {

using Callback = void (*)(const char*);

// The text of the PosixError that getSymbol throws, or "<none>".
std::string thrownText(SharedLibrary& library, const char* symbol, int mode) {
    try {
        library.getSymbol(symbol, mode);
    } catch (const PosixError& error) {
        return error.what();
    }
    return "<none>";
}

TEST(SharedLibraryTest, BothEntryPointsAreFoundAndCallable) {
    SharedLibrary library{WString(ORVANE_TEST_CALLBACKS)};
    ASSERT_TRUE(library.isLoaded());
    test::TempDir dir;
    for (int mode : {0, 1, 2}) {
        ASSERT_NE(library.getSymbol("OrvanePreInitCallback", mode), nullptr);
    }
    auto preInit = reinterpret_cast<Callback>(library.getSymbol("OrvanePreInitCallback", 0));
    auto postCommit =
        reinterpret_cast<Callback>(library.getSymbol(WString(L"OrvanePostCommitCallback"), 0));
    ASSERT_NE(postCommit, nullptr);
    preInit(dir.path().c_str());
    postCommit(dir.path().c_str());
    EXPECT_EQ(access(dir.file("preinit").c_str(), F_OK), 0);
    EXPECT_EQ(access(dir.file("postcommit").c_str(), F_OK), 0);
}

TEST(SharedLibraryTest, MissingSymbolByMode) {
    SharedLibrary library{WString(ORVANE_TEST_PREINIT_ONLY)};
    ASSERT_TRUE(library.isLoaded());
    EXPECT_NE(library.getSymbol("OrvanePreInitCallback", 0), nullptr);
    EXPECT_EQ(library.getSymbol("OrvanePostCommitCallback", 1), nullptr);
    for (int mode : {0, 2, 7}) {
        EXPECT_NE(
            thrownText(library, "OrvanePostCommitCallback", mode).find("OrvanePostCommitCallback"),
            std::string::npos)
            << mode;
    }
}

TEST(SharedLibraryTest, MissingLibraryByMode) {
    SharedLibrary empty{WString()};
    SharedLibrary missing{WString(L"/nonexistent/libnothing.so")};
    EXPECT_FALSE(empty.isLoaded());
    EXPECT_FALSE(missing.isLoaded());
    for (SharedLibrary* library : {&empty, &missing}) {
        EXPECT_EQ(library->getSymbol("OrvanePreInitCallback", 1), nullptr);
        EXPECT_EQ(library->getSymbol("OrvanePreInitCallback", 2), nullptr);
        EXPECT_NE(thrownText(*library, "OrvanePreInitCallback", 0), "<none>");
    }
    // The loader's own words explain why.
    EXPECT_NE(thrownText(missing, "OrvanePreInitCallback", 0).find("/nonexistent/libnothing.so"),
              std::string::npos);
}

}  // namespace
}  // namespace osdep
}  // namespace kel
}  // namespace zq
