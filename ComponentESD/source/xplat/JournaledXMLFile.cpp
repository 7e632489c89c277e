#include "xplat/JournaledXMLFile.h"

#include <exception>
#include <sstream>

#include "xplat/ESDAssert.h"
#include "xplat/FileSystemUtils.h"
#include "xplat/XMLWriteCheck.h"

namespace {

// Whether the text written for `document` parses. Built again in memory: this runs only for the
// rare tree the writer's walk could not vouch for.
bool JournalLoadsAgain(const esd::XMLDocumentNode& document) {
  std::ostringstream text;
  text << document;
  if (!text) return false;
  const std::string bytes = text.str();
  return esd::ExpatDOMBuilder<esd::XMLDocumentNode>::IsWellFormed(bytes.data(), bytes.size());
}

}  // namespace

JournaledXMLFile::JournaledXMLFile(esd::ExpatDOMBuilder<esd::XMLDocumentNode>& builder)
    : mBuilder(builder), mSavedFileMode(0600), mDurableSaves(true), mLoadFailed(false) {}

JournaledXMLFile::~JournaledXMLFile() = default;

bool JournaledXMLFile::Save() {
  try {
    const esd::XMLDocumentNode* document = mBuilder.GetDocumentNode();
    if (!document || mLoadFailed || mFilePath.empty()) return false;

    // A leftover journal may belong to someone else or be a link planted beside the store;
    // start from a fresh file rather than write through it. The tree is written straight to the
    // journal, without a copy of its text in memory.
    FileSystemUtils::RemoveName(mJournalPath);
    return FileSystemUtils::ReplaceFileWith(
        mFilePath, mJournalPath, mSavedFileMode, mDurableSaves, [document](std::ostream& out) {
          // Attribute values are written raw and an empty document is a lone declaration:
          // either can make text that no later Load parses, which would lock every user out
          // of the store. Such a save is refused and the file keeps its last good text. The
          // walk that writes the tree vouches for ordinary trees at a fraction of the cost of
          // parsing their text; only a tree it cannot vouch for has its text parsed before the
          // journal goes any further.
          const bool vouched = esd::XMLWriteCheck::WriteVouched(out, *document);
          return out.good() && (vouched || JournalLoadsAgain(*document));
        });
  } catch (...) {
    return false;
  }
}

bool JournaledXMLFile::Load(void* context) {
  mLoadFailed = true;
  try {
    mBuilder.Clear();
    if (!mBuilder.Create(nullptr, nullptr)) return false;

    bool journalInstalled = false;
    bool builderUsed = false;
    if (!mJournalPath.empty() && FileSystemUtils::DoesPathExist(mJournalPath)) {
      builderUsed = true;
      if (mBuilder.ParseFile(mJournalPath, false)) {
        // A complete journal is the text of a save that was cut short after writing it. When it
        // cannot be put in place it stays for the next load, and the file is read instead.
        if (FileSystemUtils::ExchangeFiles(mJournalPath, mFilePath)) {
          if (FileSystemUtils::DoesPathExist(mJournalPath)) FileSystemUtils::RemoveName(mJournalPath);
          journalInstalled = !FileSystemUtils::DoesPathExist(mJournalPath);
        }
        if (journalInstalled && mDurableSaves)
          FileSystemUtils::SyncDirectory(FileSystemUtils::GetParentPath(mFilePath));
      }
    }

    if (!journalInstalled && !mFilePath.empty() && FileSystemUtils::DoesPathExist(mFilePath)) {
      // The parser stops for good at its first error, and a journal it read is not the file:
      // start again from a fresh document.
      if (builderUsed && !mBuilder.Create(nullptr, nullptr)) return false;
      if (!mBuilder.ParseFile(mFilePath, false)) return false;
    } else if (!journalInstalled && builderUsed) {
      // Only an unusable journal was there: the store is empty.
      if (!mBuilder.Create(nullptr, nullptr)) return false;
    }
  } catch (const std::exception&) {
    return false;
  }

  // Cleared before the call: stores may save from inside OnLoadSuccess (to persist a repair).
  mLoadFailed = false;
  const bool bound = OnLoadSuccess(mBuilder.GetDocumentNode(), context);
  if (!bound) mLoadFailed = true;
  return bound;
}

bool JournaledXMLFile::Delete() {
  if (!mJournalPath.empty() && FileSystemUtils::DoesPathExist(mJournalPath))
    FileSystemUtils::RemoveName(mJournalPath);
  if (!mFilePath.empty() && FileSystemUtils::DoesPathExist(mFilePath) &&
      !FileSystemUtils::DeleteLocalFile(mFilePath))
    return false;
  mBuilder.Clear();
  // A deletion that a power cut undoes brings back a whole old store, never a damaged one; the
  // sync only makes it less likely.
  if (mDurableSaves && !mFilePath.empty())
    FileSystemUtils::SyncDirectory(FileSystemUtils::GetParentPath(mFilePath));
  return true;
}

bool JournaledXMLFile::OnLoadSuccess(esd::XMLDocumentNode* inRootNode, void*) {
  ESD_ASSERT(inRootNode);
  return true;
}

void JournaledXMLFile::OnLoadFailed() {}

bool JournaledXMLFile::SetPath(const std::string& newPath) {
  const std::string oldPath = mFilePath;
  const std::string oldJournalPath = mJournalPath;
  if (!oldPath.empty() && oldPath != newPath && FileSystemUtils::DoesPathExist(oldPath) &&
      !FileSystemUtils::CopyLocalFile(oldPath, newPath))
    return false;
  mFilePath = newPath;
  GetJournalPath(newPath, mJournalPath);
  if (!oldPath.empty() && oldPath != newPath) {
    FileSystemUtils::DeleteLocalFile(oldPath);
    FileSystemUtils::DeleteLocalFile(oldJournalPath);
  }
  return true;
}

bool JournaledXMLFile::GetJournalPath(const std::string& path, std::string& out) {
  out = path + "_";
  return true;
}

bool JournaledXMLFile::GetXMLFileFullPath(std::string& out) const {
  out = mFilePath;
  return !mFilePath.empty();
}
