#include <CLI/CLI.hpp>
#include <cstdio>
#include <set>

#include "Session.h"
#include "StoreFiles.h"
#include "Text.h"
#include "Tool.h"
#include "WriteLock.h"
#include "zq/orvane/StatusCodes.h"

namespace orvane_tool {

namespace {

using zq::kel::WString;
using zq::orvane::SingleFileBucketStore;

void printDropped(const SingleFileBucketStore::Repair& repair) {
    std::printf("dropped the bytes [%lld, %lld) of registry.bin, which did not verify\n",
                static_cast<long long>(repair.droppedFrom),
                static_cast<long long>(repair.droppedTo));
    std::printf("kept a copy of the damaged file in %s\n", toUtf8(repair.copy).c_str());
    const std::set<WString> buckets(repair.buckets.begin(), repair.buckets.end());
    for (const WString& name : buckets) {
        std::printf("lost a change of %s: it holds what older segments hold\n",
                    toUtf8(name).c_str());
    }
    if (repair.unnamed != 0) {
        std::printf("lost %u bucket%s that only the dropped bytes held\n", repair.unnamed,
                    repair.unnamed == 1 ? "" : "s");
    }
    if (repair.deletions != 0) {
        std::printf("undid %u deletion%s of buckets that older segments hold\n", repair.deletions,
                    repair.deletions == 1 ? "" : "s");
    }
}

}  // namespace

void addRepairCommand(CLI::App& app, const Globals& globals) {
    CLI::App* command = app.add_subcommand(
        "repair", "Rebuild a damaged registry from what verifies, keeping a copy of the damage");
    command->footer(
        "For damage an open serves around (warning 314506): keeps a copy of registry.bin beside "
        "it as registry.bin.damaged-N (the newest three are kept), then rewrites the registry as "
        "one segment from the newest records of the segments whose checksums verify, on either "
        "side of the damage, and says what it dropped. Runs under the registry's process lock. "
        "A registry that verifies is left as it is.");
    command->callback([&globals] {
        const std::string directory = dataDirectory(globals);
        const WriteLock waited(globals.waitSeconds);
        LockedStore locked(globals, directory);
        if (checkRegistry(directory).problems().empty()) {
            std::printf("%s verifies: nothing to repair\n", directory.c_str());
            return;
        }
        zq::kel::StatusChain status;
        status.clear();
        SingleFileBucketStore& store = locked.open(status);
        if (status.getCode() == zq::orvane::status::kStoreRepaired && status.getMessage()) {
            // The open's own repair: a torn or damaged newest commit.
            std::printf("the open repaired the registry: %s\n",
                        toUtf8(*status.getMessage()).c_str());
        }
        SingleFileBucketStore::Repair repair;
        store.repair(repair, status);
        checkStatus(status, "repairing");
        locked.close();
        if (repair.droppedTo != repair.droppedFrom) printDropped(repair);
        const size_t left = checkRegistry(directory).problems().size();
        if (left != 0) {
            throw ToolError(kExitProblems, std::to_string(left) + " problem" +
                                               (left == 1 ? "" : "s") +
                                               " left that a rebuild does not mend; `orvane "
                                               "verify` names them");
        }
        std::printf("%s verifies\n", directory.c_str());
    });
}

}  // namespace orvane_tool
