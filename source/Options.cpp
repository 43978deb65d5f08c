#include "source/Options.h"

#include <cstdlib>

#include "ini/IniReader.h"
#include "kel/osdep/Accounts.h"
#include "kel/osdep/FileSystem.h"
#include "kel/osdep/Path.h"
#include "zq/kel/Exception.h"

namespace zq {
namespace orvane {

using kel::NString;
using kel::WString;

namespace {

struct Definition {
    const char* key;
    Options::Kind kind;
    const char* defaultText;
};

const Definition kDefinitions[Options::kEntryCount] = {
    {"MemoryCacheSizeLimitKB", Options::kInteger, "1024"},
    {"MemoryCacheUpdatePct", Options::kInteger, "10"},
    {"DebugCompareRegAtStartMode", Options::kInteger, "0"},
    {"DebugCompareRegAtStartFile", Options::kText, "comparator.txt"},
    {"DebugSimulateCommitCrash", Options::kBoolean, "false"},
    {"DebugSimulateCompactionCrash", Options::kBoolean, "false"},
    {"DebugSimulateMiscCrash", Options::kBoolean, "false"},
    {"MemoryIndicesSizeLimitKB", Options::kInteger, "1024"},
    {"DiskMaxRegistryFileSizeKB", Options::kInteger, "1024"},
    {"CallbackDLLName", Options::kText, ""},
    {"DBOwner", Options::kUserName, ""},
    {"DBGroup", Options::kGroupName, ""},
    {"DBMode", Options::kPermissionMode, "-1"},
    {"ReadOnly", Options::kBoolean, "false"},
};

const char kSection[] = "Orvane";
const char kDefaultBase[] = "/var/local/varlont";

// Owns an ini reader for the length of one load.
class Reader {
  public:
    Reader() : reader_(ini::iniCreate(0)) {}
    ~Reader() { ini::iniDiscard(reader_); }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;
    ini::IniReader* get() const { return reader_; }

  private:
    ini::IniReader* reader_;
};

// A status that was never set ("not completed") is no earlier failure.
bool holdsError(const kel::StatusChain& status) {
    return status.isFatal() && status.getCode() != kel::StatusChain::kNotCompleted;
}

}  // namespace

Options::Options(const WString& optionsFile, kel::StatusChain& status) {
    if (!holdsError(status)) {
        load(optionsFile);
    }
}

Options::Options(const Values& values, kel::StatusChain& status) {
    if (holdsError(status)) {
        return;
    }
    applyDefaults();
    for (const auto& value : values) {
        if (value.first < kEntryCount) {
            apply(value.first, value.second, true);
        }
    }
}

Options::~Options() = default;

const char* Options::key(Entry entry) { return kDefinitions[entry].key; }

Options::Kind Options::kind(Entry entry) { return kDefinitions[entry].kind; }

void Options::load(const WString& optionsFile) {
    Reader reader;
    const NString path(optionsFile);
    if (reader.get() == nullptr || ini::iniParseFile(reader.get(), path.c_str()) < 0 ||
        !ini::iniHasSection(reader.get(), kSection)) {
        applyDefaults();
        return;
    }
    for (uint32_t i = 0; i < kEntryCount; ++i) {
        const Entry entry = static_cast<Entry>(i);
        const char* text = nullptr;
        WString wide(kDefinitions[i].defaultText);
        if (ini::iniGetString(reader.get(), kSection, kDefinitions[i].key, &text) > 0) {
            try {
                wide = WString(text);
            } catch (const kel::exception::InvalidSequence&) {
                // Text that is not UTF-8 is as good as absent.
            }
        }
        apply(entry, wide, false);
    }
}

void Options::applyDefaults() {
    for (uint32_t i = 0; i < kEntryCount; ++i) {
        apply(static_cast<Entry>(i), WString(kDefinitions[i].defaultText), false);
    }
}

// Only the file's text entries are ignored: the library never loads a
// callback library named in a file, but tests may still name one.
void Options::apply(Entry entry, const WString& text, bool textKindsToo) {
    Slot& slot = slots_[entry];
    int32_t number = 0;
    uint32_t id = 0;
    switch (kDefinitions[entry].kind) {
        case kText:
            if (textKindsToo) {
                slot.text = text;
            }
            break;
        case kInteger:
            // A number that does not parse counts as absent.
            if (!text.toInt32(number, 10)) {
                WString(kDefinitions[entry].defaultText).toInt32(number, 10);
                slot.text = WString(kDefinitions[entry].defaultText);
            } else {
                slot.text = text;
            }
            slot.number = number;
            break;
        case kBoolean:
            slot.text = text;
            slot.flag = kel::equalsNoCase(text.c_str(), L"true");
            break;
        case kUserName:
        case kGroupName: {
            const NString name(text);
            const bool found = kDefinitions[entry].kind == kUserName
                                   ? kel::osdep::findUserId(name.c_str(), id)
                                   : kel::osdep::findGroupId(name.c_str(), id);
            if (found) {
                slot.text = text;
                slot.number = static_cast<int32_t>(id);
            }
            break;
        }
        case kPermissionMode:
            if (text.toInt32(number, 10) && number >= 0 && text.toInt32(number, 8) &&
                (number & ~0777) == 0) {
                slot.text = text;
                slot.number = number;
            }
            break;
    }
}

WString Options::baseDirectory() {
    const char* fromEnvironment = std::getenv("ZQPUBAPPDATADIR");
    if (fromEnvironment != nullptr && *fromEnvironment != '\0') {
        try {
            const WString base(fromEnvironment);
            if (kel::osdep::FileSystem::posix().isDirectory(base)) {
                return base;
            }
        } catch (const kel::exception::Exception&) {
            // Unusable: fall back to the fixed base.
        }
    }
    return WString(kDefaultBase);
}

WString Options::findOptionsFile(const WString& given) {
    if (!given.empty()) {
        return given;
    }
    using kel::osdep::join;
    return join(join(join(baseDirectory(), WString(L"Orvane")), WString(L"config")),
                WString(L"Orvane.ini"));
}

WString Options::defaultRegistryDirectory() {
    return kel::osdep::join(baseDirectory(), WString(L"Orvane"));
}

}  // namespace orvane
}  // namespace zq
