#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <set>

#include "ImportDocument.h"
#include "Session.h"
#include "StoreFiles.h"
#include "Text.h"
#include "Tool.h"
#include "Tree.h"
#include "ValueJson.h"

namespace orvane_tool {

using zq::kel::AutoRef;
using zq::kel::StatusChain;
using zq::kel::WString;
using zq::orvane::IBucketValue;

namespace {

[[noreturn]] void bad(const std::string& at, const std::string& message) {
    throw JsonError{at, message};
}

// Parses while watching for repeated member names, which a JSON reader
// would otherwise settle silently by keeping the last.
Json parseStrict(const std::string& text) {
    struct Frame {
        bool array;
        size_t index;
        std::string key;
        std::set<std::string> keys;
    };
    std::vector<Frame> frames;
    auto pointer = [&frames] {
        std::string at;
        for (const Frame& f : frames)
            at += f.array ? "/" + std::to_string(f.index) : pointerStep(f.key);
        return at;
    };
    auto elementDone = [&frames] {
        if (!frames.empty() && frames.back().array) ++frames.back().index;
    };
    Json::parser_callback_t watch = [&](int, Json::parse_event_t event, Json& parsed) {
        switch (event) {
            case Json::parse_event_t::object_start:
                frames.push_back(Frame{false, 0, {}, {}});
                break;
            case Json::parse_event_t::array_start:
                frames.push_back(Frame{true, 0, {}, {}});
                break;
            case Json::parse_event_t::key:
                frames.back().key = parsed.get<std::string>();
                if (!frames.back().keys.insert(frames.back().key).second)
                    bad(pointer(), "repeated member");
                break;
            case Json::parse_event_t::object_end:
            case Json::parse_event_t::array_end:
                frames.pop_back();
                elementDone();
                break;
            case Json::parse_event_t::value:
                elementDone();
                break;
        }
        return true;
    };
    return Json::parse(text, watch);
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

std::vector<PlannedBucket> plan(const Json& document,
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
    const Json& buckets = document["buckets"];
    std::vector<PlannedBucket> planned;
    std::set<zq::orvane::Digest> names;
    for (size_t i = 0; i < buckets.size(); ++i) {
        const std::string at = "/buckets/" + std::to_string(i);
        const Json& b = buckets[i];
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
            const Json& values = b["values"];
            if (!values.is_object()) bad(at + "/values", "expected an object");
            for (auto it = values.begin(); it != values.end(); ++it) {
                const std::string here = at + "/values" + pointerStep(it.key());
                const WString name = valueNameFromJson(it.key(), it.value(), here);
                if (!seen.insert(name).second) {
                    bad(here, "the name repeats " + quotedText(toUtf8(*seen.find(name))) +
                                  " (value names ignore case)");
                }
                bucket.values.emplace_back(name, valueFromJson(it.value(), here));
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

Json parseImportDocument(const std::string& text) { return parseStrict(text); }

std::vector<PlannedBucket> planImport(const Json& document,
                                      const std::function<bool(const WString&)>& inRegistry) {
    return plan(document, inRegistry);
}

namespace {

std::string readAll(const std::string& file) {
    if (file == "-") {
        return std::string(std::istreambuf_iterator<char>(std::cin),
                           std::istreambuf_iterator<char>());
    }
    // The user's document, read like standard input: not a store file.
    std::ifstream in(file, std::ios::binary);
    if (!in) throw ToolError(kExitNotFound, "cannot read " + file);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace

void addImportCommand(CLI::App& app, const Globals& globals) {
    CLI::App* command = app.add_subcommand(
        "import", "Store the buckets of a document that export wrote, in one transaction");
    auto file = std::make_shared<std::string>();
    command->add_option("FILE", *file, "the document (\"-\": standard input)")->required();
    command->footer(
        "Each bucket of the document gets exactly the document's values; its child buckets stay. "
        "Buckets the document does not name stay as they are. The whole document is checked "
        "first: the first bad element is named by its JSON pointer and nothing is written.");
    command->callback([&globals, file] {
        const std::string text = readAll(*file);
        Json document;
        try {
            document = parseStrict(text);
        } catch (const Json::parse_error& e) {
            throw ToolError(kExitUsage, *file + ": not JSON: " + e.what());
        } catch (const JsonError& e) {
            throw ToolError(kExitUsage, *file + ": " + e.pointer + ": " + e.message);
        }
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
        Session session(globals, Session::kMayCreate);
        Transaction transaction(session.manager());
        size_t values = 0;
        for (const PlannedBucket& p : planned) {
            StatusChain status;
            status.clear();
            AutoRef<zq::orvane::IBucket> bucket =
                session.manager().createBucket(p.name, true, status);
            checkStatus(status, "making bucket " + toUtf8(p.name));
            bucket->removeDataValues();
            for (const auto& [name, makeValue] : p.values) {
                bucket->setValue(name, makeValue(session.manager()), status, true);
                checkStatus(status, "storing value " + toUtf8(name));
            }
            values += p.values.size();
            transaction.put(bucket, "storing bucket " + toUtf8(p.name));
        }
        transaction.commit();
        std::fprintf(stderr, "imported %zu buckets, %zu values\n", planned.size(), values);
    });
}

}  // namespace orvane_tool
