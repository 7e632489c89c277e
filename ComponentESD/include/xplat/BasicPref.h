#ifndef ESD_XPLAT_BASICPREF_H
#define ESD_XPLAT_BASICPREF_H

#include <string>

#include "xplat/ESDAssert.h"
#include "xplat/PrefsWriter.h"

namespace esd {

// A typed handle on one scalar preference: its key and default, read and written through the
// owner's PrefsWriter. T is bool, int, unsigned long or std::string. The owner points the handle
// at its writer after construction; using a handle without one is a programming error.
template <class T>
class BasicPref {
 public:
  BasicPref(const std::string& key, const T& defaultValue)
      : m_pPrefsFile(nullptr), mKey(key), mDefault(defaultValue) {}
  virtual ~BasicPref() = default;

  // The stored value, or the default when the key is missing or empty; see PrefsWriter::GetPref.
  virtual bool Get(T& out) {
    ESD_ASSERT(m_pPrefsFile);
    return m_pPrefsFile->GetPref<T>(mKey, out, mDefault);
  }

  // Stores and saves. Setting the default writes it like any other value: there is no delete.
  virtual bool Set(T value) {
    ESD_ASSERT(m_pPrefsFile);
    return m_pPrefsFile->SetPref<T>(mKey, value);
  }

  // Whether `value` equals the default; touches no file.
  virtual bool IsDefaultValue(T value) { return value == mDefault; }

  void SetPrefsFile(PrefsWriter* writer) { m_pPrefsFile = writer; }
  const std::string& GetKey() const { return mKey; }
  const T& GetDefaultValue() const { return mDefault; }

 private:
  PrefsWriter* m_pPrefsFile;
  std::string mKey;
  T mDefault;
};

}  // namespace esd

#endif
