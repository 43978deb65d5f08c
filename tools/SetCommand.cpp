#include <CLI/CLI.hpp>

#include "Session.h"
#include "StoreFiles.h"
#include "Text.h"
#include "Tool.h"
#include "Tree.h"
#include "ValueText.h"
#include "ValueTypes.h"

namespace orvane_tool {

using zq::kel::AutoRef;
using zq::kel::StatusChain;
using zq::kel::WString;
using zq::orvane::IBucket;

namespace {

// The bucket at `path` as it stands in the transaction, made (with its
// missing ancestors when `parents`) when absent.
AutoRef<IBucket> bucketToChange(Session& session, Transaction& transaction, const WString& path,
                                bool parents) {
    AutoRef<IBucket> bucket = session.find(path);
    if (bucket) return bucket;
    if (parents) {
        std::vector<WString> missing;
        for (WString up = parentPath(path); !session.find(up); up = parentPath(up)) {
            missing.push_back(up);
        }
        for (auto it = missing.rbegin(); it != missing.rend(); ++it) {
            StatusChain status;
            status.clear();
            AutoRef<IBucket> made = session.manager().createBucket(*it, false, status);
            checkStatus(status, "making bucket " + toUtf8(*it));
            transaction.put(made, "making bucket " + toUtf8(*it));
        }
    }
    StatusChain status;
    status.clear();
    bucket = session.manager().createBucket(path, false, status);
    checkStatus(status, "making bucket " + toUtf8(path));
    return bucket;
}

}  // namespace

void addSetCommand(CLI::App& app, const Globals& globals) {
    CLI::App* command = app.add_subcommand(
        "set", "Store the value NAME of type TYPE in the bucket PATH, in one transaction");
    auto path = std::make_shared<std::string>();
    auto name = std::make_shared<std::string>();
    auto type = std::make_shared<std::string>();
    auto words = std::make_shared<std::vector<std::string>>();
    auto parents = std::make_shared<bool>(false);
    command->add_flag("-p,--parents", *parents, "make missing parent buckets too");
    command->add_option("PATH", *path, "bucket path; the bucket is made when missing")->required();
    command->add_option("NAME", *name, "value name")->required();
    command->add_option("TYPE", *type, "value type")->required();
    command->add_option("VALUE", *words, "the value; an array type takes any number of them");
    command->footer(
        "Types: " + typeNameList() +
        ".\nIntegers are decimal or 0x hex; floats decimal, inf, -inf, nan, -nan or 0x and the "
        "bit pattern; bool true/false/1/0; blob hex; digest 64 hex digits; ansistring takes the "
        "argument's bytes, string UTF-8. Put -- before values that begin with '-'.");
    command->callback([&globals, path, name, type, words, parents] {
        const WString bucketName = bucketPath(*path);
        const WString valueName = argumentText(*name, "the value name");
        if (valueName.empty()) throw ToolError(kExitUsage, "the value name is empty");
        if (valueName[0] == L'/') {
            throw ToolError(kExitUsage, "the value name " + quotedText(*name) +
                                            " begins with \"/\": such names are the links to "
                                            "child buckets");
        }
        const uint32_t tag = typeTag(*type);
        if (tag == 0) {
            throw ToolError(kExitUsage,
                            "unknown type " + quotedText(*type) + "; types: " + typeNameList());
        }
        // Everything that can be refused is refused before the registry is
        // opened: a failed set leaves every file as it was.
        const ValueMaker makeValue = valueFromArguments(tag, *words);
        {
            const OfflineView view(dataDirectory(globals));
            if (!*parents && !view.exists(bucketName) && !view.exists(parentPath(bucketName))) {
                throw ToolError(kExitNotFound, "cannot make " + *path + ": " +
                                                   describeStatus(zq::orvane::status::kNoParent) +
                                                   " (-p makes it)");
            }
            AutoRef<IBucket> stored = view.find(bucketName);
            StatusChain status;
            status.clear();
            AutoRef<zq::orvane::IBucketValue> existing =
                stored ? stored->getValue(valueName, status) : AutoRef<zq::orvane::IBucketValue>();
            if (existing && isChildLink(*stored, valueName, *existing)) {
                throw ToolError(kExitUsage, quotedText(*name) + " is the link to a child bucket");
            }
        }
        Session session(globals, Session::kMayCreate);
        AutoRef<zq::orvane::IBucketValue> value = makeValue(session.manager());
        Transaction transaction(session.manager());
        AutoRef<IBucket> bucket = bucketToChange(session, transaction, bucketName, *parents);
        StatusChain status;
        status.clear();
        AutoRef<zq::orvane::IBucketValue> existing = bucket->getValue(valueName, status);
        if (existing && isChildLink(*bucket, valueName, *existing)) {
            throw ToolError(kExitUsage, quotedText(*name) + " is the link to a child bucket");
        }
        bucket->setValue(valueName, value, status, true);
        checkStatus(status, "storing value " + *name);
        transaction.put(bucket, "storing bucket " + *path);
        transaction.commit();
    });
}

}  // namespace orvane_tool
