#ifndef ORVANE_TOOLS_SESSION_H
#define ORVANE_TOOLS_SESSION_H

#include <string>

#include "Tool.h"
#include "zq/orvane/Orvane.h"

namespace orvane_tool {

// Throws ToolError (store error) naming the code and its meaning when
// `status` holds an error; `doing` says what failed ("committing").
void checkStatus(const zq::kel::StatusChain& status, const std::string& doing);

// The registry directory and options file the user asked for, made absolute
// (the library takes absolute paths only); empty stays empty.
std::string absolutePath(const std::string& path);
// The directory the library will use: --data-dir, else its default.
std::string dataDirectory(const Globals& globals);
// Why an --options file cannot serve (missing, unreadable, not an ini file
// with an [Orvane] section), or empty when it can: the library would use
// its defaults without a word.
std::string optionsFileProblem(const std::string& path);

// The process's bucket manager, opened on the registry the options name.
class Session {
  public:
    enum Mode { kReadOnly, kExisting, kMayCreate };
    // kReadOnly and kExisting refuse (not found) a directory that holds no
    // registry yet instead of creating one; kReadOnly opens it for reading
    // only: it changes no file and waits for no other process's transaction.
    // kMayCreate says on standard error when it made the directory.
    Session(const Globals& globals, Mode mode);
    zq::orvane::IBucketManager& manager() { return *manager_; }
    const std::string& directory() const { return directory_; }

    // A private copy of the bucket, or empty when it does not exist.
    zq::kel::AutoRef<zq::orvane::IBucket> find(const zq::kel::WString& path);
    // The same, but a missing bucket is a ToolError (not found).
    zq::kel::AutoRef<zq::orvane::IBucket> get(const zq::kel::WString& path);

  private:
    zq::kel::AutoRef<zq::orvane::IBucketManager> manager_;
    std::string directory_;
};

// One transaction in update mode; ended without commit unless commit() ran,
// so a command that fails half way writes nothing.
class Transaction {
  public:
    // `directory` names the registry in messages.
    explicit Transaction(zq::orvane::IBucketManager& manager, std::string directory = {});
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    const zq::kel::Guid& id() const { return id_; }
    void put(const zq::kel::AutoRef<zq::orvane::IBucket>& bucket, const std::string& what);
    void remove(const zq::kel::WString& path);
    void commit();

  private:
    zq::orvane::IBucketManager& manager_;
    std::string directory_;
    zq::kel::Guid id_;
    bool open_ = false;
};

}  // namespace orvane_tool

#endif  // ORVANE_TOOLS_SESSION_H
