#ifndef ORVANE_TOOLS_GENERATED_H
#define ORVANE_TOOLS_GENERATED_H

#include <string>

namespace CLI {
class App;
}

namespace orvane_tool {

// The manual page (roff) and the bash completion script, both made from the
// application's own commands and help texts, so neither falls behind them.
std::string manPage(const CLI::App& app);
std::string bashCompletion(const CLI::App& app);

// Hidden flags --man-page and --bash-completion print them; the build
// installs what they print.
void addGeneratorFlags(CLI::App& app);

}  // namespace orvane_tool

#endif  // ORVANE_TOOLS_GENERATED_H
