#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <map>
#include <set>

#include "DocumentStream.h"
#include "ImportDocument.h"
#include "Session.h"
#include "StoreFiles.h"
#include "Text.h"
#include "Tool.h"
#include "Tree.h"
#include "ValueJson.h"
#include "WriteLock.h"

namespace orvane_tool {

using zq::kel::AutoRef;
using zq::kel::StatusChain;
using zq::kel::WString;
using zq::orvane::IBucketValue;

namespace {

[[noreturn]] void bad(const std::string& at, const std::string& message) {
    throw JsonError{at, message};
}

// Builds the document as a JSON reader does, but refuses repeated member
// names, which a reader would settle silently by keeping the last, and
// moves each string into place: a blob's hex is held once, not twice.
class StrictBuilder {
  public:
    using string_t = std::string;

    // With `stream`, a stand-in for a blob's hex becomes its bytes in a
    // blob's place and its hex again anywhere else.
    explicit StrictBuilder(DocumentStream* stream = nullptr) : stream_(stream) {}

    bool null() { return put(Json(nullptr)); }
    bool boolean(bool value) { return put(Json(value)); }
    bool number_integer(int64_t value) { return put(Json(value)); }
    bool number_unsigned(uint64_t value) { return put(Json(value)); }
    bool number_float(double value, const std::string&) { return put(Json(value)); }
    bool string(std::string& value) {
        std::vector<unsigned char> bytes;
        if (stream_ == nullptr || !stream_->take(value, bytes)) return put(Json(std::move(value)));
        if (inBlobPlace()) return put(Json::binary(std::move(bytes)));
        return put(Json(toHex(bytes.data(), bytes.size())));
    }
    bool binary(Json::binary_t& value) { return put(Json::binary(std::move(value))); }
    bool start_object(size_t) { return open(Json::object()); }
    bool start_array(size_t) { return open(Json::array()); }
    bool end_object() { return close(); }
    bool end_array() { return close(); }
    bool key(std::string& name) {
        Frame& frame = frames_.back();
        if (!frame.keys.insert(name).second) bad(pointer() + pointerStep(name), "repeated member");
        frame.key = std::move(name);
        return true;
    }
    bool parse_error(size_t, const std::string&, const nlohmann::detail::exception& error) {
        if (const auto* parse = dynamic_cast<const Json::parse_error*>(&error)) throw *parse;
        if (const auto* range = dynamic_cast<const Json::out_of_range*>(&error)) throw *range;
        throw Json::other_error::create(501, error.what(), nullptr);
    }

    Json document;

  private:
    struct Frame {
        Json* container;
        std::string key;  // of the member being read, in an object
        std::set<std::string> keys;
    };

    // Where the value just read goes; its place in the document.
    Json* place(Json&& value) {
        if (frames_.empty()) {
            document = std::move(value);
            return &document;
        }
        Frame& frame = frames_.back();
        if (frame.container->is_array()) {
            frame.container->push_back(std::move(value));
            return &frame.container->back();
        }
        Json& member = (*frame.container)[frame.key];
        member = std::move(value);
        return &member;
    }
    bool put(Json&& value) {
        place(std::move(value));
        return true;
    }
    bool open(Json&& container) {
        frames_.push_back(Frame{place(std::move(container)), {}, {}});
        return true;
    }
    bool close() {
        frames_.pop_back();
        return true;
    }
    // The JSON pointer of the innermost open container.
    std::string pointer() const {
        std::string at;
        for (size_t i = 0; i + 1 < frames_.size(); ++i) {
            const Json& container = *frames_[i].container;
            at += container.is_array() ? "/" + std::to_string(container.size() - 1)
                                       : pointerStep(frames_[i].key);
        }
        return at;
    }

    // A blob's value, or a narrow string's {"hex": ...}, as export writes them.
    bool inBlobPlace() const {
        if (frames_.empty() || !frames_.back().container->is_object()) return false;
        const Json& object = *frames_.back().container;
        const std::string& key = frames_.back().key;
        return key == "hex" ||
               (key == "value" && object.contains("type") && object["type"] == "blob");
    }

