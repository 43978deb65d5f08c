// The ini reader, on a file holding the input, with each set of flags.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "ini/IniReader.h"

using namespace zq;

namespace {

std::string scratchFile() {
    char pattern[] = "/tmp/orvane_fuzz_ini_XXXXXX";
    const int fd = mkstemp(pattern);
    if (fd < 0) std::abort();
    close(fd);
    return pattern;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string path = scratchFile();
    FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr || std::fwrite(data, 1, size, file) != size || std::fclose(file) != 0) {
        std::abort();
    }
    for (unsigned flags : {0u, ini::kIniKeepEmptyValues | ini::kIniColonSeparates}) {
        ini::IniReader* reader = ini::iniCreate(flags);
        if (reader == nullptr) std::abort();
        if (ini::iniParseFile(reader, path.c_str()) >= 0) {
            // Look up the names the input itself offers, and one it lacks.
            const std::string text(reinterpret_cast<const char*>(data), size);
            const size_t open = text.find('[');
            const size_t close = text.find(']', open == std::string::npos ? 0 : open);
            const std::string section = open != std::string::npos && close != std::string::npos
                                            ? text.substr(open + 1, close - open - 1)
                                            : "";
            const size_t equals = text.find('=');
            const size_t lineStart = equals == std::string::npos ? 0 : text.rfind('\n', equals) + 1;
            const std::string key =
                equals == std::string::npos ? "" : text.substr(lineStart, equals - lineStart);
            ini::iniHasSection(reader, section.c_str());
            const char* value = nullptr;
            ini::iniGetString(reader, section.c_str(), key.c_str(), &value);
            ini::iniGetString(reader, "", key.c_str(), &value);
            ini::iniGetString(reader, "no such", "key", &value);
            ini::iniPath(reader);
        }
        ini::iniDiscard(reader);
    }
    return 0;
}
