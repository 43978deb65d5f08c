#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>

#include "Tool.h"

namespace {

const char kExitCodes[] =
    "Exit codes:\n"
    "  0  success (verify: no problem found)\n"
    "  1  verify found problems\n"
    "  2  usage: bad arguments, a bad value or document, a refused request\n"
    "  3  not found: no such bucket, value or registry\n"
    "  4  store error: the library or the registry's files failed\n"
    "A failed command commits nothing, and one refused for its arguments or for what the "
    "registry holds leaves every file as it was.";

}  // namespace

int main(int argc, char** argv) {
    using namespace orvane_tool;
    CLI::App app("Inspect, edit, export, import and verify an Orvane registry.", "orvane");
    app.footer(kExitCodes);
    app.require_subcommand(1);
    Globals globals;
    app.add_option("--data-dir", globals.dataDir,
                   "registry directory (default: the library's, under $ZQPUBAPPDATADIR)");
    app.add_option("--options", globals.optionsFile, "options file (default: the library's)");
    addLsCommand(app, globals);
    addGetCommand(app, globals);
    addSetCommand(app, globals);
    addRmCommand(app, globals);
    addDumpCommand(app, globals);
    addExportCommand(app, globals);
    addImportCommand(app, globals);
    addVerifyCommand(app, globals);
    addStatCommand(app, globals);
    addCompactCommand(app, globals);
    addRepairCommand(app, globals);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        app.exit(e);
        return kExitUsage;
    } catch (const ToolError& e) {
        std::fflush(stdout);
        std::fprintf(stderr, "orvane: %s\n", e.what());
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
