// The import document: parsed and checked as import checks it before it
// opens the registry, against a registry that holds only "/" and "/held".
#include <cstdint>
#include <string>

#include "ImportDocument.h"

using namespace orvane_tool;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    try {
        const Json document = parseImportDocument(text);
        planImport(document,
                   [](const zq::kel::WString& path) { return path == zq::kel::WString(L"/held"); });
    } catch (const Json::exception&) {
    } catch (const JsonError&) {
    }
    return 0;
}
