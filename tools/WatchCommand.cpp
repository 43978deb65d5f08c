#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <memory>

#include "Session.h"
#include "Text.h"
#include "Tool.h"
#include "ValueJson.h"
#include "zq/orvane/Watch.h"

namespace orvane_tool {

namespace {

volatile std::sig_atomic_t interrupted = 0;

void onInterrupt(int) { interrupted = 1; }

const char* kindName(zq::orvane::WatchChange::Kind kind) {
    switch (kind) {
        case zq::orvane::WatchChange::kCreated:
            return "created";
        case zq::orvane::WatchChange::kDeleted:
            return "deleted";
        default:
            return "changed";
    }
}

// A name that is not Unicode text still prints: its odd units as \u{...}.
std::string nameText(const zq::kel::WString& name) {
    if (isScalarText(name)) return toUtf8(name);
    std::string text;
    for (size_t i = 0; i < name.length(); ++i) {
        const zq::kel::WString unit(name.c_str() + i, 1);
        char escaped[16];
        std::snprintf(escaped, sizeof escaped, "\\u{%x}", static_cast<unsigned>(name[i]));
        text += isScalarText(unit) ? toUtf8(unit) : std::string(escaped);
    }
    return text;
}

void printBatch(const zq::orvane::WatchBatch& batch, bool json) {
    if (batch.reset) {
        std::printf(json ? "{\"change\": \"reset\"}\n" : "reset\n");
    }
    for (const zq::orvane::WatchChange& change : batch.changes) {
        if (!json) {
            std::printf("%s %s\n", kindName(change.kind), nameText(change.name).c_str());
            continue;
        }
        Json line = {{"change", kindName(change.kind)}, {"name", nameText(change.name)}};
        if (change.bucket) line["values"] = bucketJson(*change.bucket)["values"];
        std::printf("%s\n", line.dump().c_str());
    }
    if (json) std::printf("%s\n", Json({{"state", batch.state}}).dump().c_str());
    std::fflush(stdout);
}

}  // namespace

void addWatchCommand(CLI::App& app, const Globals& globals) {
    CLI::App* command = app.add_subcommand(
        "watch",
        "Print each change to PATH (default \"/\") and its descendants as it is committed");
    auto path = std::make_shared<std::string>("/");
    auto since = std::make_shared<std::string>();
    auto batches = std::make_shared<int>(0);
    auto json = std::make_shared<bool>(false);
    command->add_option("PATH", *path, "bucket path");
    command->add_flag("--json", *json, "one JSON object a line, with the new values as in export");
    command->add_option("--since", *since, "a state printed earlier: report what changed after it");
    command->add_option("--batches", *batches, "stop after this many batches (default: never)");
    command->footer(
        "Lines read \"created|changed|deleted PATH\", one per bucket a commit changed; a bucket "
        "stored again with the same values, a commit elsewhere and a compaction print nothing. "
        "Changes made while the command was busy come together, each bucket once. \"reset\" "
        "means the registry's files no longer tell what changed since --since: read it anew. "
        "With --json each batch ends with {\"state\": S}; the states it starts and stops at are "
        "printed to standard error. Reads only: any user who may read the registry may watch it.");
    command->callback([&globals, path, since, batches, json] {
        const zq::kel::WString top = bucketPath(*path);
        Session session(globals, Session::kReadOnly);
        zq::kel::StatusChain status;
        status.clear();
        std::unique_ptr<zq::orvane::Watch> watch =
            zq::orvane::Watch::open(session.manager(), top, status, *since);
        if (status.getCode() == zq::orvane::status::kKelInvalidArgument) {
            throw ToolError(kExitUsage,
                            "--since " + quotedText(*since) + " is not a state printed by watch");
        }
        checkStatus(status, "watching " + *path);
        // Said once it is watching: a script may start changes from here on.
        std::fprintf(stderr, "watching %s from state %s\n", path->c_str(), watch->state().c_str());
        std::signal(SIGINT, onInterrupt);
        std::signal(SIGTERM, onInterrupt);
        // Woken at once by a change; the timeout only lets an interrupt end it.
        for (int done = 0; !interrupted && (*batches == 0 || done < *batches);) {
            zq::orvane::WatchBatch batch;
            if (watch->wait(200, status) && watch->read(batch, status)) {
                printBatch(batch, *json);
                ++done;
            }
            checkStatus(status, "watching " + *path);
        }
        std::fprintf(stderr, "state %s\n", watch->state().c_str());
    });
}

}  // namespace orvane_tool
