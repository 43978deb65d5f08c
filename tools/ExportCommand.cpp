#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Session.h"
#include "Text.h"
#include "Tool.h"
#include "Tree.h"
#include "ValueJson.h"

namespace orvane_tool {

void addExportCommand(CLI::App& app, const Globals& globals) {
    CLI::App* command = app.add_subcommand(
        "export", "Write PATH (default \"/\") and its descendants as a JSON document");
    auto path = std::make_shared<std::string>("/");
    auto output = std::make_shared<std::string>();
    command->add_option("PATH", *path, "bucket path");
    command->add_option("-o,--output", *output, "file to write (default: standard output)");
    command->footer(
        "The document is {\"format\": \"orvane-registry\", \"version\": 1, \"buckets\": [...]}, "
        "parents before children; each bucket is {\"name\": PATH, \"values\": {NAME: {\"type\": "
        "TYPE, \"value\": V}}}. 64-bit integers are decimal strings; floats that are not finite "
        "are \"inf\", \"-inf\", \"nan\", \"-nan\" or \"0x\" and their bits; blobs and digests "
        "hex; narrow strings that are not UTF-8 {\"hex\": ...}. `orvane import` reads it back "
        "exactly.");
    command->callback([&globals, path, output] {
        const zq::kel::WString top = bucketPath(*path);
        Session session(globals, Session::kReadOnly);
        Json buckets = Json::array();
        walkTree(session, top,
                 [&](zq::orvane::IBucket& bucket, int) { buckets.push_back(bucketJson(bucket)); });
        Json document{
            {"format", "orvane-registry"}, {"version", 1}, {"buckets", std::move(buckets)}};
        const std::string text = document.dump(2) + "\n";
        if (output->empty() || *output == "-") {
            std::fwrite(text.data(), 1, text.size(), stdout);
            return;
        }
        std::FILE* file = std::fopen(output->c_str(), "wb");
        if (file == nullptr || std::fwrite(text.data(), 1, text.size(), file) != text.size() ||
            std::fclose(file) != 0) {
            throw ToolError(kExitStore, "cannot write " + *output + ": " + std::strerror(errno));
        }
    });
}

}  // namespace orvane_tool
