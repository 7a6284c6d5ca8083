#ifndef MERROWSTORE_TREES_NODE_H
#define MERROWSTORE_TREES_NODE_H

#include <map>
#include <vector>

#include "merrowstore/export.h"
#include "xk/hresult.h"
#include "xk/oleauto.h"
#include "xk/secure_types.h"

// One compartment of a memory tree: its data items by data id, and the last
// component of its path. The node owns every array in its map and destroys them
// when it is destroyed; nothing ever hands a stored array out, callers only get
// deep copies. Takes no lock. Lookups remember the item they found last, so
// reading changes the node's state too: like its tree, a node is used by one
// thread at a time, reads included.
class MERROWSTORE_EXPORT CNode {
 public:
  // Copies the node id; the item map starts empty.
  explicit CNode(const SecureString& sNodeId);
  // Destroys each stored array; stops at the first destruction that fails,
  // leaving the later arrays undestroyed.
  ~CNode();
  CNode(const CNode&) = delete;
  CNode& operator=(const CNode&) = delete;

  // Copies the node id out; always S_OK.
  HRESULT GetNodeId(SecureString& sNodeId);
  // Removes any old value under sDataId, then stores a deep copy of
  // psaDataValue; the caller keeps its own array. Returns the copy's result: on
  // a failed copy the data id is left absent (the old value is gone).
  HRESULT AddDataItem(const SecureString& sDataId, SAFEARRAY* psaDataValue);
  // A deep copy of the value into psaDataValue, which the caller destroys.
  // E_INVALIDARG for an absent data id (psaDataValue untouched); otherwise the
  // copy's result.
  HRESULT GetDataItem(const SecureString& sDataId, SAFEARRAY*& psaDataValue);
  // Destroys the value and erases the data id whatever the destruction answers,
  // returning the destruction's result; E_INVALIDARG for an absent data id.
  HRESULT RemoveDataItem(const SecureString& sDataId);
  // Appends every data id, in byte order, to dataIds; always S_OK.
  HRESULT ListDataItems(std::vector<SecureString>& dataIds);

 private:
  typedef std::map<SecureString, SAFEARRAY*> ItemMap;

  ItemMap::iterator FindItem(const SecureString& sDataId);
  void EraseItem(ItemMap::iterator it);
  HRESULT DestroyItem(ItemMap::iterator it);

  ItemMap m_cDataItemList;
  SecureString m_sNodeId;
  // The entry FindItem found last, or end(). A value is read and then written
  // again by the same data id (a version counter: read, raised, stored), so
  // the second lookup costs one comparison. Reset when that entry is erased.
  ItemMap::iterator m_LastItem;
};

#endif
