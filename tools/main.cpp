#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "Generated.h"
#include "Session.h"
#include "Tool.h"

namespace {

const char kExitCodes[] =
    "Exit codes:\n"
    "  0  success (verify: no problem found; diff: no difference)\n"
    "  1  verify found problems; diff found differences\n"
    "  2  usage: bad arguments, a bad value or document, a refused request\n"
    "  3  not found: no such bucket, value or registry\n"
    "  4  store error: the library or the registry's files failed\n"
    "  5  timeout: another process held the registry's lock longer than --wait\n"
    "A failed command commits nothing, and one refused for its arguments or for what the "
    "registry holds leaves every file as it was.";

// The options before the command that take a value, to find the command.
bool takesValue(const std::string& word) {
    return word == "--data-dir" || word == "--options" || word == "--wait";
}

// CLI11 calls a stray word an unexpected argument; the user typed a command.
std::string unknownCommand(CLI::App& app, int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "--") return {};
        if (takesValue(word)) {
            ++i;
            continue;
        }
        if (word.empty() || word[0] == '-') continue;
        try {
            app.get_subcommand(word);
            return {};
        } catch (const CLI::OptionNotFound&) {
            return word;
        }
    }
    return {};
}

void addHelpCommand(CLI::App& app) {
    CLI::App* command = app.add_subcommand("help", "Print the help of the tool or of COMMAND");
    auto name = std::make_shared<std::string>();
    command->add_option("COMMAND", *name, "a command");
    command->callback([&app, name] {
        // App::help() would describe the command running: this one.
        const CLI::App* about = &app;
        std::string usage = "orvane";
        if (!name->empty()) {
            try {
                about = app.get_subcommand(*name);
            } catch (const CLI::OptionNotFound&) {
                throw orvane_tool::ToolError(orvane_tool::kExitUsage,
                                             "unknown command '" + *name + "'");
            }
            usage += " " + *name;
        }
        const std::string text =
            app.get_formatter()->make_help(about, usage, CLI::AppFormatMode::Normal);
        std::fputs(text.c_str(), stdout);
    });
}

}  // namespace

int main(int argc, char** argv) {
    using namespace orvane_tool;
    // Past a file-size limit a write fails with EFBIG and the commit is
    // undone and reported, instead of the signal killing the tool mid-way.
    std::signal(SIGXFSZ, SIG_IGN);
    CLI::App app("Inspect, edit, export, import and verify an Orvane registry.", "orvane");
    app.footer(kExitCodes);
    app.require_subcommand(1);
    app.set_version_flag("-V,--version", "orvane " ORVANE_VERSION);
    Globals globals;
    app.add_option("--data-dir", globals.dataDir,
                   "registry directory (default: the library's, under $ZQPUBAPPDATADIR)")
        ->type_name("DIR")
        ->check([](const std::string& dir) {
            return dir.empty() ? "empty (an unset variable?): give a directory" : "";
        });
    app.add_option("--options", globals.optionsFile, "options file (default: the library's)")
        ->type_name("FILE")
        ->check([](const std::string& file) { return optionsFileProblem(absolutePath(file)); });
    app.add_option("--wait", globals.waitSeconds,
                   "seconds a write waits for another process's lock (default 10; 0: no wait)")
        ->type_name("SECONDS")
        ->check([](const std::string& text) {
            char* end = nullptr;
            const double seconds = std::strtod(text.c_str(), &end);
            const bool good = end != text.c_str() && *end == '\0' && seconds >= 0;
            return good ? "" : "not a number of seconds, 0 or more";
        });
    addLsCommand(app, globals);
    addGetCommand(app, globals);
    addSetCommand(app, globals);
    addRmCommand(app, globals);
    addMvCommand(app, globals);
    addCpCommand(app, globals);
    addDumpCommand(app, globals);
    addExportCommand(app, globals);
    addImportCommand(app, globals);
    addDiffCommand(app, globals);
    addVerifyCommand(app, globals);
    addStatCommand(app, globals);
    addCompactCommand(app, globals);
    addRepairCommand(app, globals);
    addWatchCommand(app, globals);
    addHelpCommand(app);
    addGeneratorFlags(app);
    const std::string unknown = unknownCommand(app, argc, argv);
    if (!unknown.empty()) {
        std::fprintf(stderr, "orvane: unknown command '%s'; `orvane help` lists the commands\n",
                     unknown.c_str());
        return kExitUsage;
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        // Help, version and the generators end the parse with exit code 0.
        return app.exit(e) == 0 ? kExitOk : kExitUsage;
    } catch (const ToolError& e) {
        std::fflush(stdout);
        // An empty message: the command said all there was on stdout.
        if (*e.what() != '\0') std::fprintf(stderr, "orvane: %s\n", e.what());
        return e.code();
    } catch (const std::exception& e) {
        std::fflush(stdout);
        std::fprintf(stderr, "orvane: %s\n", e.what());
        return kExitStore;
    } catch (...) {
        std::fflush(stdout);
        std::fprintf(stderr, "orvane: unexpected failure\n");
        return kExitStore;
    }
    return kExitOk;
}