    std::vector<Frame> frames_;
    DocumentStream* stream_;
};

Json parseStrict(std::FILE* in) {
    DocumentStream stream(in);
    StrictBuilder builder(&stream);
    Json::sax_parse(stream.begin(), stream.end(), &builder);
    if (stream.failed()) throw ToolError(kExitStore, "cannot read the document");
    return std::move(builder.document);
}

Json parseAndClose(std::FILE* in) {
    try {
        Json document = parseStrict(in);
        std::fclose(in);
        return document;
    } catch (...) {
        std::fclose(in);
        throw;
    }
}

struct NoCaseLess {
    bool operator()(const WString& a, const WString& b) const {
        return zq::kel::compareNoCase(a.c_str(), b.c_str()) < 0;
    }
};

bool wellFormedPath(const WString& path) {
    if (path.empty() || path[0] != L'/') return false;
    for (size_t i = 1; i < path.length(); ++i) {
        if (path[i] == L'/' && path[i - 1] == L'/') return false;
    }
    return path.length() == 1 || path[path.length() - 1] != L'/';
}

size_t depthOf(const WString& path) {
    return path.length() == 1 ? 0 : static_cast<size_t>(std::count(path.begin(), path.end(), L'/'));
}

// Blob bytes the reader decoded are moved out of `document` into the plan.
std::vector<PlannedBucket> plan(Json& document,
                                const std::function<bool(const WString&)>& inRegistry) {
    if (!document.is_object()) bad("", "expected an object");
    for (auto it = document.begin(); it != document.end(); ++it) {
        if (it.key() != "format" && it.key() != "version" && it.key() != "buckets") {
            bad(pointerStep(it.key()), "unexpected member");
        }
    }
    if (!document.contains("format") || document["format"] != "orvane-registry") {
        bad("/format", "expected \"orvane-registry\"");
    }
    if (!document.contains("version") || document["version"] != 1) bad("/version", "expected 1");
    if (!document.contains("buckets") || !document["buckets"].is_array())
        bad("/buckets", "expected an array");
    Json& buckets = document["buckets"];
    std::vector<PlannedBucket> planned;
    std::set<zq::orvane::Digest> names;
    for (size_t i = 0; i < buckets.size(); ++i) {
        const std::string at = "/buckets/" + std::to_string(i);
        Json& b = buckets[i];
        if (!b.is_object()) bad(at, "expected {\"name\": ..., \"values\": {...}}");
        for (auto it = b.begin(); it != b.end(); ++it) {
            if (it.key() != "name" && it.key() != "values")
                bad(at + pointerStep(it.key()), "unexpected member");
        }
        PlannedBucket bucket;
        bucket.index = i;
        if (!b.contains("name") || !nameFromJson(b["name"], bucket.name) ||
            !wellFormedPath(bucket.name)) {
            bad(at + "/name", "expected a bucket path: \"/\" or \"/name/name...\"");
        }
        if (!names.insert(zq::orvane::Digest(bucket.name)).second) {
            bad(at + "/name", "the bucket " + quotedText(toUtf8(bucket.name)) + " appears twice");
        }
        bucket.depth = depthOf(bucket.name);
        std::set<WString, NoCaseLess> seen;
        if (b.contains("values")) {
            Json& values = b["values"];
            if (!values.is_object()) bad(at + "/values", "expected an object");
            for (auto it = values.begin(); it != values.end(); ++it) {
                const std::string here = at + "/values" + pointerStep(it.key());
                const WString name = valueNameFromJson(it.key(), it.value(), here);
                if (!seen.insert(name).second) {
                    bad(here, "the name repeats " + quotedText(toUtf8(*seen.find(name))) +
                                  " (value names ignore case)");
                }
                bucket.values.emplace_back(name, takeValueFromJson(it.value(), here));
            }
        }
        planned.push_back(std::move(bucket));
    }
    std::stable_sort(
        planned.begin(), planned.end(),
        [](const PlannedBucket& a, const PlannedBucket& b) { return a.depth < b.depth; });
    for (const PlannedBucket& bucket : planned) {
        if (bucket.depth == 0) continue;
        const WString parent = parentPath(bucket.name);
        if (names.count(zq::orvane::Digest(parent)) == 0 && !inRegistry(parent)) {
            bad("/buckets/" + std::to_string(bucket.index) + "/name",
                "the parent " + quotedText(toUtf8(parent)) +
                    " is neither in the document nor in the registry");
        }
    }
    return planned;
}

}  // namespace

// Read as a file is, so that a fuzzer reaches the document stream too.
Json parseImportDocument(const std::string& text) {
    std::string bytes = text.empty() ? std::string(" ") : text;  // no stream of no bytes
    std::FILE* in = fmemopen(bytes.data(), bytes.size(), "rb");
    if (in == nullptr) throw ToolError(kExitStore, "cannot read the document");
    return parseAndClose(in);
}

std::vector<PlannedBucket> planImport(const Json& document,
                                      const std::function<bool(const WString&)>& inRegistry) {
    Json copy = document;
    return plan(copy, inRegistry);
}

namespace {

// The user's document, read as it is parsed: its text is never held whole.
// Standard streams, as for standard input: not a store file.
Json readDocument(const std::string& file) {
    if (file == "-") return parseStrict(stdin);
    std::FILE* in = std::fopen(file.c_str(), "rb");
    if (in == nullptr) throw ToolError(kExitNotFound, "cannot read " + file);
    return parseAndClose(in);
}

// What an import did to one bucket, said in one line on standard error:
// values the document drops are easy to lose without noticing.
class BucketReport {
  public:
    explicit BucketReport(zq::orvane::IBucket* old) {
        if (old == nullptr) return;
        forEachDataValue(*old, [this](const WString& name, const AutoRef<IBucketValue>& value) {
            before_.emplace(name, value);
        });
    }

