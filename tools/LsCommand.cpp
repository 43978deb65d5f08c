#include <CLI/CLI.hpp>
#include <cstdio>

#include "Session.h"
#include "Text.h"
#include "Tool.h"
#include "Tree.h"

namespace orvane_tool {

void addLsCommand(CLI::App& app, const Globals& globals) {
    CLI::App* command = app.add_subcommand(
        "ls", "List the child buckets of PATH (default \"/\"), one full path a line");
    auto path = std::make_shared<std::string>("/");
    auto recursive = std::make_shared<bool>(false);
    command->add_option("PATH", *path, "bucket path");
    command->add_flag("-r,--recursive", *recursive,
                      "every descendant, each parent before its children");
    command->callback([&globals, path, recursive] {
        const zq::kel::WString top = bucketPath(*path);
        Session session(globals, Session::kReadOnly);
        if (!*recursive) {
            for (const zq::kel::WString& child : childPaths(*session.get(top))) {
                std::printf("%s\n", toUtf8(child).c_str());
            }
            return;
        }
        walkTree(session, top, [](zq::orvane::IBucket& bucket, int depth) {
            if (depth > 0) std::printf("%s\n", toUtf8(bucket.getFullName()).c_str());
        });
    });
}

}  // namespace orvane_tool
