#include "trees/Node.h"

#include "common/FctUtils.h"
#include "common/Module.h"
#include "xk/log.h"

CNode::CNode(const SecureString& sNodeId) : m_sNodeId(sNodeId), m_LastItem(m_cDataItemList.end()) {}

CNode::~CNode() {
  for (auto& item : m_cDataItemList) {
    if (item.second == NULL) continue;
    HRESULT hr = qxSafeArrayDestroy(item.second, 0);
    if (FAILED(hr)) {
      xklogLog(MSTORE_MODULE, 1, "CNode::~CNode qxSafeArrayDestroy hr = 0x%x", hr);
      break;
    }
  }
}

HRESULT CNode::GetNodeId(SecureString& sNodeId) {
  sNodeId = m_sNodeId;
  return S_OK;
}

// The entry of sDataId, or end(). A node holds a handful of items (a node of
// the history two), and a walk over them that looks at the lengths first
// costs less than the map's search, which compares whole texts at each step.
CNode::ItemMap::iterator CNode::FindItem(const SecureString& sDataId) {
  if (m_LastItem != m_cDataItemList.end() && SameText(m_LastItem->first, sDataId)) return m_LastItem;
  const std::size_t kWalkLimit = 8;
  ItemMap::iterator it;
  if (m_cDataItemList.size() > kWalkLimit) {
    it = m_cDataItemList.find(sDataId);
  } else {
    it = m_cDataItemList.begin();
    while (it != m_cDataItemList.end() && !SameText(it->first, sDataId)) ++it;
  }
  if (it != m_cDataItemList.end()) m_LastItem = it;
  return it;
}

void CNode::EraseItem(ItemMap::iterator it) {
  if (it == m_LastItem) m_LastItem = m_cDataItemList.end();
  m_cDataItemList.erase(it);
}

HRESULT CNode::AddDataItem(const SecureString& sDataId, SAFEARRAY* psaDataValue) {
  xklogLog(MSTORE_MODULE, 0, "CNode::AddDataItem");
  // The old value is destroyed first, exactly as RemoveDataItem would do it,
  // but its map entry is kept for the copy: one search, and no entry is
  // freed and made again. A failed copy erases the entry, so the data id is
  // absent then, as after a removal.
  const ItemMap::iterator it = FindItem(sDataId);
  const bool bPresent = it != m_cDataItemList.end();
  HRESULT hr = DestroyItem(it);
  xklogLog(MSTORE_MODULE, 0, "CNode::AddDataItem RemoveDataItem hr = 0x%x", hr);
  SAFEARRAY* psaCopy = NULL;
  hr = SafeArrayCopy(psaDataValue, &psaCopy);
  if (SUCCEEDED(hr)) {
    if (bPresent)
      it->second = psaCopy;
    else
      m_cDataItemList.emplace(sDataId, psaCopy);
  } else if (bPresent) {
    EraseItem(it);
  }
  xklogLog(MSTORE_MODULE, 0, "CNode::AddDataItem hr = 0x%x", hr);
  return hr;
}

HRESULT CNode::GetDataItem(const SecureString& sDataId, SAFEARRAY*& psaDataValue) {
  xklogLog(MSTORE_MODULE, 0, "CNode::GetDataItem");
  HRESULT hr;
  const ItemMap::iterator it = FindItem(sDataId);
  if (it == m_cDataItemList.end()) {
    xklogLog(MSTORE_MODULE, 0, "CNode::GetDataItem sDataId not found");
    hr = E_INVALIDARG;
  } else {
    hr = SafeArrayCopy(it->second, &psaDataValue);
  }
  xklogLog(MSTORE_MODULE, 0, "CNode::GetDataItem hr = 0x%x", hr);
  return hr;
}

HRESULT CNode::RemoveDataItem(const SecureString& sDataId) {
  const ItemMap::iterator it = FindItem(sDataId);
  const HRESULT hr = DestroyItem(it);
  if (it != m_cDataItemList.end()) EraseItem(it);
  return hr;
}

// The removal's texts and its destruction; the entry itself is left to the
// caller, which erases it or reuses it.
HRESULT CNode::DestroyItem(ItemMap::iterator it) {
  xklogLog(MSTORE_MODULE, 0, "CNode::RemoveDataItem");
  HRESULT hr;
  if (it == m_cDataItemList.end()) {
    xklogLog(MSTORE_MODULE, 0, "CNode::RemoveDataItem sDataId not found");
    hr = E_INVALIDARG;
  } else {
    hr = qxSafeArrayDestroy(it->second, 0);
  }
  xklogLog(MSTORE_MODULE, 0, "CNode::RemoveDataItem hr = 0x%x", hr);
  return hr;
}

HRESULT CNode::ListDataItems(std::vector<SecureString>& dataIds) {
  for (const auto& item : m_cDataItemList) dataIds.push_back(item.first);
  return S_OK;
}
