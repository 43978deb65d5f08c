// A callback library as a client would write one: it leaves a mark in the
// directory it is told about, so a test can see that the call arrived.
#include <cstdio>
#include <string>

namespace {

void mark(const char* directory, const char* name) {
    std::FILE* file = std::fopen((std::string(directory) + "/" + name).c_str(), "w");
    if (file != nullptr) {
        std::fclose(file);
    }
}

}  // namespace

extern "C" __attribute__((visibility("default"))) void OrvanePreInitCallback(
    const char* directory) {
    mark(directory, "preinit");
}

#ifndef ORVANE_PRE_INIT_ONLY
extern "C" __attribute__((visibility("default"))) void OrvanePostCommitCallback(
    const char* directory) {
    mark(directory, "postcommit");
}
#endif
