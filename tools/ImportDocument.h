#ifndef ORVANE_TOOLS_IMPORTDOCUMENT_H
#define ORVANE_TOOLS_IMPORTDOCUMENT_H

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "ValueJson.h"
#include "zq/kel/StringBase.h"

namespace orvane_tool {

struct PlannedBucket {
    size_t index;  // in the document, for messages
    zq::kel::WString name;
    size_t depth;
    std::vector<std::pair<zq::kel::WString, ValueMaker>> values;
};

// The text as JSON, refusing repeated member names: Json::parse_error or
// JsonError.
Json parseImportDocument(const std::string& text);

// The whole document checked and turned into buckets, parents first, before
// anything is written; JsonError names the first bad element. `inRegistry`
// says whether a parent the document lacks already exists.
std::vector<PlannedBucket> planImport(
    const Json& document, const std::function<bool(const zq::kel::WString&)>& inRegistry);

}  // namespace orvane_tool

#endif  // ORVANE_TOOLS_IMPORTDOCUMENT_H
