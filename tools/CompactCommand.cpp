#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>

#include "Session.h"
#include "StoreFiles.h"
#include "Text.h"
#include "Tool.h"
#include "WriteLock.h"
#include "kel/osdep/FileSystem.h"
#include "kel/osdep/SharedCounter.h"
#include "source/Options.h"
#include "source/SingleFileBucketStore.h"
#include "source/TouchFile.h"

namespace orvane_tool {

void addCompactCommand(CLI::App& app, const Globals& globals) {
    CLI::App* command =
        app.add_subcommand("compact", "Rewrite the registry as one segment without dead records");
    command->footer("Runs under the registry's process lock, as a commit does.");
    command->callback([&globals] {
        using zq::kel::WString;
        const std::string directory = dataDirectory(globals);
        const WString wideDirectory(directory.c_str());
        const WriteLock waited(globals.waitSeconds);
        ProcessLock lock;
        // Running managers look at the files again only when this moves.
        zq::kel::osdep::SharedCounter changes{WString(kProcessLockName)};
        zq::kel::osdep::SharedCounter::Change change(changes);
        const StoreImage before = readStore(directory);
        if (!before.problems.empty()) {
            throw ToolError(kExitStore, "the registry in " + directory +
                                            " is damaged; `orvane verify` names the problems");
        }
        zq::kel::StatusChain status;
        status.clear();
        // The options give the files the owner and mode the library uses.
        zq::orvane::Options options(zq::orvane::Options::findOptionsFile(
                                        WString(absolutePath(globals.optionsFile).c_str())),
                                    status);
        checkStatus(status, "reading the options");
        zq::kel::osdep::FileSystem& fs = zq::kel::osdep::FileSystem::posix();
        zq::orvane::removeTemporaryFiles(fs, wideDirectory);
        zq::orvane::SingleFileBucketStore store(wideDirectory, &options, fs);
        store.open(0, status);
        checkStatus(status, "opening the store");
        store.compactNow(status);
        checkStatus(status, "compacting");
        const auto after = store.facts();
        store.close(status);
        checkStatus(status, "closing the store");
        std::printf("compacted %s: %zu segment%s, %lld bytes -> %u segment%s, %lld bytes\n",
                    directory.c_str(), before.segments.size(),
                    before.segments.size() == 1 ? "" : "s",
                    static_cast<long long>(before.committedLength), after.segments,
                    after.segments == 1 ? "" : "s", static_cast<long long>(after.committedLength));
    });
}

}  // namespace orvane_tool
