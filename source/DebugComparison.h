#ifndef ZQ_ORVANE_DEBUGCOMPARISON_H
#define ZQ_ORVANE_DEBUGCOMPARISON_H

#include <string>

#include "kel/osdep/FileSystem.h"
#include "zq/kel/StatusChain.h"
#include "zq/kel/StringBase.h"
#include "zq/orvane/IBucketManager.h"

namespace zq {
namespace orvane {

class Options;

// The start-up check that the registry reads back as a stored reference
// dump says it should: one line per bucket, from the root down. Failures
// stay in the status given and never stop the manager.
class DebugComparison {
  public:
    DebugComparison(IBucketManager& manager, kel::osdep::FileSystem& fs,
                    const kel::WString& dataDirectory, const kel::WString& referenceOption,
                    const Options* options);

    // The reference dump's name: the option's text, "comparator.txt" when empty.
    static kel::WString referenceName(const kel::WString& option);

    void writeReference(kel::StatusChain& status);
    // Dumps into "temp_" + the reference name, compares, and writes
    // "debugResults.txt".
    void compare(kel::StatusChain& status);

    // Lines that differ only in a version or a modified flag still match.
    static bool sameDump(const std::string& reference, const std::string& fresh);

  private:
    std::string dump(kel::StatusChain& status);
    void write(const kel::WString& name, const std::string& content);

    IBucketManager& manager_;
    kel::osdep::FileSystem& fs_;
    kel::WString directory_;
    kel::WString reference_;
    const Options* options_;
};

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_DEBUGCOMPARISON_H
