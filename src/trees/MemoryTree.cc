#include "trees/MemoryTree.h"

#include <cstdint>
#include <cstring>

#include "common/FctUtils.h"
#include "common/Module.h"
#include "trees/VersionHistory.h"
#include "xk/log.h"

// Paths are compared byte by byte, so the keys below a path P ("P/...") form
// one contiguous range of the map starting at lower_bound("P/"), and every
// descendant of a child "P/R" lies before "P/R0" ('0' follows '/'). The walks
// below use those ranges instead of scanning the whole map; they visit the same
// keys in the same order as a scan would.

namespace {

const char kSeparator = '/';
const char kAfterSeparator = '/' + 1;

bool StartsWith(const SecureString& s, const SecureString& prefix) {
  return s.size() >= prefix.size() && s.compare(0, prefix.size(), prefix) == 0;
}

}  // namespace

CMemoryTree::CMemoryTree(const SecureString& sTreeId) : m_sTreeId(sTreeId) {
  ForgetRecent();
  xklogLog(MSTORE_MODULE, 0, "CMemoryTree::CMemoryTree sTreeId = %s", m_sTreeId.c_str());
}

CMemoryTree::~CMemoryTree() {
  xklogLog(MSTORE_MODULE, 0, "CMemoryTree::~CMemoryTree");
  for (auto& entry : m_cFullPathNodeList) delete entry.second;
  for (CNode* pNode : m_cRetiredNodes) delete pNode;
}

HRESULT CMemoryTree::GetTreeId(SecureString& sTreeId) {
  xklogLog(MSTORE_MODULE, 8, "CMemoryTree::GetTreeId");
  sTreeId = m_sTreeId;
  xklogLog(MSTORE_MODULE, 16, "CMemoryTree::GetTreeId hr = 0x%x", S_OK);
  return S_OK;
}

// Eight bytes at a time, each word folded in with a multiplication, the last
// word overlapping the one before it, then the high bits mixed down into the
// low ones that choose the slot. Paths are short, so this costs a handful of
// instructions where a general-purpose string hash costs several times as
// many.
std::size_t CMemoryTree::PathIndex::Hash(const SecureString& sKey) {
  const std::uint64_t kMultiplier = 0x9E3779B97F4A7C15ull;
  const char* p = sKey.data();
  const std::size_t n = sKey.size();
  std::uint64_t hash = (n + 1) * kMultiplier;
  std::uint64_t word = 0;
  if (n >= 8) {
    for (std::size_t i = 0; i + 8 < n; i += 8) {
      std::memcpy(&word, p + i, 8);
      hash = (hash ^ word) * kMultiplier;
    }
    std::memcpy(&word, p + n - 8, 8);
  } else {
    for (std::size_t i = 0; i < n; ++i) word |= static_cast<std::uint64_t>(static_cast<unsigned char>(p[i])) << (8 * i);
  }
  hash = (hash ^ word) * kMultiplier;
  hash ^= hash >> 32;
  hash *= kMultiplier;
  hash ^= hash >> 29;
  return hash == 0 ? 1 : static_cast<std::size_t>(hash);
}

CMemoryTree::NodeMap::iterator CMemoryTree::PathIndex::Find(const SecureString& sKey, NodeMap::iterator end) const {
  if (m_Count == 0) return end;
  const std::size_t hash = Hash(sKey);
  const std::size_t mask = m_Slots.size() - 1;
  for (std::size_t i = hash & mask; m_Slots[i].hash != 0; i = (i + 1) & mask) {
    if (m_Slots[i].hash == hash && SameText(m_Slots[i].entry->first, sKey)) return m_Slots[i].entry;
  }
  return end;
}

void CMemoryTree::PathIndex::MakeRoom() {
  // At most three quarters full, so that probes stay short.
  if ((m_Count + 1) * 4 <= m_Slots.size() * 3) return;
  std::vector<Slot> old(std::move(m_Slots));
  m_Slots.assign(old.empty() ? 16 : old.size() * 2, Slot{0, NodeMap::iterator()});
  const std::size_t mask = m_Slots.size() - 1;
  for (const Slot& slot : old) {
    if (slot.hash == 0) continue;
    std::size_t i = slot.hash & mask;
    while (m_Slots[i].hash != 0) i = (i + 1) & mask;
    m_Slots[i] = slot;
  }
}

