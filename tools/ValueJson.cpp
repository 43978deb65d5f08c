#include "ValueJson.h"

#include <cmath>
#include <limits>

#include "Session.h"
#include "Text.h"
#include "Tree.h"
#include "ValueAccess.h"
#include "ValueText.h"
#include "ValueTypes.h"

namespace orvane_tool {

using zq::kel::AutoRef;
using zq::kel::NString;
using zq::kel::StatusChain;
using zq::kel::WString;
using zq::orvane::IBucketManager;
using zq::orvane::IBucketValue;

std::string pointerStep(const std::string& key) {
    std::string out = "/";
    for (char c : key) {
        if (c == '~') {
            out += "~0";
        } else if (c == '/') {
            out += "~1";
        } else {
            out += c;
        }
    }
    return out;
}

// ---------------------------------------------------------------- writing

namespace {

Json narrowJson(const NString& text) {
    const std::string bytes(text.c_str(), text.length());
    if (isUtf8(bytes)) return Json(bytes);
    return Json{{"hex", toHex(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size())}};
}

Json wideJson(const WString& text) {
    if (isScalarText(text)) return Json(toUtf8(text));
    Json points = Json::array();
    for (wchar_t c : text)
        points.push_back(static_cast<uint32_t>(c));
    return Json{{"codepoints", points}};
}

template <class T>
Json elementJson(T value) {
    if constexpr (std::is_same<T, float>::value) {
        return std::isfinite(value) ? Json(float32AsDouble(value)) : Json(floatText(value));
    } else if constexpr (std::is_same<T, double>::value) {
        return std::isfinite(value) ? Json(value) : Json(floatText(value));
    } else if constexpr (sizeof(T) == 8) {
        // Many JSON readers hold numbers as doubles: 64-bit integers go as text.
        return Json(std::to_string(value));
    } else {
        return Json(value);
    }
}

}  // namespace

Json valueJson(const IBucketValue& value) {
    StatusChain status;
    status.clear();
    const uint32_t tag = value.getType();
    Json data;
    switch (tag) {
        case zq::orvane::kDIGEST:
            data = toHex(value.getDigest(status).bytes(), zq::orvane::Digest::kSize);
            break;
        case zq::orvane::kANSISTRING:
            data = narrowJson(value.getAnsiString(status));
            break;
        case zq::orvane::kSTRING:
            data = wideJson(value.getString(status));
            break;
        case zq::orvane::kBLOB: {
            const std::vector<unsigned char> bytes = blobOf(value, status);
            data = toHex(bytes.data(), bytes.size());
            break;
        }
        case zq::orvane::kANSISTRINGARRAY:
            data = Json::array();
            for (uint32_t i = 0; i < value.getArraySize(); ++i) {
                data.push_back(narrowJson(value.getAnsiStringArrayElement(i, status)));
            }
            break;
        case zq::orvane::kSTRINGARRAY:
            data = Json::array();
            for (uint32_t i = 0; i < value.getArraySize(); ++i) {
                data.push_back(wideJson(value.getStringArrayElement(i, status)));
            }
            break;
        default:
            if (!visitPlainKind(tag, [&](auto kind, bool isArray) {
                    using K = decltype(kind);
                    if (!isArray) {
                        data = elementJson(K::get(value, status));
                        return;
                    }
                    data = Json::array();
                    for (typename K::type element : arrayElements<K>(value, status)) {
                        data.push_back(elementJson(element));
                    }
                })) {
                throw ToolError(kExitStore, "a value of unknown type " + std::to_string(tag));
            }
    }
    checkStatus(status, "reading a value");
    return Json{{"type", typeName(tag)}, {"value", std::move(data)}};
}

Json bucketJson(zq::orvane::IBucket& bucket) {
    Json values = Json::object();
    ValueMembers members;
    forEachDataValue(bucket, [&](const WString& name, const AutoRef<IBucketValue>& value) {
        auto [key, json] = members.member(name, *value);
        values[key] = std::move(json);
    });
    return Json{{"name", nameJson(bucket.getFullName())}, {"values", std::move(values)}};
}

Json nameJson(const WString& name) { return wideJson(name); }

std::pair<std::string, Json> ValueMembers::member(const WString& name, const IBucketValue& value) {
    if (isScalarText(name)) return {toUtf8(name), valueJson(value)};
    WString shown(L"/");
    for (wchar_t c : name)
        shown += isScalarText(WString(&c, 1)) ? c : L'\uFFFD';
    std::string key = toUtf8(shown);
    for (int n = 2; !standIns_.insert(key).second; ++n)
        key = toUtf8(shown) + "#" + std::to_string(n);
    Json json{{"name", nameJson(name)}};
    json.update(valueJson(value));
    return {key, std::move(json)};
}

// ---------------------------------------------------------------- reading

namespace {

[[noreturn]] void bad(const std::string& at, const std::string& message) {
    throw JsonError{at, message};
}

// A document reader may hand over a blob's hex already decoded.
void hexString(const Json& j, const std::string& at, std::vector<unsigned char>& bytes) {
    if (j.is_binary()) {
        bytes.assign(j.get_binary().begin(), j.get_binary().end());
        return;
    }
    if (!j.is_string() || !fromHex(j.get_ref<const std::string&>(), bytes))
        bad(at, "expected a hex string");
}

NString narrowFrom(const Json& j, const std::string& at) {
    if (j.is_string()) {
        const std::string& s = j.get_ref<const std::string&>();
        return NString(s.data(), s.size());
    }
    if (j.is_object() && j.size() == 1 && j.contains("hex")) {
        std::vector<unsigned char> bytes;
        hexString(j["hex"], at + "/hex", bytes);
        return NString(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    }
    bad(at, "expected a string or {\"hex\": ...}");
}

WString wideFrom(const Json& j, const std::string& at) {
    if (j.is_string()) {
        WString text;
        if (!fromUtf8(j.get<std::string>(), text)) bad(at, "not Unicode text");
        return text;
    }
    if (j.is_object() && j.size() == 1 && j.contains("codepoints") && j["codepoints"].is_array()) {
        std::vector<wchar_t> chars;
        const Json& points = j["codepoints"];
        for (size_t i = 0; i < points.size(); ++i) {
            if (!points[i].is_number_unsigned() && !points[i].is_number_integer()) {
                bad(at + "/codepoints/" + std::to_string(i), "expected a number");
            }
            const int64_t c = points[i].get<int64_t>();
            if (c < 0 || c > 0x7FFFFFFF) {
                bad(at + "/codepoints/" + std::to_string(i), "not a character value");
            }
            chars.push_back(static_cast<wchar_t>(c));
        }
        return WString(chars.data(), chars.size());
    }
    bad(at, "expected a string or {\"codepoints\": [...]}");
}

}  // namespace

bool nameFromJson(const Json& j, WString& out) {
    try {
        out = wideFrom(j, "");
    } catch (const JsonError&) {
        return false;
    }
    return true;
}

WString valueNameFromJson(const std::string& key, const Json& object, const std::string& at) {
    const bool inObject = object.is_object() && object.contains("name");
    const std::string here = inObject ? at + "/name" : at;
    WString name;
    if (!(inObject ? nameFromJson(object["name"], name) : fromUtf8(key, name)) || name.empty()) {
        bad(here, "a value needs a name");
    }
    if (name[0] == L'/')
        bad(here, "a value name begins with \"/\" only in a link to a child bucket");
    return name;
}

namespace {

template <class T>
T elementFrom(const Json& j, const std::string& at) {
    T value{};
    if constexpr (std::is_same<T, bool>::value) {
        if (!j.is_boolean()) bad(at, "expected true or false");
        value = j.get<bool>();
    } else if constexpr (std::is_floating_point<T>::value) {
        if (j.is_string()) {
            if (!parseFloat(j.get<std::string>(), value)) bad(at, "not a float");
        } else if (j.is_number()) {
            const double d = j.get<double>();
            value = static_cast<T>(d);
            if (std::isinf(value) && !std::isinf(d)) bad(at, "out of range");
        } else {
            bad(at, "expected a number or a string");
        }
    } else {
        bool good = false;
        if (j.is_number_unsigned()) {
            const uint64_t u = j.get<uint64_t>();
            good = u <= static_cast<uint64_t>(std::numeric_limits<T>::max());
            value = static_cast<T>(u);
        } else if (j.is_number_integer()) {
            const int64_t i = j.get<int64_t>();
            good = i >= static_cast<int64_t>(std::numeric_limits<T>::min()) &&
                   (i < 0 || static_cast<uint64_t>(i) <=
                                 static_cast<uint64_t>(std::numeric_limits<T>::max()));
            value = static_cast<T>(i);
        } else if (j.is_string()) {
            good = parseInteger(j.get<std::string>(), value);
        } else {
            bad(at, "expected an integer");
        }
        if (!good) bad(at, "not an integer in the type's range");
    }
    return value;
}

const Json& arrayAt(const Json& j, const std::string& at) {
    if (!j.is_array()) bad(at, "expected an array");
    return j;
}

}  // namespace

// The parts of a value in its JSON element, each checked where it is.
struct JsonSource {
    const Json& j;
    const std::string& here;
    Json* takeFrom;  // the same element, when its blob bytes may be taken

