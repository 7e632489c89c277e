#ifndef ESD_XPLAT_SEARCHRESULT_H
#define ESD_XPLAT_SEARCHRESULT_H

#include <cstddef>
#include <vector>

#include "xplat/ESDAssert.h"

namespace esd {

// An ordered set of nodes found in a tree; the nodes stay owned by their tree. A search goes
// one level at a time: start from a root and narrow with Children(predicate).
template <class NodeType>
class SearchResult {
 public:
  using ResultSet = std::vector<NodeType*>;

  SearchResult() = default;
  explicit SearchResult(NodeType* root) { SetRoot(root); }
  virtual ~SearchResult() = default;

  // Makes the set hold `root` alone.
  void SetRoot(NodeType* root) {
    mResultSet.clear();
    mResultSet.push_back(root);
  }

  // The direct children, in document order, of every node of this set (in set order) for which
  // p(child) is true. Never looks deeper than one level. Each node's child list is copied first,
  // so a predicate that edits the tree does not disturb the walk.
  template <class Pred>
  SearchResult Children(Pred p) const {
    SearchResult found;
    for (NodeType* node : mResultSet) {
      if (!node) continue;
      const std::vector<NodeType*> snapshot(node->GetChildNodes().begin(),
                                            node->GetChildNodes().end());
      for (NodeType* child : snapshot)
        if (p(child)) found.mResultSet.push_back(child);
    }
    return found;
  }

  NodeType* GetFirst() const {
    ESD_ASSERT(!mResultSet.empty());
    return mResultSet.front();
  }

  // The one node of a set that must hold exactly one; null when it does not (reached only with
  // assertions compiled out).
  NodeType* GetSingleMatch() const {
    ESD_ASSERT(1 == mResultSet.size());
    return mResultSet.size() == 1 ? mResultSet.front() : nullptr;
  }

  const ResultSet& GetResultSet() const { return mResultSet; }
  std::size_t size() const { return mResultSet.size(); }
  bool empty() const { return mResultSet.empty(); }
  typename ResultSet::const_iterator begin() const { return mResultSet.begin(); }
  typename ResultSet::const_iterator end() const { return mResultSet.end(); }

 private:
  ResultSet mResultSet;
};

}  // namespace esd

#endif
