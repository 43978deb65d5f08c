#include <CLI/CLI.hpp>

#include "Session.h"
#include "StoreFiles.h"
#include "Text.h"
#include "Tool.h"
#include "Tree.h"
#include "WriteLock.h"

namespace orvane_tool {

using zq::kel::AutoRef;
using zq::kel::StatusChain;
using zq::kel::WString;
using zq::orvane::IBucket;

namespace {

// Why the removal must not happen, as a ToolError; `name` is the value to
// remove, null for the bucket.
void refuse(IBucket& bucket, const std::string* name, bool recursive) {
    const std::string path = toUtf8(bucket.getFullName());
    if (name == nullptr) {
        if (!recursive && !childPaths(bucket).empty()) {
            throw ToolError(kExitUsage, path + " has child buckets; use -r to remove them too");
        }
        return;
    }
    StatusChain status;
    status.clear();
    const WString valueName = argumentText(*name, "the value name");
    AutoRef<zq::orvane::IBucketValue> value = bucket.getValue(valueName, status);
    if (!value) throw ToolError(kExitNotFound, "no value " + quotedText(*name) + " in " + path);
    if (isChildLink(bucket, valueName, *value)) {
        throw ToolError(kExitUsage,
                        quotedText(*name) + " is the link to a child bucket; remove the bucket");
    }
}

}  // namespace

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
        const WriteLock lock(globals.waitSeconds);
        // Refused before the registry is opened, so a refusal leaves every
        // file as it was; checked again in the transaction.
        {
            const OfflineView view(dataDirectory(globals));
            AutoRef<IBucket> stored = view.find(bucketName);
            if (!stored) throw ToolError(kExitNotFound, "no bucket " + *path);
            refuse(*stored, removeValue ? name.get() : nullptr, *recursive);
        }
        Session session(globals, Session::kExisting);
        Transaction transaction(session.manager(), session.directory());
        AutoRef<IBucket> bucket = session.get(bucketName);
        refuse(*bucket, removeValue ? name.get() : nullptr, *recursive);
        if (removeValue) {
            bucket->removeValue(argumentText(*name, "the value name"));
            transaction.put(bucket, "storing bucket " + *path);
        } else {
            std::vector<WString> doomed;
            walkTree(session, bucketName,
                     [&](IBucket& b, int) { doomed.push_back(b.getFullName()); });
            // Parents first: each child's parent is then gone already and is
            // not rewritten just to drop the link.
            for (const WString& doomedPath : doomed)
                transaction.remove(doomedPath);
        }
        transaction.commit();
    });
}

}  // namespace orvane_tool
