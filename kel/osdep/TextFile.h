#ifndef ZQ_KEL_OSDEP_TEXTFILE_H
#define ZQ_KEL_OSDEP_TEXTFILE_H

#include <memory>
#include <string>

#include "kel/osdep/FileSystem.h"

namespace zq {
namespace kel {
namespace osdep {

// A text file in the manner of a C stream: writes are gathered until flush,
// and failures are returned as -1 with errno set. Nothing reaches the disk
// durably before sync(); text left unflushed when the object is destroyed is
// written but its errors are lost, so call close() and check it.
//
// One TextFile may be used by one thread at a time.
class TextFile {
  public:
    // The modes of fopen, by index: "r", "r+", "w", "w+", "a", "a+".
    enum Mode : int { kRead, kReadUpdate, kWrite, kWriteUpdate, kAppend, kAppendUpdate };

    explicit TextFile(FileSystem& fileSystem);
    ~TextFile();
    TextFile(const TextFile&) = delete;
    TextFile& operator=(const TextFile&) = delete;

    // False when the file cannot be opened and failure is allowed; otherwise
    // the failure throws PosixError. A bad mode throws InvalidArgument.
    bool open(const WString& path, int mode, bool failureAllowed);
    bool isOpen() const { return file_ != nullptr; }

    // The bytes written, or -1.
    int write(const NString& text);
    int write(const char* text, size_t count);
    int flush();  // 0 or -1
    int sync();   // flush, then make the file durable; 0 or -1
    // The next line without its "\n" (and without a "\r" before it); false at
    // the end of the file. Read failures throw PosixError.
    bool readLine(NString& line);
    int close();  // flushes first; 0 or -1

  private:
    int fail(int error);

    FileSystem& fileSystem_;
    std::unique_ptr<File> file_;
    std::string pending_;
    int64_t position_;
    bool append_;
};

}  // namespace osdep
}  // namespace kel
}  // namespace zq

#endif  // ZQ_KEL_OSDEP_TEXTFILE_H
