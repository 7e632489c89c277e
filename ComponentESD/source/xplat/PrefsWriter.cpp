#include "xplat/PrefsWriter.h"

#include <unistd.h>

#include <cerrno>
#include <memory>
#include <random>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "xplat/ChangeDiffType.h"
#include "xplat/ESDAssert.h"
#include "xplat/Env.h"
#include "xplat/FileSystemUtils.h"
#include "xplat/LockPolicyInterface.h"
#include "xplat/PrefsLockScope.h"
#include "xplat/TextValidation.h"

namespace esd {

namespace {

// Text values are stored whole; ChangeType would keep only their first word.
bool ValueToText(const std::string& value, std::string& text) {
  text = value;
  return true;
}
template <class T>
bool ValueToText(const T& value, std::string& text) {
  return ChangeDiffTypeImpl<T, std::string>::ChangeType(value, text);
}

bool TextToValue(const std::string& text, std::string& value) {
  value = text;
  return true;
}
template <class T>
bool TextToValue(const std::string& text, T& value) {
  return ChangeDiffTypeImpl<std::string, T>::ChangeType(text, value);
}

bool IsAsciiLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool IsAsciiDigit(char c) { return c >= '0' && c <= '9'; }

// A name for the next version of `path`, beside it so that the final rename stays on one file
// system. Drawn afresh each time (no generator state a forked child would share with its
// parent), because two writers without a lock must not pick the same name.
constexpr uint16_t kNewPrefsFileMode = 0600;
constexpr uint16_t kMaxPrefsFileMode = 0644;

std::string TemporaryPathFor(const std::string& path) {
  std::random_device random;
  const std::uint64_t value = (static_cast<std::uint64_t>(random()) << 32) ^ random();
  std::ostringstream name;
  name << path << ".new" << std::hex << value;
  return name.str();
}

// Removes the temporaries of earlier saves that never reached their rename: a writer killed
// between the two leaves its temporary behind, and without this every such crash would add a
// file to the folder for good. Only for a caller holding the lock, which no other save runs
// under, so every temporary found is stale.
void RemoveStaleTemporaries(const std::string& path) {
  const std::string prefix = FileSystemUtils::GetPathLastComponent(path) + ".new";
  const std::string parent = FileSystemUtils::GetParentPath(path);
  const std::string folder = parent.empty() ? "." : parent;
  std::vector<std::string> names;
  if (!FileSystemUtils::ListDirectory(folder, names)) return;
  for (const std::string& name : names) {
    if (name.size() <= prefix.size() || name.compare(0, prefix.size(), prefix) != 0) continue;
    if (name.find_first_not_of("0123456789abcdef", prefix.size()) != std::string::npos) continue;
    Env::Default()->RemoveFile(FileSystemUtils::AppendPathElement(folder, name));
  }
}

// Gives the file at `temporary` a modification time after `floorNs`. Several saves can fall
// within one tick of the file system clock, and a reader decides whether to reload by comparing
// times: without this, another process could keep a stale copy of a file that changed.
void MakeNewerThan(const std::string& temporary, uint64_t floorNs) {
  uint64_t current = 0;
  if (!FileSystemUtils::GetFileLastModifiedTime(temporary, current) || current > floorNs) return;
  FileSystemUtils::SetFileLastModifiedTime(temporary, floorNs + 1);
}

}  // namespace

PrefsWriter::PrefsWriter(const std::string& path, std::string rootName)
    : m_pSettingsNode(nullptr),
      m_PrefsPath(path),
      m_RootName(std::move(rootName)),
      m_pLock(nullptr),
      m_LastModTime(0) {
  if (!path.empty()) SetPrefsPath(path);
}

PrefsWriter::~PrefsWriter() = default;

void PrefsWriter::SetLockPolicy(LockPolicyInterface* lock) {
  if (m_pLock && m_pLock->HasLock()) return;
  m_pLock = lock;
}

bool PrefsWriter::LockPrefs() {
  if (!m_pLock) return RefreshIfModified();
  bool took = false;
  if (!m_pLock->HasLock()) {
    if (!m_pLock->Lock()) return false;
    took = true;
  }
  try {
    if (RefreshIfModified()) return true;
  } catch (...) {
    if (took) m_pLock->Unlock(false);
    throw;
  }
  m_pLock->Unlock(false);
  return false;
}

bool PrefsWriter::UnlockPrefs() {
  if (!m_pLock || !m_pLock->HasLock()) return false;
  return m_pLock->Unlock(false);
}

bool PrefsWriter::RefreshIfModified() {
  if (m_PrefsPath.empty()) return true;
  uint64_t fileTime = 0;
  if (FileSystemUtils::GetFileLastModifiedTime(m_PrefsPath, fileTime)) {
    // A writer whose first load was skipped (its lock was busy) loads now.
    if (fileTime > m_LastModTime || m_pSettingsNode == nullptr) {
      try {
        SetPrefsPath(m_PrefsPath);
      } catch (const std::invalid_argument&) {
        // Remember the broken file's time so it is not parsed again until it changes.
        EmptyDOM();
        m_LastModTime = fileTime;
      }
    }
  } else if (m_LastModTime != 0 || m_pSettingsNode == nullptr) {
    EmptyDOM();
    m_LastModTime = 0;
  }
  return true;
}

void PrefsWriter::SetPrefsPath(const std::string& path) {
  PrefsLockScope lock(*this);
  if (!lock.IsHeld()) {
    // Remember the file, with nothing loaded yet: the first operation that gets the lock loads
    // it. Otherwise a writer set up while another process held the lock would never find its
    // file, or would write the old file's settings into the new one.
    if (path != m_PrefsPath) {
      m_PrefsPath = path;
      m_DOMBuilder.Clear();
      m_pSettingsNode = nullptr;
      m_LastModTime = 0;
    }
    return;
  }

  m_PrefsPath = path;
  m_DOMBuilder.Clear();
  m_pSettingsNode = nullptr;
  m_DOMBuilder.Create(nullptr, nullptr);
  if (m_PrefsPath.empty()) throw std::runtime_error("Prefs file unable to lock file for reading!");

  // Taken before reading: a change landing in between then costs one more reload, instead of
  // being taken for the version already loaded.
  uint64_t fileTime = 0;
  const bool fileExists = FileSystemUtils::GetFileLastModifiedTime(m_PrefsPath, fileTime);
  if (!m_DOMBuilder.ParseFile(m_PrefsPath, true)) {
    // Drop the half-built tree; the caller decides what to do with the file.
    m_DOMBuilder.Create(nullptr, nullptr);
    throw std::invalid_argument("Unable to parse settings file");
  }
  XMLDocumentNode* document = m_DOMBuilder.GetDocumentNode();
  ESD_ASSERT(document);

  for (XMLDocumentNode* child : document->GetChildNodes()) {
    if (child->GetElementName() == m_RootName) {
      m_pSettingsNode = child;
      break;
    }
  }
  if (!m_pSettingsNode) {
    // A file has one top element. Another program's element is dropped rather than written
    // beside ours, which would leave a file that no parser accepts.
    while (!document->GetChildNodes().empty())
      document->DeleteChildNode(document->GetChildNodes().front());
    std::unique_ptr<XMLDocumentNode> settings(new XMLDocumentNode(m_RootName));
    document->AddChildNode(settings.get());
    m_pSettingsNode = settings.release();
  }
  m_LastModTime = fileExists ? fileTime : 0;
  ESD_ASSERT(m_pSettingsNode);
}

void PrefsWriter::EmptyDOM() {
  PrefsLockScope lock(*this);
  if (!lock.IsHeld()) return;
  m_DOMBuilder.Clear();
  m_pSettingsNode = nullptr;
  if (!m_DOMBuilder.Create(nullptr, nullptr)) return;
  try {
    std::unique_ptr<XMLDocumentNode> settings(new XMLDocumentNode(m_RootName));
    m_DOMBuilder.GetDocumentNode()->AddChildNode(settings.get());
    m_pSettingsNode = settings.release();
  } catch (const std::exception&) {
    // Out of memory: the writer stays without settings, reads give defaults and sets fail.
  }
}

XMLDocumentNode* PrefsWriter::GetPrefsNode(const std::string& key, bool create) {
  if (!m_pSettingsNode) return nullptr;
  for (XMLDocumentNode* child : m_pSettingsNode->GetChildNodes()) {
    if (child->GetElementName() == key) return child;
  }
  if (!create) return nullptr;
  std::unique_ptr<XMLDocumentNode> node(new XMLDocumentNode(key));
  m_pSettingsNode->AddChildNode(node.get());
  return node.release();
}

template <class T>
bool PrefsWriter::GetPref(const std::string& key, T& out, const T& defaultValue) {
  PrefsLockScope lock(*this);
  if (!lock.IsHeld()) return false;
  const XMLDocumentNode* node = GetPrefsNode(key, false);
  const std::string text = node ? node->GetData() : std::string();
  if (text.empty()) {
    out = defaultValue;
    return true;
  }
  return TextToValue(text, out);
}

template <class T>
bool PrefsWriter::SetPref(const std::string& key, const T& value) {
  PrefsLockScope lock(*this);
  if (!lock.IsHeld()) return false;
  std::string text;
  if (!IsStorableKey(key) || !ValueToText(value, text) || !IsStorableText(text)) return false;
  XMLDocumentNode* node = GetPrefsNode(key, true);
  if (!node) return false;
  node->SetElementData(text);
  return Save();
}

template bool PrefsWriter::GetPref<bool>(const std::string&, bool&, const bool&);
template bool PrefsWriter::GetPref<int>(const std::string&, int&, const int&);
template bool PrefsWriter::GetPref<unsigned long>(const std::string&, unsigned long&,
                                                  const unsigned long&);
template bool PrefsWriter::GetPref<std::string>(const std::string&, std::string&,
                                                const std::string&);
template bool PrefsWriter::SetPref<bool>(const std::string&, const bool&);
template bool PrefsWriter::SetPref<int>(const std::string&, const int&);
template bool PrefsWriter::SetPref<unsigned long>(const std::string&, const unsigned long&);
template bool PrefsWriter::SetPref<std::string>(const std::string&, const std::string&);

bool PrefsWriter::GetPref(const std::string& key, XMLDocumentNode*& node) {
  PrefsLockScope lock(*this);
  if (!lock.IsHeld()) return false;
  node = GetPrefsNode(key, false);
  return node != nullptr;
}

bool PrefsWriter::SetPref(const std::string& key, XMLDocumentNode* node) {
  std::unique_ptr<XMLDocumentNode> owned(node);
  PrefsLockScope lock(*this);
  if (!lock.IsHeld() || !owned || !IsStorableKey(owned->GetElementName())) return false;
  ESD_ASSERT(m_pSettingsNode);
  XMLDocumentNode* existing = GetPrefsNode(key, false);
  if (existing && !m_pSettingsNode->DeleteChildNode(existing)) return false;
  m_pSettingsNode->AddChildNode(owned.get());
  owned.release();
  return Save();
}

bool PrefsWriter::Save() {
  PrefsLockScope lock(*this);
  if (!lock.IsHeld()) return false;
  // A document without settings (its load failed) would be written as a file without an
  // element, which no parser accepts.
  const XMLDocumentNode* document = m_DOMBuilder.GetDocumentNode();
  if (m_PrefsPath.empty() || !document || !m_pSettingsNode) return false;

  // A file we may not write is left alone, as writing it in place would be refused; replacing it
  // by exchange would otherwise succeed wherever the folder is writable.
  if (FileSystemUtils::DoesPathExist(m_PrefsPath) &&
      !Env::Default()->IsAccessible(m_PrefsPath, W_OK))
    return false;

  std::ostringstream text;
  text << *document;
  const std::string bytes = text.str();
  // Attribute values are written raw, so a value loaded from a file another program wrote (a map
  // key holding "&amp;", say) can come out as text no parser accepts. Saving it would turn every
  // setting back to its default for every process; refusing keeps the file as it was.
  if (!ExpatDOMBuilder<XMLDocumentNode>::IsWellFormed(bytes.data(), bytes.size())) return false;

  if (m_pLock && m_pLock->HasLock()) RemoveStaleTemporaries(m_PrefsPath);
  // A new file is the user's alone; a replaced one keeps its bits, at most readable by others.
  uint16_t mode = kNewPrefsFileMode;
  if (FileSystemUtils::GetFilePermission(m_PrefsPath, mode)) mode &= kMaxPrefsFileMode;
  uint64_t floor = m_LastModTime;
  uint64_t current = 0;
  if (FileSystemUtils::GetFileLastModifiedTime(m_PrefsPath, current) && current > floor)
    floor = current;
  const auto write = [&bytes](std::ostream& out) {
    return static_cast<bool>(out.write(bytes.data(), static_cast<std::streamsize>(bytes.size())));
  };
  const auto newer = [floor](const std::string& temporary) {
    MakeNewerThan(temporary, floor);
    return true;
  };
  bool saved = false;
  for (int attempt = 0; attempt < 8 && !saved; ++attempt) {
    saved = FileSystemUtils::ReplaceFileWith(m_PrefsPath, TemporaryPathFor(m_PrefsPath), mode,
                                             true, write, newer);
    if (!saved && errno != EEXIST) return false;
  }
  if (!saved) return false;

  uint64_t fileTime = 0;
  m_LastModTime = FileSystemUtils::GetFileLastModifiedTime(m_PrefsPath, fileTime) ? fileTime : 0;
  return lock.TookLock() ? lock.Release() : true;
}

bool PrefsWriter::DeleteAllPrefs() {
  PrefsLockScope lock(*this);
  if (!lock.IsHeld() || m_PrefsPath.empty()) return false;
  if (!FileSystemUtils::DeleteLocalFile(m_PrefsPath)) return false;
  SetPrefsPath(m_PrefsPath);
  return true;
}

bool PrefsWriter::IsStorableKey(const std::string& key) {
  if (key.empty()) return false;
  const char first = key[0];
  if (!IsAsciiLetter(first) && first != '_' && first != ':') return false;
  for (char c : key) {
    if (!IsAsciiLetter(c) && !IsAsciiDigit(c) && c != '_' && c != '-' && c != '.' && c != ':')
      return false;
  }
  return true;
}

// Anything but the shortest encoding of a Unicode scalar value would make a parser refuse the
// whole file.
bool PrefsWriter::IsStorableText(const std::string& text) {
  const unsigned char* const bytes = reinterpret_cast<const unsigned char*>(text.data());
  for (std::size_t i = 0; i < text.size();) {
    unsigned long code = 0;
    const std::size_t length = DecodeUTF8(bytes + i, text.size() - i, code);
    if (length == 0 || !IsScalarValue(code)) return false;
    if (code < 0x20 && code != '\t' && code != '\n') return false;
    if (code == 0xFFFE || code == 0xFFFF) return false;
    i += length;
  }
  return true;
}

bool PrefsWriter::IsStorableAttributeValue(const std::string& value) {
  return IsStorableText(value) && IsRawAttributeText(value);
}

}  // namespace esd
