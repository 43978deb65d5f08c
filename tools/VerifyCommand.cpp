#include <CLI/CLI.hpp>
#include <cstdio>

#include "Session.h"
#include "StoreFiles.h"
#include "Text.h"
#include "Tool.h"

namespace orvane_tool {

using zq::orvane::StoreCheck;

void addVerifyCommand(CLI::App& app, const Globals& globals) {
    CLI::App* command =
        app.add_subcommand("verify", "Check the registry's files offline; exit 1 on any problem");
    command->footer(
        "Checks the newest commit mark, every segment from the committed end back to offset 0 "
        "(positions, the repeated index position, the mark, the SHA-256 checksum, record "
        "tiling), that every live record decodes as a bucket, that every child link names an "
        "existing bucket and that every bucket but the root is linked from its parent. Prints "
        "FILE:OFFSET: PROBLEM for each problem. Reads the files as the library does, changes "
        "nothing and waits for no other process's transaction.");
    command->callback([&globals] {
        const std::string directory = dataDirectory(globals);
        const StoreCheck check = checkRegistry(directory);
        for (const std::string& note : check.notes())
            std::printf("note: %s\n", note.c_str());
        for (const StoreCheck::Problem& p : check.problems()) {
            std::printf("%s:%lld: %s\n", p.file.c_str(), static_cast<long long>(p.offset),
                        p.message.c_str());
        }
        const std::string damage = check.damageSummary();
        if (!damage.empty()) std::printf("damage: %s\n", damage.c_str());
        const size_t problems = check.problems().size();
        if (problems != 0) {
            throw ToolError(kExitProblems, std::to_string(problems) + " problem" +
                                               (problems == 1 ? "" : "s") + " found in " +
                                               directory);
        }
        const size_t segments = check.segments().size();
        std::printf("ok: %zu segment%s, %zu buckets, %lld committed bytes\n", segments,
                    segments == 1 ? "" : "s", check.live().size(),
                    static_cast<long long>(check.committedLength()));
    });
}

}  // namespace orvane_tool