void CMemoryTree::PathIndex::Insert(NodeMap::iterator entry) {
  const std::size_t hash = Hash(entry->first);
  const std::size_t mask = m_Slots.size() - 1;
  std::size_t i = hash & mask;
  while (m_Slots[i].hash != 0) i = (i + 1) & mask;
  m_Slots[i] = Slot{hash, entry};
  ++m_Count;
}

void CMemoryTree::PathIndex::Erase(NodeMap::iterator entry) {
  const std::size_t mask = m_Slots.size() - 1;
  std::size_t hole = Hash(entry->first) & mask;
  while (m_Slots[hole].entry != entry) hole = (hole + 1) & mask;
  // Backward shift: pull each later member of the probe run into the hole,
  // unless its home slot lies cyclically after the hole (it would become
  // unreachable).
  for (std::size_t j = (hole + 1) & mask; m_Slots[j].hash != 0; j = (j + 1) & mask) {
    const std::size_t home = m_Slots[j].hash & mask;
    const bool stays = hole <= j ? (hole < home && home <= j) : (hole < home || home <= j);
    if (stays) continue;
    m_Slots[hole] = m_Slots[j];
    hole = j;
  }
  m_Slots[hole].hash = 0;
  --m_Count;
}

void CMemoryTree::PathIndex::Clear() {
  std::vector<Slot>().swap(m_Slots);
  m_Count = 0;
}

// The entry of the key sCompartmentId, or end(); remembered for the next call.
CMemoryTree::NodeMap::iterator CMemoryTree::Find(const SecureString& sCompartmentId) {
  NodeMap::iterator& recent = m_Recent[sCompartmentId.size() % kRecent];
  if (recent != m_cFullPathNodeList.end() && SameText(recent->first, sCompartmentId)) return recent;
  const NodeMap::iterator it = Lookup(sCompartmentId);
  if (it != m_cFullPathNodeList.end()) recent = it;
  return it;
}

void CMemoryTree::ForgetRecent() {
  for (NodeMap::iterator& recent : m_Recent) recent = m_cFullPathNodeList.end();
}

// The entry of the key sCompartmentId, or end().
CMemoryTree::NodeMap::iterator CMemoryTree::Lookup(const SecureString& sCompartmentId) {
  return m_Index.Find(sCompartmentId, m_cFullPathNodeList.end());
}

// Takes an entry out of the map and the index; the node is the caller's.
void CMemoryTree::Unlink(NodeMap::iterator entry) {
  m_Index.Erase(entry);
  m_cFullPathNodeList.erase(entry);
}

// Creates each missing prefix of the path, shortest first, and answers the
// node of the last component. A path that is already a key has all its
// prefixes as keys too, so the walk would create nothing: its node is the
// answer at once, without cutting the path.
CNode* CMemoryTree::WalkPath(const SecureString& sCompartmentId) {
  const NodeMap::iterator found = Find(sCompartmentId);
  if (found != m_cFullPathNodeList.end()) return found->second;
  const std::vector<SecureString> components = split(sCompartmentId, L'/');
  CNode* pNode = NULL;
  SecureString sPrefix;
  for (std::size_t i = 0; i < components.size(); ++i) {
    if (i > 0) sPrefix += kSeparator;
    sPrefix += components[i];
    auto it = Lookup(sPrefix);
    if (it == m_cFullPathNodeList.end()) {
      m_Index.MakeRoom();
      it = m_cFullPathNodeList.emplace(sPrefix, new CNode(components[i])).first;
      m_Index.Insert(it);
    }
    pNode = it->second;
  }
  return pNode;
}

HRESULT CMemoryTree::SetData(const SecureString& sCompartmentId, const SecureString& sDataId,
                             SAFEARRAY* psaDataValue, unsigned int dwClientProcessId, signed char /*bEncrypted*/) {
  HistoryLock lock(this == gHistoryTree);
  xklogLog(MSTORE_MODULE, 0, "CMemoryTree::SetData");
  xklogLog(MSTORE_MODULE, 0, "CMemoryTree::SetData dwClientProcessId = %d", dwClientProcessId);
  HRESULT hr;
  CNode* pNode = WalkPath(sCompartmentId);
  if (pNode == NULL) {
    xklogLog(MSTORE_MODULE, 1, "CMemoryTree::SetData pNode == NULL");
    hr = E_FAIL;
  } else {
    hr = pNode->AddDataItem(sDataId, psaDataValue);
  }
  xklogLog(MSTORE_MODULE, 0, "CMemoryTree::SetData hr = 0x%x", hr);
  return hr;
}

