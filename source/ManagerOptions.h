#ifndef ZQ_ORVANE_MANAGEROPTIONS_H
#define ZQ_ORVANE_MANAGEROPTIONS_H

#include <memory>

#include "kel/osdep/FileSystem.h"
#include "source/Options.h"

namespace zq {
namespace orvane {

// The way tests give a bucket manager its option values (text values
// included, which an options file cannot set) instead of the options file.
// Affects managers constructed afterwards, until cleared.
void overrideManagerOptions(const Options::Values& values);
void clearManagerOptionsOverride();

// The way tests give a bucket manager a file layer of its own (a simulated
// disk) instead of the POSIX one. Not owned: it must outlive the managers
// constructed afterwards, until cleared.
void overrideManagerFileSystem(kel::osdep::FileSystem* fs);
void clearManagerFileSystemOverride();

// The file layer a manager constructed now uses: the override when one is set.
kel::osdep::FileSystem& managerFileSystem();

// The way the tool's read commands open for reading only, whatever the
// options file says. Affects managers constructed afterwards.
void openManagersForReading(bool readOnly);
bool managersOpenForReading();

// The options a manager uses: the override when one is set, else the file.
std::unique_ptr<Options> loadManagerOptions(const kel::WString& optionsFile,
                                            kel::StatusChain& status);

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_MANAGEROPTIONS_H