    const Json& at(size_t i) const { return i == kWhole ? j : j[i]; }
    std::string path(size_t i) const { return i == kWhole ? here : here + "/" + std::to_string(i); }

    size_t count() const { return arrayAt(j, here).size(); }
    zq::orvane::Digest digest() const {
        std::vector<unsigned char> bytes;
        hexString(j, here, bytes);
        if (bytes.size() != zq::orvane::Digest::kSize) bad(here, "expected 64 hex digits");
        const unsigned char* cursor = bytes.data();
        return zq::orvane::Digest(cursor, cursor + bytes.size());
    }
    std::vector<unsigned char> blob() const {
        std::vector<unsigned char> bytes;
        if (takeFrom != nullptr && takeFrom->is_binary()) {
            bytes = std::move(static_cast<std::vector<std::uint8_t>&>(takeFrom->get_binary()));
        } else {
            hexString(j, here, bytes);
        }
        return bytes;
    }
    NString narrow(size_t i) const { return narrowFrom(at(i), path(i)); }
    WString wide(size_t i) const { return wideFrom(at(i), path(i)); }
    template <class T>
    T element(size_t i) const {
        return elementFrom<T>(at(i), path(i));
    }
};

namespace {

ValueMaker makeValueFromJson(const Json& object, const std::string& at, Json* takeFrom) {
    if (!object.is_object()) bad(at, "expected {\"type\": ..., \"value\": ...}");
    for (auto it = object.begin(); it != object.end(); ++it) {
        if (it.key() != "type" && it.key() != "value" && it.key() != "name")
            bad(at + pointerStep(it.key()), "unexpected member");
    }
    if (!object.contains("type") || !object["type"].is_string())
        bad(at + "/type", "expected a type name");
    const uint32_t tag = typeTag(object["type"].get<std::string>());
    if (tag == 0)
        bad(at + "/type", "unknown type " + quotedText(object["type"].get<std::string>()));
    if (!object.contains("value")) bad(at + "/value", "missing");
    const Json& j = object["value"];
    const std::string here = at + "/value";
    JsonSource source{j, here, takeFrom != nullptr ? &(*takeFrom)["value"] : nullptr};
    return checkedMaker(makerFor(tag, source));
}

}  // namespace

ValueMaker valueFromJson(const Json& object, const std::string& at) {
    return makeValueFromJson(object, at, nullptr);
}

ValueMaker takeValueFromJson(Json& object, const std::string& at) {
    return makeValueFromJson(object, at, &object);
}

}  // namespace orvane_tool
