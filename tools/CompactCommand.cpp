#include <CLI/CLI.hpp>
#include <cstdio>

#include "Session.h"
#include "StoreFiles.h"
#include "Tool.h"
#include "WriteLock.h"

namespace orvane_tool {

void addCompactCommand(CLI::App& app, const Globals& globals) {
    CLI::App* command =
        app.add_subcommand("compact", "Rewrite the registry as one segment without dead records");
    command->footer("Runs under the registry's process lock, as a commit does.");
    command->callback([&globals] {
        const std::string directory = dataDirectory(globals);
        const WriteLock waited(globals.waitSeconds);
        LockedStore locked(globals, directory);
        const zq::orvane::StoreCheck before = checkStore(directory);
        if (!before.problems().empty()) {
            throw ToolError(kExitStore, "the registry in " + directory +
                                            " is damaged; `orvane verify` names the problems");
        }
        zq::kel::StatusChain status;
        status.clear();
        zq::orvane::SingleFileBucketStore& store = locked.open(status);
        store.compactNow(status);
        checkStatus(status, "compacting");
        const auto after = store.facts();
        locked.close();
        std::printf("compacted %s: %zu segment%s, %lld bytes -> %u segment%s, %lld bytes\n",
                    directory.c_str(), before.segments().size(),
                    before.segments().size() == 1 ? "" : "s",
                    static_cast<long long>(before.committedLength()), after.segments,
                    after.segments == 1 ? "" : "s", static_cast<long long>(after.committedLength));
    });
}

}  // namespace orvane_tool