HRESULT CMemoryTree::GetData(const SecureString& sCompartmentId, const SecureString& sDataId,
                             SAFEARRAY*& psaDataValue, unsigned int /*dwClientProcessId*/) {
  HistoryLock lock(this == gHistoryTree);
  xklogLog(MSTORE_MODULE, 0, "CMemoryTree::GetData");
  HRESULT hr;
  const NodeMap::iterator it = Find(sCompartmentId);
  if (it == m_cFullPathNodeList.end()) {
    xklogLog(MSTORE_MODULE, 0, "CMemoryTree::GetData sCompartmentId not found");
    hr = E_INVALIDARG;
  } else if (it->second == NULL) {
    xklogLog(MSTORE_MODULE, 1, "CMemoryTree::GetData pNode == NULL");
    hr = E_FAIL;
  } else {
    hr = it->second->GetDataItem(sDataId, psaDataValue);
  }
  xklogLog(MSTORE_MODULE, 0, "CMemoryTree::GetData hr = 0x%x", hr);
  return hr;
}

HRESULT CMemoryTree::RemoveData(const SecureString& sCompartmentId, const SecureString& sDataId,
                                unsigned int /*dwClientProcessId*/) {
  HistoryLock lock(this == gHistoryTree);
  xklogLog(MSTORE_MODULE, 0, "CMemoryTree::RemoveData");
  HRESULT hr;
  const NodeMap::iterator it = Find(sCompartmentId);
  if (it == m_cFullPathNodeList.end()) {
    xklogLog(MSTORE_MODULE, 0, "CMemoryTree::RemoveData sCompartmentId not found");
    hr = E_INVALIDARG;
  } else if (it->second == NULL) {
    xklogLog(MSTORE_MODULE, 1, "CMemoryTree::RemoveData pNode == NULL");
    hr = E_FAIL;
  } else {
    hr = it->second->RemoveDataItem(sDataId);
  }
  xklogLog(MSTORE_MODULE, 0, "CMemoryTree::RemoveData hr = 0x%x", hr);
  return hr;
}

HRESULT CMemoryTree::CreateCompartment(const SecureString& sCompartmentId, unsigned int /*dwClientProcessId*/) {
  HistoryLock lock(this == gHistoryTree);
  xklogLog(MSTORE_MODULE, 0, "CMemoryTree::CreateCompartment");
  WalkPath(sCompartmentId);
  xklogLog(MSTORE_MODULE, 0, "CMemoryTree::CreateCompartment hr = 0x%x", S_OK);
  return S_OK;
}

// The keys that pass the subtree test against sCompartmentId (the id itself and
// every key that continues it with "/"), in map order.
std::vector<CMemoryTree::NodeMap::iterator> CMemoryTree::Subtree(const SecureString& sCompartmentId) {
  std::vector<NodeMap::iterator> entries;
  auto self = Lookup(sCompartmentId);
  if (self != m_cFullPathNodeList.end()) entries.push_back(self);
  const SecureString sPrefix = sCompartmentId + kSeparator;
  for (auto it = m_cFullPathNodeList.lower_bound(sPrefix); it != m_cFullPathNodeList.end() && StartsWith(it->first, sPrefix);
       ++it)
    entries.push_back(it);
  return entries;
}

// The first key, in map order, that passes the subtree test; end() if none.
CMemoryTree::NodeMap::iterator CMemoryTree::FirstOfSubtree(const SecureString& sCompartmentId) {
  auto self = Lookup(sCompartmentId);
  if (self != m_cFullPathNodeList.end()) return self;
  const SecureString sPrefix = sCompartmentId + kSeparator;
  auto it = m_cFullPathNodeList.lower_bound(sPrefix);
  if (it != m_cFullPathNodeList.end() && StartsWith(it->first, sPrefix)) return it;
  return m_cFullPathNodeList.end();
}

