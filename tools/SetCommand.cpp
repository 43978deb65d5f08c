#include <CLI/CLI.hpp>
#include <cstdio>

#include "Assignments.h"
#include "Session.h"
#include "StoreFiles.h"
#include "Text.h"
#include "Tool.h"
#include "Tree.h"
#include "ValueText.h"
#include "ValueTypes.h"
#include "WriteLock.h"

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

// The warning for a value that changes its type: the library only warns
// (kValueReplaced), and a reader of the old type would fail. Empty when the
// type stays.
std::string typeChange(const std::string& path, const Assignment& a, uint32_t oldTag,
                       const StatusChain& status) {
    if (status.getCode() != zq::orvane::status::kValueReplaced || oldTag == a.tag) return {};
    return "orvane: warning: " + path + " " + quotedText(a.name) + " changes type from " +
           typeName(oldTag) + " to " + typeName(a.tag) + " (" + describeStatus(status.getCode()) +
           ")";
}

// A link's name is the manager's: storing a value there would hide a child.
void refuseLinkNames(IBucket* bucket, const std::vector<Assignment>& assignments) {
    if (bucket == nullptr) return;
    for (const Assignment& a : assignments) {
        StatusChain status;
        status.clear();
        AutoRef<zq::orvane::IBucketValue> existing = bucket->getValue(a.valueName, status);
        if (existing && isChildLink(*bucket, a.valueName, *existing)) {
            throw ToolError(kExitUsage, quotedText(a.name) + " is the link to a child bucket");
        }
    }
}

}  // namespace

void addSetCommand(CLI::App& app, const Globals& globals) {
    CLI::App* command = app.add_subcommand(
        "set", "Store the values NAME of type TYPE in the bucket PATH, all in one transaction");
    auto path = std::make_shared<std::string>();
    auto name = std::make_shared<std::string>();
    auto type = std::make_shared<std::string>();
    auto words = std::make_shared<std::vector<std::string>>();
    auto parents = std::make_shared<bool>(false);
    command->add_flag("-p,--parents", *parents, "make missing parent buckets too");
    command->add_option("PATH", *path, "bucket path; the bucket is made when missing")->required();
    command->add_option("NAME", *name, "value name")->required();
    command->add_option("TYPE", *type, "value type")->required();
    command->add_option("VALUE", *words,
                        "the value (an array type takes any number), then more NAME TYPE VALUE");
    command->footer(
        "Types: " + typeNameList() +
        ".\nIntegers are decimal or 0x hex; floats decimal, inf, -inf, nan, -nan or 0x and the "
        "bit pattern; bool true/false/1/0; blob hex; digest 64 hex digits; ansistring takes the "
        "argument's bytes, string UTF-8. Put -- before values that begin with '-'.\n" +
        std::string(kAssignmentRules) +
        "\nA value that changes its type is stored with a warning on standard error.");
    command->callback([&globals, path, name, type, words, parents] {
        const WString bucketName = bucketPath(*path);
        words->insert(words->begin(), {*name, *type});
        // Everything that can be refused is refused before the registry is
        // opened: a failed set leaves every file as it was.
        const std::vector<Assignment> assignments = parseAssignments(*words);
        const WriteLock lock(globals.waitSeconds);
        {
            const OfflineView view(dataDirectory(globals));
            if (!*parents && !view.exists(bucketName) && !view.exists(parentPath(bucketName))) {
                throw ToolError(kExitNotFound, "cannot make " + *path + ": " +
                                                   describeStatus(zq::orvane::status::kNoParent) +
                                                   " (-p makes it)");
            }
            refuseLinkNames(view.find(bucketName).get(), assignments);
        }
        Session session(globals, Session::kMayCreate);
        Transaction transaction(session.manager(), session.directory());
        AutoRef<IBucket> bucket = bucketToChange(session, transaction, bucketName, *parents);
        refuseLinkNames(bucket.get(), assignments);
        std::vector<std::string> warnings;
        for (const Assignment& a : assignments) {
            StatusChain status;
            status.clear();
            AutoRef<zq::orvane::IBucketValue> old = bucket->getValue(a.valueName, status);
            const uint32_t oldTag = old ? old->getType() : a.tag;
            bucket->setValue(a.valueName, a.make(session.manager()), status, true);
            checkStatus(status, "storing value " + a.name);
            const std::string warning = typeChange(*path, a, oldTag, status);
            if (!warning.empty()) warnings.push_back(warning);
        }
        transaction.put(bucket, "storing bucket " + *path);
        transaction.commit();
        for (const std::string& warning : warnings)
            std::fprintf(stderr, "%s\n", warning.c_str());
    });
}

}  // namespace orvane_tool
