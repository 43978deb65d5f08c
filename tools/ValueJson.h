#ifndef ORVANE_TOOLS_VALUEJSON_H
#define ORVANE_TOOLS_VALUEJSON_H

#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <utility>

#include "ValueAccess.h"
#include "zq/orvane/Orvane.h"

namespace orvane_tool {

// The export document:
//   {"format": "orvane-registry", "version": 1,
//    "buckets": [{"name": "/net", "values": {"speed": {"type": "uint32", "value": 100}}}]}
// Every value is {"type": TYPE, "value": V} with V by type:
//   bool: true/false; 8- to 32-bit integers: numbers; int64, uint64: decimal strings;
//   float32, float64: numbers when finite, else "inf", "-inf", "nan", "-nan" or "0x" and
//   the bit pattern (any float may be given so);
//   string: a string, or {"codepoints": [...]} for values that are not Unicode text
//   (bucket and value names too, see ValueMembers);
//   ansistring: a string, or {"hex": "..."} for bytes that are not UTF-8;
//   blob: hex; digest: 64 hex digits; arrays: JSON arrays of the element form.
// Child links are not values here: a bucket's presence in the document
// makes its link.
using Json = nlohmann::ordered_json;

Json valueJson(const zq::orvane::IBucketValue& value);
// {"name": ..., "values": {...}}
Json bucketJson(zq::orvane::IBucket& bucket);

// A bucket's or a value's name as a string when it is Unicode text, else
// as {"codepoints": [...]}, like a string value.
Json nameJson(const zq::kel::WString& name);
// The name `j` holds in either form; false when it holds neither.
bool nameFromJson(const Json& j, zq::kel::WString& out);

// The members of one bucket's "values" object. A name that is not Unicode
// text cannot be a JSON member name: its member gets a stand-in name that
// begins with "/", which no value's own name may, and its object carries
// the name: "/v\ufffd": {"name": {"codepoints": [...]}, "type": ..., ...}.
class ValueMembers {
  public:
    std::pair<std::string, Json> member(const zq::kel::WString& name,
                                        const zq::orvane::IBucketValue& value);

  private:
    std::set<std::string> standIns_;
};

// The name of the value in the member `key` with the object `object`.
// JsonError when neither gives a usable one.
zq::kel::WString valueNameFromJson(const std::string& key, const Json& object,
                                   const std::string& at);

// A bad element of a document: its JSON pointer and what is wrong.
struct JsonError {
    std::string pointer;
    std::string message;
};

// The value a {"type", "value"} object describes, checked; JsonError with
// the pointer of the bad element (`at` is the object's own) otherwise.
ValueMaker valueFromJson(const Json& object, const std::string& at);
// The same, but a blob's bytes a document reader decoded are moved out of
// `object` rather than copied.
ValueMaker takeValueFromJson(Json& object, const std::string& at);

// "/buckets/3/values/a~1b": a JSON pointer step, escaped.
std::string pointerStep(const std::string& key);

}  // namespace orvane_tool

#endif  // ORVANE_TOOLS_VALUEJSON_H
