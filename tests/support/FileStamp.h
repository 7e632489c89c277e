#ifndef TESTS_SUPPORT_FILESTAMP_H
#define TESTS_SUPPORT_FILESTAMP_H

#include <sys/types.h>

#include <string>

namespace testing_support {

// What changes when a file is rewritten, even with the same bytes: a journaled save replaces
// the inode, and any write moves the modification time.
struct FileStamp {
  ino_t inode = 0;
  long long mtimeNs = 0;
  bool operator==(const FileStamp& other) const {
    return inode == other.inode && mtimeNs == other.mtimeNs;
  }
};

// A zero stamp when the file cannot be read.
FileStamp StampOf(const std::string& path);

}  // namespace testing_support

#endif
