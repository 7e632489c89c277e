#ifndef ESD_XPLAT_MAPPREF_H
#define ESD_XPLAT_MAPPREF_H

#include <map>
#include <memory>
#include <string>
#include <type_traits>

#include "xplat/ChangeDiffType.h"
#include "xplat/ESDAssert.h"
#include "xplat/PrefsLockScope.h"
#include "xplat/PrefsWriter.h"
#include "xplat/XMLDocumentNode.h"

namespace esd {

// A typed handle on one map preference: the key's element holds one "MapPrefEntry" child per
// entry, in ascending key order, with the entry's key in the attribute "MapPrefKey" and its value
// as text ("1"/"0" for bool). K is std::string; V is std::string or bool. The owner points the
// handle at its writer after construction; using a handle without one is a programming error.
template <class K, class V>
class MapPref {
  static_assert(std::is_same<K, std::string>::value, "map preference keys are text");

 public:
  explicit MapPref(const std::string& key) : m_pPrefsFile(nullptr), mKey(key) {}
  virtual ~MapPref() = default;

  // Reads the whole map into `out` (cleared first). A missing key is an empty map and true. An
  // entry without "MapPrefKey", or (for bool) with a value other than "1"/"0", makes the whole
  // read fail: `out` empty, false. A later duplicate key overwrites an earlier one. False with
  // `out` untouched when the lock cannot be had.
  virtual bool Get(std::map<K, V>& out) {
    ESD_ASSERT(m_pPrefsFile);
    PrefsLockScope lock(*m_pPrefsFile);
    if (!lock.IsHeld()) return false;
    out.clear();
    XMLDocumentNode* node = nullptr;
    if (!m_pPrefsFile->GetPref(mKey, node) || node == nullptr) return true;
    for (const XMLDocumentNode* entry : node->GetChildNodes()) {
      std::string entryKey;
      V value{};
      if (!entry->GetAttrValue("MapPrefKey", entryKey) || !FromText(entry->GetData(), value)) {
        out.clear();
        return false;
      }
      out[entryKey] = value;
    }
    return true;
  }

  // Replaces the whole map and saves; the result is the save's. False without any change when
  // the lock cannot be had or an entry cannot be stored in the file (see
  // PrefsWriter::IsStorableAttributeValue and IsStorableText).
  virtual bool Set(const std::map<K, V>& in) {
    ESD_ASSERT(m_pPrefsFile);
    PrefsLockScope lock(*m_pPrefsFile);
    if (!lock.IsHeld() || !PrefsWriter::IsStorableKey(mKey)) return false;
    std::unique_ptr<XMLDocumentNode> element(new XMLDocumentNode(mKey));
    for (const auto& item : in) {
      std::string text;
      if (!PrefsWriter::IsStorableAttributeValue(item.first) || !ToText(item.second, text) ||
          !PrefsWriter::IsStorableText(text)) {
        return false;
      }
      std::unique_ptr<XMLDocumentNode> entry(new XMLDocumentNode("MapPrefEntry"));
      entry->SetAttributeData("MapPrefKey", item.first);
      entry->SetElementData(text);
      element->AddChildNode(entry.release());
    }
    return m_pPrefsFile->SetPref(mKey, element.release());
  }

  void SetPrefsFile(PrefsWriter* writer) { m_pPrefsFile = writer; }
  const std::string& GetKey() const { return mKey; }

 private:
  // Text values are kept whole; ChangeType would stop at the first blank.
  static bool ToText(const std::string& value, std::string& text) {
    text = value;
    return true;
  }
  template <class T>
  static bool ToText(const T& value, std::string& text) {
    return ChangeDiffTypeImpl<T, std::string>::ChangeType(value, text);
  }
  static bool FromText(const std::string& text, std::string& value) {
    value = text;
    return true;
  }
  template <class T>
  static bool FromText(const std::string& text, T& value) {
    return ChangeDiffTypeImpl<std::string, T>::ChangeType(text, value);
  }

  PrefsWriter* m_pPrefsFile;
  std::string mKey;
};

}  // namespace esd

#endif