// The last components of the keys that pass the child test against
// sCompartmentId ("id/R" with no "/" in R), in map order. The descendants of
// each child are skipped over.
std::vector<SecureString> CMemoryTree::Children(const SecureString& sCompartmentId) {
  std::vector<SecureString> children;
  const SecureString sPrefix = sCompartmentId + kSeparator;
  auto it = m_cFullPathNodeList.lower_bound(sPrefix);
  while (it != m_cFullPathNodeList.end() && StartsWith(it->first, sPrefix)) {
    const SecureString sRest = it->first.substr(sPrefix.size());
    const SecureString::size_type pos = sRest.find(kSeparator);
    if (pos == SecureString::npos) {
      children.push_back(sRest);
      ++it;
    } else {
      it = m_cFullPathNodeList.lower_bound(sPrefix + sRest.substr(0, pos) + kAfterSeparator);
    }
  }
  return children;
}

// The keys that hold no "/" at all, in map order; the keys below each are
// skipped over.
std::vector<SecureString> CMemoryTree::Sessions() {
  std::vector<SecureString> sessions;
  auto it = m_cFullPathNodeList.begin();
  while (it != m_cFullPathNodeList.end()) {
    const SecureString::size_type pos = it->first.find(kSeparator);
    if (pos == SecureString::npos) {
      sessions.push_back(it->first);
      ++it;
    } else {
      it = m_cFullPathNodeList.lower_bound(it->first.substr(0, pos) + kAfterSeparator);
    }
  }
  return sessions;
}

HRESULT CMemoryTree::RemoveSubtree(const SecureString& sCompartmentId) {
  HRESULT hr = S_OK;
  const bool bHistory = this == gHistoryTree;
  ForgetRecent();
  for (NodeMap::iterator entry : Subtree(sCompartmentId)) {
    const SecureString sKey = entry->first;
    m_cRetiredNodes.push_back(entry->second);
    Unlink(entry);
    // The history tree keeps no versions of itself; the compartment named by the
    // call is left to the store.
    if (bHistory || sKey == sCompartmentId) continue;
    const SecureString sGlobal = m_sTreeId + kSeparator + sKey;
    HRESULT hrVersion = UpdateVersion(sGlobal, 0);
    if (FAILED(hrVersion))
      xklogLog(MSTORE_MODULE, 2, "CMemoryTree::RemoveCompartment UpdateVersion failed hr = 0x%x", hrVersion);
    hr = UpdateVersion(sGlobal, 1);
    if (FAILED(hr)) xklogLog(MSTORE_MODULE, 2, "CMemoryTree::RemoveCompartment UpdateVersion failed hr = 0x%x", hr);
  }
  return hr;
}

HRESULT CMemoryTree::RemoveCompartment(const SecureString& sCompartmentId, signed char /*bUpdateVersions*/,
                                       unsigned int /*dwClientProcessId*/) {
  HistoryLock lock(this == gHistoryTree);
  xklogLog(MSTORE_MODULE, 8, "CMemoryTree::RemoveCompartment");
  HRESULT hr;
  if (m_cFullPathNodeList.empty()) {
    xklogLog(MSTORE_MODULE, 0, "CMemoryTree::RemoveCompartment m_cFullPathNodeList.size() == 0");
    hr = E_INVALIDARG;
  } else {
    hr = RemoveSubtree(sCompartmentId);
  }
  xklogLog(MSTORE_MODULE, 16, "CMemoryTree::RemoveCompartment hr = 0x%x", hr);
  return hr;
}

HRESULT CMemoryTree::FlushTree(unsigned int /*dwClientProcessId*/) {
  HistoryLock lock(this == gHistoryTree);
  xklogLog(MSTORE_MODULE, 8, "CMemoryTree::FlushTree");
  for (auto& entry : m_cFullPathNodeList) m_cRetiredNodes.push_back(entry.second);
  m_cFullPathNodeList.clear();
  m_Index.Clear();
  ForgetRecent();
  xklogLog(MSTORE_MODULE, 16, "CMemoryTree::FlushTree hr = 0x%x", S_OK);
  return S_OK;
}

HRESULT CMemoryTree::ListNodes(std::vector<SecureString>& fullPaths, std::vector<CNode*>& nodes) {
  HistoryLock lock(this == gHistoryTree);
  for (const auto& entry : m_cFullPathNodeList) {
    fullPaths.push_back(entry.first);
    nodes.push_back(entry.second);
  }
  return S_OK;
}

