#ifndef ORVANE_TOOLS_TOOL_H
#define ORVANE_TOOLS_TOOL_H

#include <cstdint>
#include <stdexcept>
#include <string>

namespace CLI {
class App;
}

namespace orvane_tool {

// What the process returns; listed in --help.
enum ExitCode : int {
    kExitOk = 0,
    kExitProblems = 1,  // verify found damage
    kExitUsage = 2,     // bad arguments, bad value, bad document, refused request
    kExitNotFound = 3,  // no such bucket, value or registry
    kExitStore = 4,     // the library or the files failed
    kExitTimeout = 5,   // another process held the registry's lock too long
};

// A command's failure: the message the user reads and the exit code.
class ToolError : public std::runtime_error {
  public:
    ToolError(ExitCode code, const std::string& message)
        : std::runtime_error(message), code_(code) {}
    ExitCode code() const { return code_; }

  private:
    ExitCode code_;
};

// The options every command shares.
struct Globals {
    std::string dataDir;      // empty: the library's default
    std::string optionsFile;  // empty: the library's default
    double waitSeconds = 10;  // how long a write waits for the registry's lock
};

// Each command adds itself to the application; its callback does the work
// and throws ToolError on failure.
void addLsCommand(CLI::App& app, const Globals& globals);
void addGetCommand(CLI::App& app, const Globals& globals);
void addSetCommand(CLI::App& app, const Globals& globals);
void addRmCommand(CLI::App& app, const Globals& globals);
void addDumpCommand(CLI::App& app, const Globals& globals);
void addExportCommand(CLI::App& app, const Globals& globals);
void addImportCommand(CLI::App& app, const Globals& globals);
void addVerifyCommand(CLI::App& app, const Globals& globals);
void addStatCommand(CLI::App& app, const Globals& globals);
void addCompactCommand(CLI::App& app, const Globals& globals);
void addMvCommand(CLI::App& app, const Globals& globals);
void addCpCommand(CLI::App& app, const Globals& globals);
void addDiffCommand(CLI::App& app, const Globals& globals);
void addRepairCommand(CLI::App& app, const Globals& globals);
void addWatchCommand(CLI::App& app, const Globals& globals);

}  // namespace orvane_tool

#endif  // ORVANE_TOOLS_TOOL_H
