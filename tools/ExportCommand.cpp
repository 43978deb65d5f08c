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

namespace {

// Writes the document a bucket at a time, one value a line: a registry of
// any size goes out without a document tree of it in memory.
class DocumentWriter {
  public:
    explicit DocumentWriter(std::FILE* file) : file_(file) {
        text_ = "{\n  \"format\": \"orvane-registry\",\n  \"version\": 1,\n  \"buckets\": [";
    }

    void bucket(zq::orvane::IBucket& bucket) {
        text_ += first_ ? "\n    {\"name\": " : ",\n    {\"name\": ";
        first_ = false;
        text_ += nameJson(bucket.getFullName()).dump() + ", \"values\": {";
        bool firstValue = true;
        ValueMembers members;
        forEachDataValue(bucket, [&](const zq::kel::WString& name,
                                     const zq::kel::AutoRef<zq::orvane::IBucketValue>& value) {
            text_ += firstValue ? "\n      " : ",\n      ";
            firstValue = false;
            const auto [key, json] = members.member(name, *value);
            text_ += Json(key).dump() + ": " + json.dump();
        });
        text_ += firstValue ? "}}" : "\n    }}";
        if (text_.size() > (1u << 20)) flush();
    }

    void finish() {
        text_ += first_ ? "]\n}\n" : "\n  ]\n}\n";
        flush();
        if (std::fflush(file_) != 0) fail();
    }

  private:
    void flush() {
        if (std::fwrite(text_.data(), 1, text_.size(), file_) != text_.size()) fail();
        text_.clear();
    }
    [[noreturn]] void fail() {
        throw ToolError(kExitStore,
                        std::string("cannot write the document: ") + std::strerror(errno));
    }

    std::FILE* file_;
    std::string text_;
    bool first_ = true;
};

}  // namespace

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
        "hex; narrow strings that are not UTF-8 {\"hex\": ...}; names and strings that are not "
        "Unicode text {\"codepoints\": [...]}, such a value under a stand-in member name that "
        "begins with \"/\" and with its name in its object. `orvane import` reads it back "
        "exactly.");
    command->callback([&globals, path, output] {
        const zq::kel::WString top = bucketPath(*path);
        Session session(globals, Session::kReadOnly);
        const bool toFile = !output->empty() && *output != "-";
        // A file appears whole or not at all. The user's own document, not
        // the store's: standard streams, outside the library's file layer.
        const std::string temporary = *output + ".tmp";
        std::FILE* file = toFile ? std::fopen(temporary.c_str(), "wb") : stdout;
        if (file == nullptr) {
            throw ToolError(kExitStore, "cannot write " + temporary + ": " + std::strerror(errno));
        }
        try {
            DocumentWriter writer(file);
            walkTree(session, top,
                     [&](zq::orvane::IBucket& bucket, int) { writer.bucket(bucket); });
            writer.finish();
        } catch (...) {
            if (toFile) {
                std::fclose(file);
                std::remove(temporary.c_str());
            }
            throw;
        }
        if (toFile &&
            (std::fclose(file) != 0 || std::rename(temporary.c_str(), output->c_str()) != 0)) {
            const std::string reason = std::strerror(errno);
            std::remove(temporary.c_str());
            throw ToolError(kExitStore, "cannot write " + *output + ": " + reason);
        }
    });
}

}  // namespace orvane_tool