HRESULT CMemoryTree::IsDataCached(const SecureString& sCompartmentId, const SecureString& sDataId,
                                  signed char* pbCached, unsigned int /*dwClientProcessId*/) {
  HistoryLock lock(this == gHistoryTree);
  xklogLog(MSTORE_MODULE, 8, "CMemoryTree::IsDataCached");
  HRESULT hr = S_OK;
  if (pbCached == NULL) {
    xklogLog(MSTORE_MODULE, 1, "CMemoryTree::IsDataCached pbCached == NULL");
    hr = E_FAIL;
  } else {
    signed char bCached = 0;
    const NodeMap::iterator it = Find(sCompartmentId);
    if (it != m_cFullPathNodeList.end() && it->second != NULL) {
      std::vector<SecureString> dataIds;
      it->second->ListDataItems(dataIds);
      for (const SecureString& sId : dataIds)
        if (SameText(sId, sDataId)) bCached = 1;
    }
    *pbCached = bCached;
  }
  xklogLog(MSTORE_MODULE, 16, "CMemoryTree::IsDataCached hr = 0x%x", hr);
  return hr;
}

HRESULT CMemoryTree::IsCompartmentCached(const SecureString& sCompartmentId, unsigned long* pulCompartmentVersion,
                                         unsigned long* pulContentVersion, signed char* pbCached,
                                         unsigned int /*dwClientProcessId*/) {
  HistoryLock lock(this == gHistoryTree);
  xklogLog(MSTORE_MODULE, 8, "CMemoryTree::IsCompartmentCached");
  HRESULT hr = S_OK;
  if (pbCached == NULL) {
    xklogLog(MSTORE_MODULE, 1, "CMemoryTree::IsCompartmentCached pbCached == NULL");
    hr = E_FAIL;
  } else if (pulCompartmentVersion == NULL) {
    xklogLog(MSTORE_MODULE, 1, "CMemoryTree::IsCompartmentCached pulCompartmentVersion == NULL");
    hr = E_FAIL;
  } else if (pulContentVersion == NULL) {
    xklogLog(MSTORE_MODULE, 1, "CMemoryTree::IsCompartmentCached pulContentVersion == NULL");
    hr = E_FAIL;
  } else {
    const signed char bCached = Find(sCompartmentId) != m_cFullPathNodeList.end() ? 1 : 0;
    SecureString sHistoryKey;
    if (this == gHistoryTree) {
      sHistoryKey = sCompartmentId;
    } else {
      sHistoryKey.reserve(m_sTreeId.size() + 1 + sCompartmentId.size());
      sHistoryKey = m_sTreeId;
      if (sCompartmentId != "/") {
        sHistoryKey += kSeparator;
        sHistoryKey += sCompartmentId;
      }
    }
    unsigned long ulCompartmentVersion = 0;
    unsigned long ulContentVersion = 0;
    hr = GetVersion(sHistoryKey, &ulCompartmentVersion, &ulContentVersion);
    if (FAILED(hr)) {
      xklogLog(MSTORE_MODULE, 1, "CMemoryTree::IsCompartmentCached GetVersion failed hr = %x", hr);
    } else {
      *pulCompartmentVersion = ulCompartmentVersion;
      *pulContentVersion = ulContentVersion;
      *pbCached = bCached;
    }
  }
  xklogLog(MSTORE_MODULE, 16, "CMemoryTree::IsCompartmentCached hr = 0x%x", hr);
  return hr;
}

HRESULT CMemoryTree::ListDataIds(const SecureString& sCompartmentId, SAFEARRAY** ppsaDataIdList,
                                 unsigned int /*dwClientProcessId*/) {
  HistoryLock lock(this == gHistoryTree);
  xklogLog(MSTORE_MODULE, 8, "CMemoryTree::ListDataIds");
  HRESULT hr = S_OK;
  if (ppsaDataIdList == NULL) {
    xklogLog(MSTORE_MODULE, 1, "CMemoryTree::ListDataIds ppsaDataIdList == NULL");
    hr = E_FAIL;
  } else {
    // The first key of the subtree in map order: the compartment itself.
    const NodeMap::iterator first = FirstOfSubtree(sCompartmentId);
    if (first == m_cFullPathNodeList.end()) {
      xklogLog(MSTORE_MODULE, 1, "CMemoryTree::ListDataIds no data ids found");
      hr = E_FAIL;
    } else {
      std::vector<SecureString> dataIds;
      first->second->ListDataItems(dataIds);
      SAFEARRAY* psa = SafeArrayCreateVector(VT_BSTR, 0, dataIds.size());
      *ppsaDataIdList = psa;
      for (int i = 0; i < static_cast<int>(dataIds.size()); ++i) {
        BSTR bstrId = NULL;
        hr = wstring2BSTR(dataIds[i], bstrId);
        if (FAILED(hr)) {
          xklogLog(MSTORE_MODULE, 1, "CMemoryTree::ListDataIds wstring2BSTR failed");
          continue;
        }
        SafeArrayPutElement(psa, &i, bstrId);
        qxSysFreeString(bstrId, 0);
      }
    }
  }
  xklogLog(MSTORE_MODULE, 16, "CMemoryTree::ListDataIds hr = 0x%x", hr);
  return hr;
}

