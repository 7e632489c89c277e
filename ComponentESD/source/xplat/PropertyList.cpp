#include "xplat/PropertyList.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <utility>
#include <vector>

namespace esd {

namespace {

constexpr off_t kMaxPropertyListBytes = 16 * 1024 * 1024;

}  // namespace

PropertyList::~PropertyList() {
  if (mRoot) plist_free(mRoot);
}

PropertyList::PropertyList(PropertyList&& other) noexcept
    : mRoot(std::exchange(other.mRoot, nullptr)) {}

PropertyList& PropertyList::operator=(PropertyList&& other) noexcept {
  if (this != &other) {
    if (mRoot) plist_free(mRoot);
    mRoot = std::exchange(other.mRoot, nullptr);
  }
  return *this;
}

PropertyList PropertyList::ReadFile(const std::string& path) {
  // Non-blocking, and regular files only: a named pipe planted where a property list is
  // expected must not hang the reader.
  const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return PropertyList();
  struct stat info;
  std::vector<char> bytes;
  bool complete = false;
  if (fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_size > 0 &&
      info.st_size <= kMaxPropertyListBytes) {
    bytes.resize(static_cast<size_t>(info.st_size));
    size_t have = 0;
    while (have < bytes.size()) {
      const ssize_t got = read(fd, bytes.data() + have, bytes.size() - have);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) break;
      have += static_cast<size_t>(got);
    }
    complete = have == bytes.size();
  }
  close(fd);
  if (!complete) return PropertyList();
  plist_t root = nullptr;
  // Recognises the binary form by its magic and reads anything else as XML.
  plist_from_memory(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
  return PropertyList(root);
}

bool PropertyList::IsDictionary() const {
  return mRoot && plist_get_node_type(mRoot) == PLIST_DICT;
}

bool PropertyList::GetString(const std::string& key, std::string& value) const {
  if (!IsDictionary()) return false;
  plist_t item = plist_dict_get_item(mRoot, key.c_str());
  if (!item || plist_get_node_type(item) != PLIST_STRING) return false;
  uint64_t length = 0;
  const char* text = plist_get_string_ptr(item, &length);
  if (!text) return false;
  value.assign(text, static_cast<size_t>(length));
  return true;
}

bool PropertyList::GetBoolean(const std::string& key, bool& value) const {
  if (!IsDictionary()) return false;
  plist_t item = plist_dict_get_item(mRoot, key.c_str());
  if (!item || plist_get_node_type(item) != PLIST_BOOLEAN) return false;
  uint8_t flag = 0;
  plist_get_bool_val(item, &flag);
  value = flag != 0;
  return true;
}

}  // namespace esd
