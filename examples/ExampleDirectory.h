#ifndef ORVANE_EXAMPLES_EXAMPLEDIRECTORY_H
#define ORVANE_EXAMPLES_EXAMPLEDIRECTORY_H

#include <stdlib.h>

#include <string>

// Where an example keeps its registry: the directory named on its command
// line, else a new one under /tmp with the process lock files beside it (a
// real client leaves both to the controller's defaults).
inline std::string exampleDirectory(int argc, char** argv) {
    if (argc > 1) return argv[1];
    char pattern[] = "/tmp/orvane_example_XXXXXX";
    if (mkdtemp(pattern) == nullptr) return std::string();
    const std::string directory = pattern;
    setenv("ZQKELTMPSHAREDFILEDIR", (directory + "/shared").c_str(), 0);
    return directory + "/registry";
}

#endif  // ORVANE_EXAMPLES_EXAMPLEDIRECTORY_H
