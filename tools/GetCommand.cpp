#include <CLI/CLI.hpp>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "Session.h"
#include "Text.h"
#include "Tool.h"
#include "Tree.h"
#include "ValueJson.h"
#include "ValueText.h"
#include "ValueTypes.h"

namespace orvane_tool {

using zq::kel::AutoRef;
using zq::kel::WString;
using zq::orvane::IBucketValue;

void addGetCommand(CLI::App& app, const Globals& globals) {
    CLI::App* command =
        app.add_subcommand("get", "Print the values of the bucket PATH, or the value NAME alone");
    auto path = std::make_shared<std::string>();
    auto name = std::make_shared<std::string>();
    auto json = std::make_shared<bool>(false);
    command->add_option("PATH", *path, "bucket path")->required();
    command->add_option("NAME", *name, "value name");
    command->add_flag("--json", *json, "machine-readable output, as in export");
    command->footer(
        "Lines read \"name (type) = value\"; strings are quoted, blobs and digests hex. With NAME, "
        "the value alone, strings unquoted.");
    command->callback([&globals, path, name, json, command] {
        const WString top = bucketPath(*path);
        Session session(globals, Session::kReadOnly);
        AutoRef<zq::orvane::IBucket> bucket = session.get(top);
        if (command->count("NAME") == 0) {
            if (*json) {
                std::printf("%s\n", bucketJson(*bucket).dump(2).c_str());
            } else {
                printValueLines(*bucket, "");
            }
            return;
        }
        const WString valueName = argumentText(*name, "the value name");
        zq::kel::StatusChain status;
        status.clear();
        AutoRef<IBucketValue> value = bucket->getValue(valueName, status);
        checkStatus(status, "reading value " + *name);
        if (!value || isChildLink(*bucket, valueName, *value)) {
            throw ToolError(kExitNotFound, "no value " + quotedText(*name) + " in " + *path);
        }
        if (*json) {
            std::printf("%s\n", valueJson(*value).dump(2).c_str());
        } else {
            const std::string text = valueText(*value, true);
            std::fwrite(text.data(), 1, text.size(), stdout);
            std::printf("\n");
        }
    });
}

}  // namespace orvane_tool
