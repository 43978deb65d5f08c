#ifndef ZQ_ORVANE_OPTIONS_H
#define ZQ_ORVANE_OPTIONS_H

#include <cstdint>
#include <utility>
#include <vector>

#include "zq/kel/StatusChain.h"
#include "zq/kel/StringBase.h"

namespace zq {
namespace orvane {

// The settings of a bucket manager, read once from its ini file
// (section "Orvane") when the manager is built, and constant afterwards, so
// any thread may read them. A missing file, section, key or an unusable value
// never fails: the entry's default applies, or it keeps its initial state
// (empty text, number 0, flag true).
class Options {
  public:
    enum Entry : uint32_t {
        kMemoryCacheSizeLimitKB,
        kMemoryCacheUpdatePct,
        kDebugCompareRegAtStartMode,
        kDebugCompareRegAtStartFile,
        kDebugSimulateCommitCrash,
        kDebugSimulateCompactionCrash,
        kDebugSimulateMiscCrash,
        kMemoryIndicesSizeLimitKB,
        kDiskMaxRegistryFileSizeKB,
        kCallbackDLLName,
        kDBOwner,
        kDBGroup,
        kDBMode,
        // Opens the registry for reading only, as when it cannot be written.
        kReadOnly,
        kEntryCount
    };
    enum Kind : int32_t { kText, kInteger, kBoolean, kUserName, kGroupName, kPermissionMode };

    using Values = std::vector<std::pair<Entry, kel::WString>>;

    // Does nothing at all when `status` already holds an error (a status that
    // was never set does not count).
    Options(const kel::WString& optionsFile, kel::StatusChain& status);
    // Defaults with `values` applied over them, without a file: the way tests
    // hand a manager its settings. Unlike the file, these set text entries too.
    Options(const Values& values, kel::StatusChain& status);
    virtual ~Options();

    int32_t number(Entry entry) const { return slots_[entry].number; }
    bool flag(Entry entry) const { return slots_[entry].flag; }
    kel::WString text(Entry entry) const { return slots_[entry].text; }
    // An entry counts as configured when it holds a text.
    bool isSet(Entry entry) const { return !slots_[entry].text.empty(); }

    static const char* key(Entry entry);
    static Kind kind(Entry entry);

    // "ZQPUBAPPDATADIR" when it names a directory, else "/var/local/varlont".
    static kel::WString baseDirectory();
    // `given` when not empty, else the base joined with "Orvane/config/Orvane.ini".
    static kel::WString findOptionsFile(const kel::WString& given);
    // The base joined with "Orvane".
    static kel::WString defaultRegistryDirectory();

  private:
    struct Slot {
        kel::WString text;
        int32_t number = 0;
        bool flag = true;
    };

    void load(const kel::WString& optionsFile);
    void applyDefaults();
    void apply(Entry entry, const kel::WString& text, bool textKindsToo);

    Slot slots_[kEntryCount];
};

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_OPTIONS_H
