#include <CLI/CLI.hpp>

#include "Session.h"
#include "Subtree.h"
#include "Tool.h"
#include "WriteLock.h"

namespace orvane_tool {

void addCpCommand(CLI::App& app, const Globals& globals) {
    CLI::App* command =
        app.add_subcommand("cp",
                           "Copy the bucket SRC (-r: and its descendants) to DST, in one "
                           "transaction");
    auto source = std::make_shared<std::string>();
    auto target = std::make_shared<std::string>();
    auto recursive = std::make_shared<bool>(false);
    command->add_option("SRC", *source, "bucket path")->required();
    command->add_option("DST", *target, "new bucket path, or an existing bucket to copy SRC into")
        ->required();
    command->add_flag("-r,--recursive", *recursive, "copy the descendants too");
    command->footer(
        "Without -r the copy gets SRC's values and no children. When DST exists, the copy "
        "becomes its child of SRC's last name. A recursive copy may not go inside SRC, and "
        "DST's parent must exist.");
    command->callback([&globals, source, target, recursive] {
        const WriteLock lock(globals.waitSeconds);
        const SubtreeCopy copy = planSubtreeCopy(globals, *source, *target, *recursive);
        Session session(globals, Session::kExisting);
        Transaction transaction(session.manager(), session.directory());
        copySubtree(session, transaction, copy);
        transaction.commit();
    });
}

}  // namespace orvane_tool
