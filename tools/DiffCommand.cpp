#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <map>

#include "ImportDocument.h"
#include "Session.h"
#include "Text.h"
#include "Tool.h"
#include "Tree.h"
#include "ValueJson.h"

namespace orvane_tool {

using zq::kel::WString;

namespace {

struct NoCaseLess {
    bool operator()(const WString& a, const WString& b) const {
        return zq::kel::compareNoCase(a.c_str(), b.c_str()) < 0;
    }
};

// A bucket as export writes it: its name and its values in export form, so
// that a registry and a document of it compare equal.
struct BucketValues {
    std::string name;
    std::map<WString, std::pair<std::string, Json>, NoCaseLess> values;
};

// Buckets by the digest of their name, which folds case as the library does.
using Registry = std::map<zq::orvane::Digest, BucketValues>;

void addBucket(Registry& registry, const WString& name, const Json& values) {
    BucketValues& bucket = registry[zq::orvane::Digest(name)];
    bucket.name = toUtf8(name);
    for (auto it = values.begin(); it != values.end(); ++it) {
        WString valueName;
        fromUtf8(it.key(), valueName);
        bucket.values[valueName] = {it.key(), it.value()};
    }
}

// The registry as an export document, written by a child process: a
// process may hold one bucket manager in its life, and diff reads two.
std::string exportedByChild(const Globals& globals, const std::string& directory) {
    int pipeEnds[2];
    if (::pipe(pipeEnds) != 0) throw ToolError(kExitStore, "cannot make a pipe");
    std::fflush(stdout);
    std::fflush(stderr);
    const pid_t child = ::fork();
    if (child < 0) throw ToolError(kExitStore, "cannot start a process");
    if (child == 0) {
        ::close(pipeEnds[0]);
        int code = kExitOk;
        try {
            Globals here = globals;
            here.dataDir = directory;
            Session session(here, Session::kReadOnly);
            Json document = {
                {"format", "orvane-registry"}, {"version", 1}, {"buckets", Json::array()}};
            walkTree(session, WString(L"/"), [&document](zq::orvane::IBucket& bucket, int) {
                document["buckets"].push_back(bucketJson(bucket));
            });
            const std::string text = document.dump();
            for (size_t done = 0; done < text.size();) {
                const ssize_t put = ::write(pipeEnds[1], text.data() + done, text.size() - done);
                if (put <= 0) throw ToolError(kExitStore, "cannot hand over " + directory);
                done += static_cast<size_t>(put);
            }
        } catch (const ToolError& e) {
            std::fprintf(stderr, "orvane: %s\n", e.what());
            code = e.code();
        } catch (const std::exception& e) {
            std::fprintf(stderr, "orvane: %s\n", e.what());
            code = kExitStore;
        }
        std::fflush(stderr);
        ::_exit(code);
    }
    ::close(pipeEnds[1]);
    std::string text;
    char buffer[65536];
    for (ssize_t got; (got = ::read(pipeEnds[0], buffer, sizeof buffer)) != 0;) {
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) break;
        text.append(buffer, static_cast<size_t>(got));
    }
    ::close(pipeEnds[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != kExitOk) {
        // The child said why.
        throw ToolError(WIFEXITED(status) ? static_cast<ExitCode>(WEXITSTATUS(status)) : kExitStore,
                        "");
    }
    return text;
}

// A document is checked as import checks it, so only what import would
// accept is compared.
Registry fromDocument(const std::string& text, const std::string& origin) {
    Json document;
    try {
        document = parseImportDocument(text);
        planImport(document, [](const WString&) { return true; });
    } catch (const Json::parse_error& e) {
        throw ToolError(kExitUsage, origin + ": not JSON: " + e.what());
    } catch (const JsonError& e) {
        throw ToolError(kExitUsage,
                        origin + ": " + (e.pointer.empty() ? "/" : e.pointer) + ": " + e.message);
    }
    Registry registry;
    for (const Json& bucket : document["buckets"]) {
        WString name;
        fromUtf8(bucket["name"].get<std::string>(), name);
        addBucket(registry, name, bucket.contains("values") ? bucket["values"] : Json::object());
    }
    return registry;
}

// The user's own path, not a file of the store, so no file layer: a
// directory is a registry to export, anything else an export document.
Registry load(const Globals& globals, const std::string& path) {
    struct stat info;
    if (::stat(path.c_str(), &info) != 0) throw ToolError(kExitNotFound, "no such file " + path);
    return fromDocument(S_ISDIR(info.st_mode) ? exportedByChild(globals, path) : readUserFile(path),
                        path);
}

// One line per difference, sorted by bucket then value name.
std::vector<std::string> differences(const Registry& a, const Registry& b) {
    std::vector<std::string> lines;
    const auto only = [&lines](char side, const BucketValues& bucket) {
        lines.push_back(std::string(1, side) + " " + bucket.name);
    };
    for (const auto& [digest, left] : a) {
        auto found = b.find(digest);
        if (found == b.end()) {
            only('-', left);
            continue;
        }
        const BucketValues& right = found->second;
        const std::string& bucketName = left.name;  // a binding is no lambda capture
        const auto value = [&bucketName](char side, const std::string& name, const Json& v) {
            return std::string(1, side) + " " + bucketName + " " + quotedText(name) + " = " +
                   v.dump();
        };
        for (const auto& [key, named] : left.values) {
            auto other = right.values.find(key);
            if (other == right.values.end()) {
                lines.push_back(value('-', named.first, named.second));
            } else if (other->second.second != named.second) {
                lines.push_back(value('~', named.first, named.second) + " -> " +
                                other->second.second.dump());
            }
        }
        for (const auto& [key, named] : right.values) {
            if (left.values.count(key) == 0) lines.push_back(value('+', named.first, named.second));
        }
    }
    for (const auto& [digest, right] : b) {
        if (a.count(digest) == 0) only('+', right);
    }
    std::stable_sort(lines.begin(), lines.end(), [](const std::string& x, const std::string& y) {
        return x.compare(2, std::string::npos, y, 2, std::string::npos) < 0;
    });
    return lines;
}

}  // namespace

void addDiffCommand(CLI::App& app, const Globals& globals) {
    CLI::App* command = app.add_subcommand(
        "diff", "Compare two registries or exports, A and B: one line per difference");
    auto first = std::make_shared<std::string>();
    auto second = std::make_shared<std::string>();
    command->add_option("A", *first, "a registry directory or a document export wrote")->required();
    command->add_option("B", *second, "a registry directory or a document export wrote")
        ->required();
    command->footer(
        "Lines: \"- BUCKET\" only in A, \"+ BUCKET\" only in B; \"- BUCKET NAME = VALUE\", "
        "\"+ BUCKET NAME = VALUE\" a value only in A or B; \"~ BUCKET NAME = A-VALUE -> "
        "B-VALUE\" a value that differs. Values are in export's JSON form and compare as export "
        "writes them; names ignore case. Exit 0: the same, 1: different.");
    command->callback([&globals, first, second] {
        const Registry a = load(globals, *first);
        const Registry b = load(globals, *second);
        const std::vector<std::string> lines = differences(a, b);
        for (const std::string& line : lines)
            std::printf("%s\n", line.c_str());
        std::fflush(stdout);
        if (!lines.empty()) throw ToolError(kExitProblems, "");
    });
}

}  // namespace orvane_tool