// Puts ids at indices 0, 1, ... of psa; stops at the first failed conversion or
// put, logged under sOperation's name. Answers the last put's result.
HRESULT CMemoryTree::PutIdentifiers(SAFEARRAY* psa, const std::vector<SecureString>& ids, const char* sOperation) {
  HRESULT hr = S_OK;
  for (int i = 0; i < static_cast<int>(ids.size()); ++i) {
    BSTR bstrId = NULL;
    hr = wstring2BSTR(ids[i], bstrId);
    if (FAILED(hr)) {
      xklogLog(MSTORE_MODULE, 1, "CMemoryTree::%s wstring2BSTR failed", sOperation);
      return hr;
    }
    hr = SafeArrayPutElement(psa, &i, bstrId);
    qxSysFreeString(bstrId, 0);
    if (FAILED(hr)) {
      xklogLog(MSTORE_MODULE, 1, "CMemoryTree::%s SafeArrayPutElement failed", sOperation);
      return hr;
    }
  }
  return hr;
}

HRESULT CMemoryTree::ListCompartmentIds(const SecureString& sCompartmentId, SAFEARRAY** ppsCompartmentIdList,
                                        unsigned int /*dwClientProcessId*/) {
  HistoryLock lock(this == gHistoryTree);
  xklogLog(MSTORE_MODULE, 8, "CMemoryTree::ListCompartmentIds");
  HRESULT hr = S_OK;
  if (ppsCompartmentIdList == NULL) {
    xklogLog(MSTORE_MODULE, 1, "CMemoryTree::ListCompartmentIds ppsCompartmentIdList == NULL");
    hr = E_FAIL;
  } else {
    xklogLog(MSTORE_MODULE, 0, "CMemoryTree::ListCompartmentIds sFullPathNodeList.size() = %d",
             static_cast<int>(m_cFullPathNodeList.size()));
    // "/" lists the sessions whole; any other id the last components of its children.
    const std::vector<SecureString> ids = sCompartmentId == "/" ? Sessions() : Children(sCompartmentId);
    xklogLog(MSTORE_MODULE, 2, "CMemoryTree::ListCompartmentIds ulNbCompartmentFound = %d",
             static_cast<int>(ids.size()));
    if (!ids.empty()) {
      SAFEARRAY* psa = SafeArrayCreateVector(VT_BSTR, 0, ids.size());
      *ppsCompartmentIdList = psa;
      hr = PutIdentifiers(psa, ids, "ListCompartmentIds");
    }
  }
  xklogLog(MSTORE_MODULE, 16, "CMemoryTree::ListCompartmentIds hr = 0x%x", hr);
  return hr;
}

HRESULT CMemoryTree::ListAllCompartmentIds(SAFEARRAY** ppsAllCompartmentIdList) {
  HistoryLock lock(this == gHistoryTree);
  xklogLog(MSTORE_MODULE, 8, "CMemoryTree::ListAllCompartmentIds");
  HRESULT hr = S_OK;
  if (ppsAllCompartmentIdList == NULL) {
    xklogLog(MSTORE_MODULE, 1, "CMemoryTree::ListAllCompartmentIds ppsAllCompartmentIdList == NULL");
    hr = E_FAIL;
  } else {
    std::vector<SecureString> fullPaths;
    fullPaths.reserve(m_cFullPathNodeList.size());
    for (const auto& entry : m_cFullPathNodeList) fullPaths.push_back(entry.first);
    SAFEARRAY* psa = SafeArrayCreateVector(VT_BSTR, 0, fullPaths.size());
    *ppsAllCompartmentIdList = psa;
    hr = PutIdentifiers(psa, fullPaths, "ListAllCompartmentIds");
  }
  xklogLog(MSTORE_MODULE, 16, "CMemoryTree::ListAllCompartmentIds hr = 0x%x", hr);
  return hr;
}
