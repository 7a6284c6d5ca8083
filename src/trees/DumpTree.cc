#include "trees/DumpTree.h"

#include "common/Module.h"
#include "trees/MemoryTree.h"
#include "trees/RegistryTree.h"
#include "xk/log.h"

namespace {

// Runs call(tree) on the memory tree and, when that succeeded, on the
// registry tree; logs the mirror's result and returns the memory tree's.
template <typename Call>
HRESULT Mirror(const char* sOperation, CAbstractTree* pTree1, CAbstractTree* pTree2, Call call) {
  xklogLog(MSTORE_MODULE, 8, "CDumpTree::%s", sOperation);
  const HRESULT hr = call(pTree1);
  if (SUCCEEDED(hr)) {
    const HRESULT hr1 = call(pTree2);
    xklogLog(MSTORE_MODULE, 2, "CDumpTree::%s hr1 = 0x%x", sOperation, static_cast<unsigned int>(hr1));
  }
  xklogLog(MSTORE_MODULE, 16, "CDumpTree::%s hr = 0x%x", sOperation, static_cast<unsigned int>(hr));
  return hr;
}

// One array output shared by both trees. The memory tree writes the caller's
// variable; the registry tree writes a stand-in holding the same pointer, and
// whatever it wrote there replaces the memory tree's answer. An array the
// memory tree made and the registry replaced is released here rather than
// lost; the caller's own pointer is never released.
class SharedOutput {
 public:
  explicit SharedOutput(SAFEARRAY** ppsa) : m_ppsa(ppsa), m_psaCallers(ppsa != NULL ? *ppsa : NULL) {}

  // The output to hand to `pTree`, or NULL when the caller gave none.
  SAFEARRAY** For(CAbstractTree* pTree, CAbstractTree* pMirror) {
    if (m_ppsa == NULL) return NULL;
    if (pTree != pMirror) return m_ppsa;
    m_psaMirror = *m_ppsa;
    return &m_psaMirror;
  }
  // After the mirror's call.
  void Settle() {
    if (m_ppsa == NULL || m_psaMirror == *m_ppsa) return;
    if (*m_ppsa != m_psaCallers && *m_ppsa != NULL) qxSafeArrayDestroy(*m_ppsa, 0);
    *m_ppsa = m_psaMirror;
  }

 private:
  SAFEARRAY** m_ppsa;
  SAFEARRAY* m_psaCallers;
  SAFEARRAY* m_psaMirror = NULL;
};

}  // namespace

CDumpTree::CDumpTree(const SecureString& sTreeId)
    : m_pTree1(new CMemoryTree(sTreeId)), m_pTree2(new CRegistryTree(sTreeId, 0)), m_sTreeId(sTreeId) {
  xklogLog(MSTORE_MODULE, 0, "CDumpTree::CDumpTree sTreeId = %s", m_sTreeId.c_str());
}

CDumpTree::~CDumpTree() {
  xklogLog(MSTORE_MODULE, 0, "CDumpTree::~CDumpTree");
  delete m_pTree1;
  m_pTree1 = NULL;
  delete m_pTree2;
  m_pTree2 = NULL;
}

HRESULT CDumpTree::GetTreeId(SecureString& sTreeId) {
  xklogLog(MSTORE_MODULE, 8, "CDumpTree::GetTreeId");
  sTreeId = m_sTreeId;
  xklogLog(MSTORE_MODULE, 16, "CDumpTree::GetTreeId hr = 0x%x", S_OK);
  return S_OK;
}

HRESULT CDumpTree::SetData(const SecureString& sCompartmentId, const SecureString& sDataId, SAFEARRAY* psaDataValue,
                           unsigned int /*dwClientProcessId*/, signed char /*bEncrypted*/) {
  return Mirror("SetData", m_pTree1, m_pTree2,
                [&](CAbstractTree* pTree) { return pTree->SetData(sCompartmentId, sDataId, psaDataValue, 0, 0); });
}

