#include <CLI/CLI.hpp>

#include "Session.h"
#include "Text.h"
#include "Tool.h"
#include "Tree.h"

namespace orvane_tool {

using zq::kel::AutoRef;
using zq::kel::StatusChain;
using zq::kel::WString;
using zq::orvane::IBucket;

void addRmCommand(CLI::App& app, const Globals& globals) {
    CLI::App* command =
        app.add_subcommand("rm", "Remove the value NAME from the bucket PATH, or the bucket");
    auto path = std::make_shared<std::string>();
    auto name = std::make_shared<std::string>();
    auto recursive = std::make_shared<bool>(false);
    command->add_option("PATH", *path, "bucket path")->required();
    command->add_option("NAME", *name, "value name");
    command->add_flag("-r,--recursive", *recursive, "remove the bucket with its descendants");
    command->callback([&globals, path, name, recursive, command] {
        const WString bucketName = bucketPath(*path);
        const bool removeValue = command->count("NAME") != 0;
        if (!removeValue && bucketName == WString(L"/")) {
            throw ToolError(kExitUsage, "the root bucket \"/\" cannot be removed");
        }
        Session session(globals, Session::kReadOnly);
        Transaction transaction(session.manager());
        AutoRef<IBucket> bucket = session.get(bucketName);
        if (removeValue) {
            const WString valueName = argumentText(*name, "the value name");
            StatusChain status;
            status.clear();
            AutoRef<zq::orvane::IBucketValue> value = bucket->getValue(valueName, status);
            if (!value)
                throw ToolError(kExitNotFound, "no value " + quotedText(*name) + " in " + *path);
            if (isChildLink(*bucket, valueName, *value)) {
                throw ToolError(
                    kExitUsage,
                    quotedText(*name) + " is the link to a child bucket; remove the bucket");
            }
            bucket->removeValue(valueName);
            transaction.put(bucket, "storing bucket " + *path);
        } else {
            std::vector<WString> doomed;
            walkTree(session, bucketName,
                     [&](IBucket& b, int) { doomed.push_back(b.getFullName()); });
            if (doomed.size() > 1 && !*recursive) {
                throw ToolError(kExitUsage,
                                *path + " has child buckets; use -r to remove them too");
            }
            // Parents first: each child's parent is then gone already and is
            // not rewritten just to drop the link.
            for (const WString& doomedPath : doomed)
                transaction.remove(doomedPath);
        }
        transaction.commit();
    });
}

}  // namespace orvane_tool
