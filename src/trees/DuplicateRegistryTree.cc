#include "trees/DuplicateRegistryTree.h"

#include "common/Module.h"
#include "trees/RegistryTree.h"
#include "xk/log.h"

namespace {

// An operation of the first tree alone, between its entry and exit traces.
template <typename Call>
HRESULT FirstOnly(const char* sOperation, Call call) {
  xklogLog(MSTORE_MODULE, 8, "CDuplicateRegistryTree::%s", sOperation);
  const HRESULT hr = call();
  xklogLog(MSTORE_MODULE, 16, "CDuplicateRegistryTree::%s hr = 0x%x", sOperation, static_cast<unsigned int>(hr));
  return hr;
}

// A removal: the first tree, then, if it succeeded, the second. The second
// tree's result wins unless it is exactly E_INVALIDARG, the answer of a
// registry tree that finds nothing left to remove.
template <typename First, typename Second>
HRESULT RemoveFromBoth(const char* sOperation, First first, Second second) {
  xklogLog(MSTORE_MODULE, 8, "CDuplicateRegistryTree::%s", sOperation);
  HRESULT hr = first();
  if (SUCCEEDED(hr)) {
    const HRESULT hr1 = second();
    xklogLog(MSTORE_MODULE, 2, "CDuplicateRegistryTree::%s hr1 = 0x%x", sOperation, static_cast<unsigned int>(hr1));
    if (hr1 != E_INVALIDARG) hr = hr1;
  }
  xklogLog(MSTORE_MODULE, 16, "CDuplicateRegistryTree::%s hr = 0x%x", sOperation, static_cast<unsigned int>(hr));
  return hr;
}

}  // namespace

CDuplicateRegistryTree::CDuplicateRegistryTree(const SecureString& sTreeId)
    : m_pTree1(new CRegistryTree(sTreeId, 0)), m_pTree2(new CRegistryTree(sTreeId, 1)), m_sTreeId(sTreeId) {
  xklogLog(MSTORE_MODULE, 0, "CDuplicateRegistryTree::CDuplicateRegistryTree sTreeId = %s", m_sTreeId.c_str());
}

CDuplicateRegistryTree::~CDuplicateRegistryTree() {
  xklogLog(MSTORE_MODULE, 0, "CDuplicateRegistryTree::~CDuplicateRegistryTree");
  delete m_pTree1;
  m_pTree1 = NULL;
  delete m_pTree2;
  m_pTree2 = NULL;
}

HRESULT CDuplicateRegistryTree::GetTreeId(SecureString& sTreeId) {
  return FirstOnly("GetTreeId", [&] {
    sTreeId = m_sTreeId;
    return S_OK;
  });
}

HRESULT CDuplicateRegistryTree::SetData(const SecureString& sCompartmentId, const SecureString& sDataId,
                                        SAFEARRAY* psaDataValue, unsigned int /*dwClientProcessId*/,
                                        signed char /*bEncrypted*/) {
  return FirstOnly("SetData", [&] { return m_pTree1->SetData(sCompartmentId, sDataId, psaDataValue, 0, 0); });
}

HRESULT CDuplicateRegistryTree::GetData(const SecureString& sCompartmentId, const SecureString& sDataId,
                                        SAFEARRAY*& psaDataValue, unsigned int /*dwClientProcessId*/) {
  return FirstOnly("GetData", [&] { return m_pTree1->GetData(sCompartmentId, sDataId, psaDataValue, 0); });
}

HRESULT CDuplicateRegistryTree::RemoveData(const SecureString& sCompartmentId, const SecureString& sDataId,
                                           unsigned int dwClientProcessId) {
  return RemoveFromBoth(
      "RemoveData", [&] { return m_pTree1->RemoveData(sCompartmentId, sDataId, 0); },
      [&] { return m_pTree2->RemoveData(sCompartmentId, sDataId, dwClientProcessId); });
}

HRESULT CDuplicateRegistryTree::CreateCompartment(const SecureString& sCompartmentId,
                                                  unsigned int dwClientProcessId) {
  return FirstOnly("CreateCompartment",
                   [&] { return m_pTree1->CreateCompartment(sCompartmentId, dwClientProcessId); });
}

HRESULT CDuplicateRegistryTree::RemoveCompartment(const SecureString& sCompartmentId,
                                                  signed char /*bUpdateVersions*/, unsigned int dwClientProcessId) {
  return RemoveFromBoth(
      "RemoveCompartment", [&] { return m_pTree1->RemoveCompartment(sCompartmentId, 1, 0); },
      [&] { return m_pTree2->RemoveCompartment(sCompartmentId, 0, dwClientProcessId); });
}

HRESULT CDuplicateRegistryTree::FlushTree(unsigned int dwClientProcessId) {
  return RemoveFromBoth(
      "FlushTree", [&] { return m_pTree1->FlushTree(0); }, [&] { return m_pTree2->FlushTree(dwClientProcessId); });
}

HRESULT CDuplicateRegistryTree::IsDataCached(const SecureString& sCompartmentId, const SecureString& sDataId,
                                             signed char* pbCached, unsigned int /*dwClientProcessId*/) {
  return FirstOnly("IsDataCached", [&] { return m_pTree1->IsDataCached(sCompartmentId, sDataId, pbCached, 0); });
}

HRESULT CDuplicateRegistryTree::ListDataIds(const SecureString& sCompartmentId, SAFEARRAY** ppsaDataIdList,
                                            unsigned int /*dwClientProcessId*/) {
  return FirstOnly("ListDataIds", [&] { return m_pTree1->ListDataIds(sCompartmentId, ppsaDataIdList, 0); });
}

HRESULT CDuplicateRegistryTree::ListCompartmentIds(const SecureString& sCompartmentId,
                                                   SAFEARRAY** ppsCompartmentIdList,
                                                   unsigned int /*dwClientProcessId*/) {
  return FirstOnly("ListCompartmentIds",
                   [&] { return m_pTree1->ListCompartmentIds(sCompartmentId, ppsCompartmentIdList, 0); });
}

HRESULT CDuplicateRegistryTree::IsCompartmentCached(const SecureString& sCompartmentId,
                                                    unsigned long* pulCompartmentVersion,
                                                    unsigned long* pulContentVersion, signed char* pbCached,
                                                    unsigned int /*dwClientProcessId*/) {
  return FirstOnly("IsCompartmentCached", [&] {
    return m_pTree1->IsCompartmentCached(sCompartmentId, pulCompartmentVersion, pulContentVersion, pbCached, 0);
  });
}

HRESULT CDuplicateRegistryTree::ListAllCompartmentIds(SAFEARRAY** ppsAllCompartmentIdList) {
  return FirstOnly("ListAllCompartmentIds", [&] { return m_pTree1->ListAllCompartmentIds(ppsAllCompartmentIdList); });
}