HRESULT CDumpTree::GetData(const SecureString& sCompartmentId, const SecureString& sDataId, SAFEARRAY*& psaDataValue,
                           unsigned int /*dwClientProcessId*/) {
  SharedOutput out(&psaDataValue);
  return Mirror("GetData", m_pTree1, m_pTree2, [&](CAbstractTree* pTree) {
    const HRESULT hr = pTree->GetData(sCompartmentId, sDataId, *out.For(pTree, m_pTree2), 0);
    if (pTree == m_pTree2) out.Settle();
    return hr;
  });
}

HRESULT CDumpTree::RemoveData(const SecureString& sCompartmentId, const SecureString& sDataId,
                              unsigned int /*dwClientProcessId*/) {
  return Mirror("RemoveData", m_pTree1, m_pTree2,
                [&](CAbstractTree* pTree) { return pTree->RemoveData(sCompartmentId, sDataId, 0); });
}

HRESULT CDumpTree::CreateCompartment(const SecureString& sCompartmentId, unsigned int dwClientProcessId) {
  return Mirror("CreateCompartment", m_pTree1, m_pTree2,
                [&](CAbstractTree* pTree) { return pTree->CreateCompartment(sCompartmentId, dwClientProcessId); });
}

HRESULT CDumpTree::RemoveCompartment(const SecureString& sCompartmentId, signed char /*bUpdateVersions*/,
                                     unsigned int /*dwClientProcessId*/) {
  return Mirror("RemoveCompartment", m_pTree1, m_pTree2,
                [&](CAbstractTree* pTree) { return pTree->RemoveCompartment(sCompartmentId, 1, 0); });
}

HRESULT CDumpTree::FlushTree(unsigned int /*dwClientProcessId*/) {
  return Mirror("FlushTree", m_pTree1, m_pTree2, [&](CAbstractTree* pTree) { return pTree->FlushTree(0); });
}

HRESULT CDumpTree::IsDataCached(const SecureString& sCompartmentId, const SecureString& sDataId,
                                signed char* pbCached, unsigned int /*dwClientProcessId*/) {
  return Mirror("IsDataCached", m_pTree1, m_pTree2,
                [&](CAbstractTree* pTree) { return pTree->IsDataCached(sCompartmentId, sDataId, pbCached, 0); });
}

HRESULT CDumpTree::ListDataIds(const SecureString& sCompartmentId, SAFEARRAY** ppsaDataIdList,
                               unsigned int /*dwClientProcessId*/) {
  SharedOutput out(ppsaDataIdList);
  return Mirror("ListDataIds", m_pTree1, m_pTree2, [&](CAbstractTree* pTree) {
    const HRESULT hr = pTree->ListDataIds(sCompartmentId, out.For(pTree, m_pTree2), 0);
    if (pTree == m_pTree2) out.Settle();
    return hr;
  });
}

HRESULT CDumpTree::ListCompartmentIds(const SecureString& sCompartmentId, SAFEARRAY** ppsCompartmentIdList,
                                      unsigned int /*dwClientProcessId*/) {
  SharedOutput out(ppsCompartmentIdList);
  return Mirror("ListCompartmentIds", m_pTree1, m_pTree2, [&](CAbstractTree* pTree) {
    const HRESULT hr = pTree->ListCompartmentIds(sCompartmentId, out.For(pTree, m_pTree2), 0);
    if (pTree == m_pTree2) out.Settle();
    return hr;
  });
}

HRESULT CDumpTree::IsCompartmentCached(const SecureString& sCompartmentId, unsigned long* pulCompartmentVersion,
                                       unsigned long* pulContentVersion, signed char* pbCached,
                                       unsigned int /*dwClientProcessId*/) {
  return Mirror("IsCompartmentCached", m_pTree1, m_pTree2, [&](CAbstractTree* pTree) {
    return pTree->IsCompartmentCached(sCompartmentId, pulCompartmentVersion, pulContentVersion, pbCached, 0);
  });
}

HRESULT CDumpTree::ListAllCompartmentIds(SAFEARRAY** ppsAllCompartmentIdList) {
  SharedOutput out(ppsAllCompartmentIdList);
  return Mirror("ListAllCompartmentIds", m_pTree1, m_pTree2, [&](CAbstractTree* pTree) {
    const HRESULT hr = pTree->ListAllCompartmentIds(out.For(pTree, m_pTree2));
    if (pTree == m_pTree2) out.Settle();
    return hr;
  });
}
