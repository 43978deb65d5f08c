#include "Session.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "StoreFiles.h"
#include "Text.h"
#include "ini/IniReader.h"
#include "source/ManagerOptions.h"

namespace orvane_tool {

using zq::kel::AutoRef;
using zq::kel::StatusChain;
using zq::kel::WString;
using zq::orvane::IBucket;

void checkStatus(const StatusChain& status, const std::string& doing) {
    if (status.isFatal()) {
        std::string text = doing + " failed: " + describeStatus(status.getCode());
        // The library's message names what it refused; the code alone may not.
        if (const WString* message = status.getMessage()) {
            if (!message->empty()) text += " (" + toUtf8(*message) + ")";
        }
        throw ToolError(kExitStore, text);
    }
}

std::string absolutePath(const std::string& path) {
    if (path.empty() || path[0] == '/') return path;
    char cwd[4096];
    if (getcwd(cwd, sizeof cwd) == nullptr) {
        throw ToolError(kExitStore, "cannot find the current directory");
    }
    return std::string(cwd) + "/" + path;
}

std::string dataDirectory(const Globals& globals) {
    return globals.dataDir.empty() ? defaultDataDirectory() : absolutePath(globals.dataDir);
}

std::string optionsFileProblem(const std::string& path) {
    if (::access(path.c_str(), R_OK) != 0) {
        return "cannot read the options file " + path + ": " + std::strerror(errno);
    }
    struct Reader {
        zq::ini::IniReader* reader = zq::ini::iniCreate(0);
        ~Reader() { zq::ini::iniDiscard(reader); }
    } ini;
    const int parsed = ini.reader ? zq::ini::iniParseFile(ini.reader, path.c_str()) : -ENOMEM;
    if (parsed == zq::ini::kIniCannotOpen) return "cannot read the options file " + path;
    if (parsed < 0) {
        return "the options file " + path + " is not an ini file the library reads (" +
               std::to_string(parsed) + ")";
    }
    if (!zq::ini::iniHasSection(ini.reader, "Orvane")) {
        return "the options file " + path + " has no [Orvane] section";
    }
    return {};
}

Session::Session(const Globals& globals, Mode mode) : directory_(dataDirectory(globals)) {
    struct stat info;
    if (mode != kMayCreate) {
        const std::string registry = directory_ + "/registry.bin";
        if (::stat(registry.c_str(), &info) != 0) {
            throw ToolError(kExitNotFound, "no registry in " + directory_);
        }
    }
    const bool existed = ::stat(directory_.c_str(), &info) == 0;
    StatusChain status;
    status.clear();
    zq::orvane::publicInterface::IOrvane2* registry =
        zq::orvane::publicInterface::GetInterface(2, status);
    checkStatus(status, "getting the registry object");
    zq::orvane::openManagersForReading(mode == kReadOnly);
    manager_ =
        registry->createBucketManager(WString(absolutePath(globals.dataDir).c_str()),
                                      WString(absolutePath(globals.optionsFile).c_str()), status);
    checkStatus(status, "opening the registry in " + directory_);
    if (!manager_) throw ToolError(kExitStore, "opening the registry in " + directory_ + " failed");
    if (!existed) std::fprintf(stderr, "orvane: created %s\n", directory_.c_str());
}

AutoRef<IBucket> Session::find(const WString& path) {
    StatusChain status;
    status.clear();
    AutoRef<IBucket> bucket = manager_->getBucket(path, status);
    checkStatus(status, "reading bucket " + toUtf8(path));
    return bucket;
}

AutoRef<IBucket> Session::get(const WString& path) {
    AutoRef<IBucket> bucket = find(path);
    if (!bucket) throw ToolError(kExitNotFound, "no bucket " + toUtf8(path));
    return bucket;
}

Transaction::Transaction(zq::orvane::IBucketManager& manager, std::string directory)
    : manager_(manager), directory_(std::move(directory)) {
    StatusChain status;
    status.clear();
    manager_.beginTransaction(id_, status);
    checkStatus(status, "beginning a transaction");
    open_ = true;
    manager_.beginUpdate(id_, status);
    checkStatus(status, "beginning an update");
}

Transaction::~Transaction() {
    if (open_) {
        StatusChain status;
        status.clear();
        manager_.endTransaction(id_, status);
    }
}

void Transaction::put(const AutoRef<IBucket>& bucket, const std::string& what) {
    StatusChain status;
    status.clear();
    manager_.putBucket(bucket, true, id_, status);
    checkStatus(status, what);
}

void Transaction::remove(const WString& path) {
    StatusChain status;
    status.clear();
    manager_.deleteBucket(path, id_, status);
    checkStatus(status, "removing bucket " + toUtf8(path));
}

void Transaction::commit() {
    StatusChain status;
    status.clear();
    manager_.commit(id_, status);
    checkStatus(status, directory_.empty() ? "committing" : "committing to " + directory_);
    manager_.endTransaction(id_, status);
    open_ = false;
    checkStatus(status, "ending the transaction");
}

}  // namespace orvane_tool
