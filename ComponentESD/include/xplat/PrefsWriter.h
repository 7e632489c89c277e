#ifndef ESD_XPLAT_PREFSWRITER_H
#define ESD_XPLAT_PREFSWRITER_H

#include <cstdint>
#include <string>

#include "xplat/ExpatDOMBuilder.h"
#include "xplat/XMLDocumentNode.h"

namespace esd {

class LockPolicyInterface;

// A small XML preferences file kept in memory and on disk. The file holds one top element named
// by the root name; each scalar preference is a child element named by its key whose text is the
// value ("1"/"0" for bools, decimal for numbers), and each map preference a child element holding
// one "MapPrefEntry" element per entry with the attribute "MapPrefKey".
//
// With a lock installed, every operation runs under it (taken for the operation unless the caller
// already holds it) and first reloads the file when its modification time has moved, so several
// processes share one file; a file that disappeared empties the document. Every set rewrites the
// whole file, atomically: readers and a crash see either the old file or the new one, never a
// partial one. Not thread-safe: one thread at a time per writer.
class PrefsWriter {
 public:
  // Loads `path` at once when it is not empty (and so may throw as SetPrefsPath does); with an
  // empty path nothing is read until SetPrefsPath.
  PrefsWriter(const std::string& path, std::string rootName);
  // Frees the document; nothing is saved and the lock is not touched (its owner releases it).
  virtual ~PrefsWriter();

  PrefsWriter(const PrefsWriter&) = delete;
  PrefsWriter& operator=(const PrefsWriter&) = delete;

  // Switches to `path` and loads it. A missing or empty file gives an empty settings element.
  // Throws std::runtime_error "Prefs file unable to lock file for reading!" for an empty path and
  // std::invalid_argument "Unable to parse settings file" when the file does not parse (the
  // document is then empty, with no settings element). When the installed lock cannot be had,
  // only the path is taken, without an exception: the file is loaded by the first operation that
  // gets the lock.
  void SetPrefsPath(const std::string& path);
  const std::string& GetPrefsPath() const { return m_PrefsPath; }
  const std::string& GetRootName() const { return m_RootName; }

  // Installs the lock that guards every operation (null: none). The writer does not own it. A
  // lock already installed that is held right now is kept, so a caller's critical section is
  // never cut short by a switch.
  void SetLockPolicy(LockPolicyInterface* lock);
  LockPolicyInterface* GetLockPolicy() const { return m_pLock; }

  // Takes the lock (unless already held) and reloads the file if it changed, so that several
  // operations can run as one under a single lock. True with the lock held; false when it could
  // not be had. Without a lock installed it only refreshes. Pair with UnlockPrefs.
  bool LockPrefs();
  // Releases a lock held through LockPrefs. False when no lock is installed, it is not held, or
  // it could not be removed.
  bool UnlockPrefs();

  // Reloads the file when its modification time is newer than the one of the last load or save;
  // empties the document when the file has gone. A file that no longer parses is treated like a
  // missing one (everything reads as its default, the next set replaces it) instead of throwing
  // out of an ordinary get. Always true.
  bool RefreshIfModified();

  // Replaces the document by one holding an empty settings element; the file is not touched.
  void EmptyDOM();

  // Writes the whole document to the file through a synced temporary file renamed over it. False
  // when the lock cannot be had, the file exists but may not be written, or any write fails; the
  // file is then unchanged and the document keeps its changes in memory only.
  bool Save();

  // Deletes the file and continues with an empty document. False when the lock cannot be had or
  // the file cannot be deleted (a read-only file is never deleted).
  bool DeleteAllPrefs();

  // Reads the value under `key` into `out`. A missing key or empty text gives `defaultValue` and
  // true, so a string set to "" reads as its default. Otherwise true when the text converts
  // ("1"/"0" for bool, the whole text a decimal number for int and unsigned long); on a failed
  // conversion `out` holds whatever the conversion left. False, `out` untouched, when the lock
  // cannot be had. T is bool, int, unsigned long or std::string.
  template <class T>
  bool GetPref(const std::string& key, T& out, const T& defaultValue);

  // Stores `value` under `key` and saves the file; the result is Save's. False without any change
  // when the lock cannot be had or the key or value cannot be stored in the file (see
  // IsStorableKey and IsStorableText). T as for GetPref.
  template <class T>
  bool SetPref(const std::string& key, const T& value);

  // Gives the element of `key`, or null; true only when it exists. The element stays owned by the
  // document and is valid until the next operation that may reload.
  bool GetPref(const std::string& key, XMLDocumentNode*& node);

  // Replaces the element of `key` by `node` (named by the key) and saves. The writer takes
  // ownership of `node` in every case: it is freed when it cannot be put in place.
  bool SetPref(const std::string& key, XMLDocumentNode* node);

  // The first direct child of the settings element named exactly `key`; when there is none and
  // `create` is set, a new empty one appended to it. Null when there is no settings element.
  XMLDocumentNode* GetPrefsNode(const std::string& key, bool create);

  // Whether `key` can name an element of the file: ASCII letters, digits, "_", "-", "." and ":",
  // not starting with a digit, "-" or ".", and not starting with "xml" in any case. Keys are
  // checked before anything is stored, because one unwritable element would make the whole file
  // unreadable to every process.
  static bool IsStorableKey(const std::string& key);
  // Whether `text` survives a save and reload unchanged as element text: well-formed UTF-8
  // without control characters other than tab and line feed (a carriage return would be read
  // back as a line feed; the others make the file unreadable) and without U+FFFE and U+FFFF.
  // A path in another encoding is refused rather than written.
  static bool IsStorableText(const std::string& text);
  // Whether `value` can be written as an attribute value, which the file writes unescaped: text
  // that is storable and holds no double quote, "<" or "&", and no tab or line feed (a parser
  // would turn those into blanks, changing the map key).
  static bool IsStorableAttributeValue(const std::string& value);

 private:
  ExpatDOMBuilder<XMLDocumentNode> m_DOMBuilder;
  XMLDocumentNode* m_pSettingsNode;
  std::string m_PrefsPath;
  std::string m_RootName;
  LockPolicyInterface* m_pLock;
  // Modification time of the file at the last load or save (nanoseconds since 1970); 0: unknown.
  uint64_t m_LastModTime;
};

}  // namespace esd

#endif
