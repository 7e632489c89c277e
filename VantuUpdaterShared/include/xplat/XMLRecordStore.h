#ifndef VANTUUPDATERSHARED_XPLAT_XMLRECORDSTORE_H
#define VANTUUPDATERSHARED_XPLAT_XMLRECORDSTORE_H

#include <algorithm>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "xplat/ExpatDOMBuilder.h"
#include "xplat/JournaledXMLLockedFile.h"
#include "xplat/StoreLockScope.h"
#include "xplat/StoreRoot.h"
#include "xplat/XMLBoundObject.h"
#include "xplat/XMLBoundObjectUtils.h"
#include "xplat/XMLDocumentNode.h"

// What the two record stores share: a journaled, locked XML file whose top element `Store` binds
// to, and whose records are children of that element. Each public operation of a store loads the
// file afresh under the lock; this base loads, binds, lists, finds and saves, the stores keep their
// own records' rules.
template <class Store>
class XMLRecordStore : public JournaledXMLLockedFile, public XMLBoundObject<Store> {
 public:
  // How long an operation waits for another process to release the store, in milliseconds.
  static constexpr unsigned long kLockTimeout = 2000;

  // Releases the lock when an operation left it held.
  ~XMLRecordStore() override {
    try {
      if (HasLock()) Unlock(false);
    } catch (...) {
    }
  }
  XMLRecordStore(const XMLRecordStore&) = delete;
  XMLRecordStore& operator=(const XMLRecordStore&) = delete;

 protected:
  // The builder is only referred to here; the file is neither locked nor read.
  explicit XMLRecordStore(const std::string& path)
      : JournaledXMLLockedFile(mBuilder, kLockTimeout), mFilePath(path) {
    SetPath(mFilePath);
  }

  // Binds the store to its top element in the loaded document, adding one when the file had none
  // or another program's element; false when none can be made.
  bool BindStoreRoot(esd::XMLDocumentNode* document) {
    esd::XMLDocumentNode* storeRoot = StoreRoot::FindOrAdd(document, Store::GetNodeRootName());
    if (storeRoot == nullptr) return false;
    this->SetObjectRoot(storeRoot);
    return true;
  }

  // Load(nullptr), and on failure ForgetLoadedTree(): a failed load has already destroyed the
  // tree the store was bound to.
  bool LoadStore() {
    if (Load(nullptr)) return true;
    ForgetLoadedTree();
    return false;
  }

  // Rebinds the store to a fresh, empty root of its own, so that nothing reaches the elements of
  // a tree the builder has freed (after a failed load or a delete).
  void ForgetLoadedTree() {
    using Binding = XMLBoundObject<Store>;
    Binding::operator=(Binding());
  }

  // Writes the loaded tree, or deletes the file when the store root has no children left (an
  // empty store is no store). Exceptions become false.
  bool SaveOrDelete() {
    try {
      if (this->GetObjectRoot()->GetChildNodes().empty()) {
        if (!Delete()) return false;
        ForgetLoadedTree();
        return true;
      }
      return Save();
    } catch (...) {
      return false;
    }
  }

  // Loads the store under its lock and lists its records in file order, bound to the loaded tree.
  template <class Record>
  bool LoadRecords(std::vector<Record>& out) {
    StoreLockScope lock(*this);
    if (!lock.Held() || !LoadStore()) return false;
    out.clear();
    XMLBoundObjectUtils::GetNodeChildrenAsType<Record>(this->GetObjectRoot(),
                                                       Record::GetNodeRootName(), out);
    return true;
  }

  // The first record of `records` that `matches`, as a heap copy in `out`; false (and `out`
  // untouched) when none does.
  template <class Record, class Matcher>
  static bool FindRecord(const std::list<Record>& records, const Matcher& matches,
                         std::unique_ptr<Record>& out) {
    auto found = std::find_if(records.begin(), records.end(), matches);
    if (found == records.end()) return false;
    out.reset(new Record(*found));
    return true;
  }

  // Removes every record for which pred is true and returns how many; the tree only, no save.
  template <class Record, class Pred>
  unsigned long DeleteRecordsIf(Pred pred) {
    esd::XMLDocumentNode* storeRoot = this->GetObjectRoot();
    std::vector<Record> records;
    XMLBoundObjectUtils::GetNodeChildrenAsType<Record>(storeRoot, Record::GetNodeRootName(),
                                                       records);
    auto firstKept = std::partition(records.begin(), records.end(), pred);
    for (auto it = records.begin(); it != firstKept; ++it)
      storeRoot->DeleteChildNode(it->GetObjectRoot());
    return static_cast<unsigned long>(firstKept - records.begin());
  }

  std::string mFilePath;

 private:
  esd::ExpatDOMBuilder<esd::XMLDocumentNode> mBuilder;
};

#endif
