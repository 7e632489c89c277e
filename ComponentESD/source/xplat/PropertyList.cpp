#include "xplat/PropertyList.h"

#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

#include "xplat/Env.h"

namespace esd {

namespace {

constexpr size_t kMaxPropertyListBytes = 16 * 1024 * 1024;

// The parser recurses once per level of nested arrays and dictionaries, without a limit of its
// own, so a file nested deeply enough would overflow the stack of whatever host reads it. Real
// property lists nest a few levels; anything deeper than this is refused before parsing.
constexpr size_t kMaxNesting = 64;

bool StartsWith(const std::string& bytes, const char* prefix) {
  const size_t length = std::strlen(prefix);
  return bytes.size() >= length && std::memcmp(bytes.data(), prefix, length) == 0;
}

// The deepest element nesting of XML text, found by counting tags. Text that fools the count
// (markup characters inside comments) can only make it larger, so it errs on refusing.
bool XMLNestingWithin(const std::string& bytes, size_t limit) {
  size_t depth = 0;
  for (size_t i = 0; i + 1 < bytes.size(); ++i) {
    if (bytes[i] != '<') continue;
    const char next = bytes[i + 1];
    if (next == '/') {
      if (depth > 0) --depth;
    } else if (next != '?' && next != '!') {
      const void* close = std::memchr(bytes.data() + i, '>', bytes.size() - i);
      if (close == nullptr) return true;  // not well-formed: the parser refuses it
      const char* end = static_cast<const char*>(close);
      if (end[-1] != '/' && ++depth > limit) return false;
    }
  }
  return true;
}

uint64_t BigEndian(const unsigned char* p, size_t size) {
  uint64_t value = 0;
  for (size_t i = 0; i < size; ++i) value = (value << 8) | p[i];
  return value;
}

// The deepest nesting of containers in the binary form, following object references from the top
// object with a stack of its own. References may repeat or loop, so the walk also stops after a
// bounded number of steps; both limits refuse the file. Structure the walk cannot follow is left
// for the parser to refuse.
bool BinaryNestingWithin(const std::string& bytes, size_t limit) {
  const unsigned char* data = reinterpret_cast<const unsigned char*>(bytes.data());
  const size_t size = bytes.size();
  if (size < 8 + 32) return true;
  const unsigned char* trailer = data + size - 32;
  const size_t offsetSize = trailer[6];
  const size_t refSize = trailer[7];
  const uint64_t objects = BigEndian(trailer + 8, 8);
  const uint64_t top = BigEndian(trailer + 16, 8);
  const uint64_t table = BigEndian(trailer + 24, 8);
  if (offsetSize < 1 || offsetSize > 8 || refSize < 1 || refSize > 8 || top >= objects ||
      table > size || objects > (size - table) / offsetSize)
    return true;
  auto offsetOf = [&](uint64_t object) {
    return BigEndian(data + table + object * offsetSize, offsetSize);
  };
  // The containers (arrays, sets, dictionaries) and their references.
  auto children = [&](uint64_t object, const unsigned char*& refs, uint64_t& count) {
    const uint64_t at = offsetOf(object);
    if (at >= size) return false;
    const unsigned kind = data[at] >> 4;
    if (kind != 0xA && kind != 0xC && kind != 0xD) return false;
    count = data[at] & 0x0F;
    uint64_t next = at + 1;
    if (count == 0x0F) {  // the count follows as an integer object
      if (next >= size || (data[next] >> 4) != 0x1) return false;
      const size_t width = size_t{1} << (data[next] & 0x0F);
      if (width > 8 || next + 1 + width > size) return false;
      count = BigEndian(data + next + 1, width);
      next += 1 + width;
    }
    if (kind == 0xD) count *= 2;
    if (count > (size - next) / refSize) return false;
    refs = data + next;
    return true;
  };

  struct Level {
    const unsigned char* refs;
    uint64_t left;
  };
  std::vector<Level> path;
  uint64_t steps = 0;
  const uint64_t maxSteps = 4 * objects + 1024;
  const unsigned char* refs = nullptr;
  uint64_t count = 0;
  if (children(top, refs, count)) path.push_back({refs, count});
  while (!path.empty()) {
    if (path.size() > limit || ++steps > maxSteps) return false;
    Level& level = path.back();
    if (level.left == 0) {
      path.pop_back();
      continue;
    }
    const uint64_t child = BigEndian(level.refs, refSize);
    level.refs += refSize;
    --level.left;
    if (child < objects && children(child, refs, count)) path.push_back({refs, count});
  }
  return true;
}

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
  // Regular files only, never blocking: a named pipe planted where a property list is expected
  // must not hang the reader.
  std::string bytes;
  if (Env::Default()->ReadFile(path, kMaxPropertyListBytes, bytes) != 0 || bytes.empty())
    return PropertyList();
  const bool nestingWithin = StartsWith(bytes, "bplist00") ? BinaryNestingWithin(bytes, kMaxNesting)
                                                            : XMLNestingWithin(bytes, kMaxNesting);
  if (!nestingWithin) return PropertyList();
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
