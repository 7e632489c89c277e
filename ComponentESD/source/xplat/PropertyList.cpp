#include "xplat/PropertyList.h"

#include <cstdint>
#include <fstream>
#include <iterator>
#include <utility>
#include <vector>

namespace esd {

namespace {

constexpr std::streamoff kMaxPropertyListBytes = 16 * 1024 * 1024;

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
  std::ifstream in(path, std::ios::binary);
  if (!in) return PropertyList();
  in.seekg(0, std::ios::end);
  const std::streamoff size = in.tellg();
  if (size <= 0 || size > kMaxPropertyListBytes) return PropertyList();
  in.seekg(0, std::ios::beg);
  std::vector<char> bytes(static_cast<size_t>(size));
  if (!in.read(bytes.data(), size)) return PropertyList();
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
