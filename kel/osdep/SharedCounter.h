#ifndef ZQ_KEL_OSDEP_SHAREDCOUNTER_H
#define ZQ_KEL_OSDEP_SHAREDCOUNTER_H

#include <cstdint>

#include "zq/kel/StringBase.h"

namespace zq {
namespace kel {
namespace osdep {

// A 32-bit change counter in the shared file "<shared directory>/counter/
// <name>", mapped into every process that opens it. It is odd while a change
// is under way and even when none is; a writer that dies half way leaves it
// odd, so readers know not to trust it until the next change completes.
//
// load() may be called from any thread of any process. beginChange() and
// endChange() come in pairs, never nested, from whoever holds the lock that
// guards the counted files: only one writer at a time moves the counter.
class SharedCounter {
  public:
    // `name` is a plain file name. Throws PosixError when the file cannot be
    // made or mapped.
    explicit SharedCounter(const WString& name);
    ~SharedCounter();
    SharedCounter(const SharedCounter&) = delete;
    SharedCounter& operator=(const SharedCounter&) = delete;

    uint32_t load() const;  // acquire: a value seen orders what follows
    // Makes the counter odd before the first file changes; true when it was
    // even, false when a writer died in the middle of a change.
    bool beginChange();
    // After the change is durable: even again. Returns the new value.
    uint32_t endChange();

    static bool isSettled(uint32_t value) { return (value & 1u) == 0; }

    // Small records beside the count, one per file, kept until the machine
    // restarts: here, how much of a data file had its checksums verified,
    // so that the next process to open it need not read it all again.
    // putNote() comes from whoever may move the count; findNote() from any
    // thread of any process, which never sees a note half written.
    struct FileNote {
        uint64_t device = 0;
        uint64_t inode = 0;
        int64_t changed = 0;  // the file's change time when noted
        int64_t length = 0;
        unsigned char digest[32] = {};
    };
    void putNote(const FileNote& note);
    bool findNote(uint64_t device, uint64_t inode, FileNote& note) const;

    // One change, from construction to destruction; it ends even when the
    // change fails, since the files then stay as the failure left them.
    class Change {
      public:
        explicit Change(SharedCounter& counter) : counter_(counter) { counter_.beginChange(); }
        ~Change() {
            if (!ended_) counter_.endChange();
        }
        Change(const Change&) = delete;
        Change& operator=(const Change&) = delete;

        // Ends the change now; the count it leaves.
        uint32_t end() {
            ended_ = true;
            return counter_.endChange();
        }

      private:
        SharedCounter& counter_;
        bool ended_ = false;
    };

  private:
    struct Slot;

    Slot* slotFor(uint64_t device, uint64_t inode) const;

    uint32_t* word_;  // in the shared mapping, at its start
};

}  // namespace osdep
}  // namespace kel
}  // namespace zq

#endif  // ZQ_KEL_OSDEP_SHAREDCOUNTER_H
