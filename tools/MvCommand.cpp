#include <CLI/CLI.hpp>

#include "Session.h"
#include "Subtree.h"
#include "Text.h"
#include "Tool.h"
#include "WriteLock.h"

namespace orvane_tool {

void addMvCommand(CLI::App& app, const Globals& globals) {
    CLI::App* command = app.add_subcommand(
        "mv", "Move the bucket SRC and its descendants to DST, in one transaction");
    auto source = std::make_shared<std::string>();
    auto target = std::make_shared<std::string>();
    command->add_option("SRC", *source, "bucket path")->required();
    command->add_option("DST", *target, "new bucket path, or an existing bucket to move SRC into")
        ->required();
    command->footer(
        "When DST exists, SRC becomes its child of the same last name. DST may not lie inside "
        "SRC, and its parent must exist.");
    command->callback([&globals, source, target] {
        if (bucketPath(*source) == zq::kel::WString(L"/")) {
            throw ToolError(kExitUsage, "the root bucket \"/\" cannot be moved");
        }
        const WriteLock lock(globals.waitSeconds);
        const SubtreeCopy copy = planSubtreeCopy(globals, *source, *target, true);
        Session session(globals, Session::kExisting);
        Transaction transaction(session.manager(), session.directory());
        // Parents first, as rm removes them.
        for (const zq::kel::WString& moved : copySubtree(session, transaction, copy))
            transaction.remove(moved);
        transaction.commit();
    });
}

}  // namespace orvane_tool
