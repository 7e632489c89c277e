#ifndef ESD_XPLAT_JOURNALEDXMLFILE_H
#define ESD_XPLAT_JOURNALEDXMLFILE_H

#include <cstdint>
#include <string>

#include "xplat/ExpatDOMBuilder.h"
#include "xplat/XMLDocumentNode.h"

// One XML file on disk bound to a DOM builder, saved so that a crash or power cut never leaves
// a half-written file: the new text goes to a journal beside the file (the file path followed
// by "_"), is made durable, and is then exchanged with the file. Loading finishes an
// interrupted save: a journal that parses is the newer complete text and replaces the file.
//
// A failed Load leaves the builder holding either a partial tree or a tree older than the
// file, so Save refuses to write until a Load succeeds again: a failed read must never turn
// into overwriting a good file.
//
// For one thread at a time; exclusion between processes is JournaledXMLLockedFile's business.
class JournaledXMLFile {
 public:
  // The builder is owned by the derived store and must outlive this object; it is not used
  // here before the first Load, so a store may pass a member that is constructed after its base.
  explicit JournaledXMLFile(esd::ExpatDOMBuilder<esd::XMLDocumentNode>& builder);
  virtual ~JournaledXMLFile();

  JournaledXMLFile(const JournaledXMLFile&) = delete;
  JournaledXMLFile& operator=(const JournaledXMLFile&) = delete;

  // Writes the builder's document to the journal, syncs it, exchanges it with the file, removes
  // the journal (now holding the old text) and syncs the folder. The new file has the saved-file
  // mode from the moment it appears: 0600 (the user's alone) unless the store sets another, as
  // a store shared by a group of users does. True once the new
  // text is in place (and, with durable saves, on stable storage). False without a document,
  // without a path, after a failed Load, when the text would not parse again (no element, or an
  // attribute value holding markup, which the writer does not escape), or when any step fails;
  // the file then still holds its old text. Never throws.
  virtual bool Save();

  // Rebuilds the tree from disk, journal first, and returns OnLoadSuccess's verdict. A journal
  // that does not parse (a save cut short while writing it) is ignored. False when the file
  // exists but does not parse (an empty file included); OnLoadSuccess is then not called. With
  // neither file nor journal the store is empty and the load succeeds.
  virtual bool Load(void* context);

  // Removes the journal and the file and clears the builder. False when the file exists and
  // cannot be deleted.
  virtual bool Delete();

  // Called by Load with the freshly loaded document node; derived stores bind their records to
  // it here. Its result is Load's result.
  virtual bool OnLoadSuccess(esd::XMLDocumentNode* inRootNode, void* context);

  // Not called by this class; kept for stores that want a hook of their own.
  virtual void OnLoadFailed();

  // Moves the store to newPath: an existing file is copied there first (false, nothing
  // changed, when that fails), then the old file and journal are removed. Setting the same
  // path again deletes nothing.
  bool SetPath(const std::string& newPath);

  // out = path + "_". Always true.
  static bool GetJournalPath(const std::string& path, std::string& out);

  // out = the file path; true when one is set.
  bool GetXMLFileFullPath(std::string& out) const;

  // Saves sync the journal before the exchange and the folder after it (the default). Turning
  // that off trades the power-cut guarantee for speed and exists only to measure the cost; a
  // crash of the process alone is survived either way.
  void SetDurableSaves(bool durable) { mDurableSaves = durable; }
  bool GetDurableSaves() const { return mDurableSaves; }

 protected:
  // Makes Save refuse until the next successful Load. Derived classes call it when a Load fails
  // before reaching the base's (a lock that could not be had, for instance).
  void MarkLoadFailed() { mLoadFailed = true; }
  // The exact permission bits every later save gives the file.
  void SetSavedFileMode(uint16_t mode) { mSavedFileMode = mode; }

 private:
  esd::ExpatDOMBuilder<esd::XMLDocumentNode>& mBuilder;
  std::string mFilePath;
  std::string mJournalPath;
  uint16_t mSavedFileMode;
  bool mDurableSaves;
  bool mLoadFailed;
};

#endif
