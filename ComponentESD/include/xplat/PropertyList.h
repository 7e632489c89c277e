#ifndef ESD_XPLAT_PROPERTYLIST_H
#define ESD_XPLAT_PROPERTYLIST_H

#include <plist/plist.h>

#include <string>

namespace esd {

// Owns one parsed property list (libplist tree). Empty means "no property list": a file that
// was missing, unreadable or did not parse. Move-only; frees the tree when it dies.
class PropertyList {
 public:
  PropertyList() = default;
  // Takes ownership of `root` (may be null).
  explicit PropertyList(plist_t root) : mRoot(root) {}
  ~PropertyList();
  PropertyList(PropertyList&& other) noexcept;
  PropertyList& operator=(PropertyList&& other) noexcept;
  PropertyList(const PropertyList&) = delete;
  PropertyList& operator=(const PropertyList&) = delete;

  // Parses a whole file in XML or binary form. An empty result when the file cannot be read,
  // is not a regular file, is larger than any property list this system writes (16 MiB), nests
  // arrays and dictionaries more than 64 deep, or does not parse.
  static PropertyList ReadFile(const std::string& path);

  explicit operator bool() const { return mRoot != nullptr; }
  plist_t Get() const { return mRoot; }

  bool IsDictionary() const;

  // The root dictionary's entry `key` when it holds the wanted type; false when the root is
  // not a dictionary, the key is absent or its value has another type.
  bool GetString(const std::string& key, std::string& value) const;
  bool GetBoolean(const std::string& key, bool& value) const;

 private:
  plist_t mRoot = nullptr;
};

}  // namespace esd

#endif
