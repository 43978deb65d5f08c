#include <CLI/CLI.hpp>
#include <cstdio>

#include "Session.h"
#include "Text.h"
#include "Tool.h"
#include "Tree.h"

namespace orvane_tool {

void addDumpCommand(CLI::App& app, const Globals& globals) {
    CLI::App* command = app.add_subcommand(
        "dump", "Print PATH (default \"/\") and its descendants with their values");
    auto path = std::make_shared<std::string>("/");
    command->add_option("PATH", *path, "bucket path");
    command->footer("Each bucket is a \"[path]\" line followed by its values, indented.");
    command->callback([&globals, path] {
        const zq::kel::WString top = bucketPath(*path);
        Session session(globals, Session::kReadOnly);
        walkTree(session, top, [](zq::orvane::IBucket& bucket, int) {
            std::printf("[%s]\n", toUtf8(bucket.getFullName()).c_str());
            printValueLines(bucket, "    ");
        });
    });
}

}  // namespace orvane_tool