    // Compared as values, not as text: a large blob is not spelt out again.
    void stored(const WString& name, const AutoRef<IBucketValue>& value) {
        auto found = before_.find(name);
        if (found == before_.end()) return;
        if (!value->isEqual(found->second, value)) changed_.push_back(name);
        before_.erase(found);
    }

    // What was not stored stays with --merge and is removed without it.
    // Empty when nothing the bucket held was replaced or removed.
    std::string line(const WString& bucket, bool merge) const {
        std::string parts;
        append(parts, "replaced ", changed_);
        if (!merge) {
            std::vector<WString> removed;
            for (const auto& entry : before_)
                removed.push_back(entry.first);
            append(parts, "removed ", removed);
        }
        return parts.empty() ? parts : toUtf8(bucket) + ": " + parts;
    }

  private:
    static void append(std::string& parts, const char* what, const std::vector<WString>& names) {
        if (names.empty()) return;
        parts += parts.empty() ? what : std::string("; ") + what;
        for (size_t i = 0; i < names.size(); ++i)
            parts += (i == 0 ? "" : ", ") + quotedText(toUtf8(names[i]));
    }

    std::map<WString, AutoRef<IBucketValue>, NoCaseLess> before_;
    std::vector<WString> changed_;
};

}  // namespace

void addImportCommand(CLI::App& app, const Globals& globals) {
    CLI::App* command = app.add_subcommand(
        "import", "Store the buckets of a document that export wrote, in one transaction");
    auto file = std::make_shared<std::string>();
    auto merge = std::make_shared<bool>(false);
    command->add_option("FILE", *file, "the document (\"-\": standard input)")->required();
    command->add_flag("--merge", *merge,
                      "change only the values the document names; keep the bucket's others");
    command->footer(
        "Each bucket of the document gets exactly the document's values (with --merge: keeps "
        "its other values too); its child buckets stay. Buckets the document does not name stay "
        "as they are. A line on standard error names the values each bucket had that were "
        "replaced by different ones or removed. The "
        "whole document is checked first: the first bad element is named by its JSON pointer "
        "and nothing is written.");
    command->callback([&globals, file, merge] {
        Json document;
        try {
            document = readDocument(*file);
        } catch (const Json::parse_error& e) {
            throw ToolError(kExitUsage, *file + ": not JSON: " + e.what());
        } catch (const JsonError& e) {
            throw ToolError(kExitUsage, *file + ": " + e.pointer + ": " + e.message);
        }
        const WriteLock lock(globals.waitSeconds);
        // The whole document is checked before the registry is opened: a
        // refused import leaves every file as it was.
        std::vector<PlannedBucket> planned;
        try {
            const OfflineView registry(dataDirectory(globals));
            planned =
                plan(document, [&registry](const WString& path) { return registry.exists(path); });
        } catch (const JsonError& e) {
            throw ToolError(kExitUsage, *file + ": " + (e.pointer.empty() ? "/" : e.pointer) +
                                            ": " + e.message);
        }
        document = Json();  // each value is in `planned` now
        Session session(globals, Session::kMayCreate);
        Transaction transaction(session.manager(), session.directory());
        size_t values = 0;
        std::vector<std::string> lines;
        for (PlannedBucket& p : planned) {
            BucketReport report(session.find(p.name).get());
            StatusChain status;
            status.clear();
            AutoRef<zq::orvane::IBucket> bucket =
                session.manager().createBucket(p.name, true, status);
            checkStatus(status, "making bucket " + toUtf8(p.name));
            if (!*merge) bucket->removeDataValues();
            for (auto& [name, makeValue] : p.values) {
                AutoRef<IBucketValue> value = makeValue(session.manager());
                // Its bytes are in the value now: a blob is held twice at most.
                makeValue = nullptr;
                bucket->setValue(name, value, status, true);
                checkStatus(status, "storing value " + toUtf8(name));
                report.stored(name, value);
            }
            values += p.values.size();
            transaction.put(bucket, "storing bucket " + toUtf8(p.name));
            const std::string line = report.line(p.name, *merge);
            if (!line.empty()) lines.push_back(line);
        }
        transaction.commit();
        for (const std::string& line : lines)
            std::fprintf(stderr, "%s\n", line.c_str());
        std::fprintf(stderr, "imported %zu buckets, %zu values\n", planned.size(), values);
    });
}

}  // namespace orvane_tool
