#ifndef MERROWSTORE_TREES_DUPLICATEREGISTRYTREE_H
#define MERROWSTORE_TREES_DUPLICATEREGISTRYTREE_H

#include "merrowstore/export.h"
#include "trees/AbstractTree.h"
#include "xk/hresult.h"
#include "xk/oleauto.h"
#include "xk/secure_types.h"

// Two registry trees of one id, the second built with its (unused) duplicate
// flag set, so both work on the same registry key. Everything goes to the
// first tree alone, except the three removals (RemoveData, RemoveCompartment,
// FlushTree), which run on the second tree too once the first succeeded. The
// second tree's result is logged at the detail level
// ("CDuplicateRegistryTree::<operation> hr1 = 0x%x") and returned, except
// that exactly E_INVALIDARG (nothing left to remove, the first tree having
// just removed it) gives the first tree's result instead. A flush therefore
// reports E_FAIL although it worked: the second flush finds no tree key.
// Nothing in the library builds this tree. Takes no lock: the owner
// serialises calls.
class MERROWSTORE_EXPORT CDuplicateRegistryTree : public CAbstractTree {
 public:
  // Makes CRegistryTree(sTreeId, 0) and CRegistryTree(sTreeId, 1).
  explicit CDuplicateRegistryTree(const SecureString& sTreeId);
  // Deletes both inner trees.
  ~CDuplicateRegistryTree() override;
  CDuplicateRegistryTree(const CDuplicateRegistryTree&) = delete;
  CDuplicateRegistryTree& operator=(const CDuplicateRegistryTree&) = delete;

  // Copies the tree id out; always S_OK.
  HRESULT GetTreeId(SecureString& sTreeId) override;
  // The first tree alone, with 0 for the process and for bEncrypted.
  HRESULT SetData(const SecureString& sCompartmentId, const SecureString& sDataId, SAFEARRAY* psaDataValue,
                  unsigned int dwClientProcessId, signed char bEncrypted) override;
  HRESULT GetData(const SecureString& sCompartmentId, const SecureString& sDataId, SAFEARRAY*& psaDataValue,
                  unsigned int dwClientProcessId) override;
  // First tree with process 0, then the second with dwClientProcessId.
  HRESULT RemoveData(const SecureString& sCompartmentId, const SecureString& sDataId,
                     unsigned int dwClientProcessId) override;
  HRESULT CreateCompartment(const SecureString& sCompartmentId, unsigned int dwClientProcessId) override;
  // The first tree removes with version updates, the second without, so the
  // counters rise once; bUpdateVersions is not looked at.
  HRESULT RemoveCompartment(const SecureString& sCompartmentId, signed char bUpdateVersions,
                            unsigned int dwClientProcessId) override;
  HRESULT FlushTree(unsigned int dwClientProcessId) override;
  HRESULT IsDataCached(const SecureString& sCompartmentId, const SecureString& sDataId, signed char* pbCached,
                       unsigned int dwClientProcessId) override;
  HRESULT ListDataIds(const SecureString& sCompartmentId, SAFEARRAY** ppsaDataIdList,
                      unsigned int dwClientProcessId) override;
  HRESULT ListCompartmentIds(const SecureString& sCompartmentId, SAFEARRAY** ppsCompartmentIdList,
                             unsigned int dwClientProcessId) override;
  HRESULT IsCompartmentCached(const SecureString& sCompartmentId, unsigned long* pulCompartmentVersion,
                              unsigned long* pulContentVersion, signed char* pbCached,
                              unsigned int dwClientProcessId) override;
  HRESULT ListAllCompartmentIds(SAFEARRAY** ppsAllCompartmentIdList) override;

 private:
  CAbstractTree* m_pTree1;  // answers everything
  CAbstractTree* m_pTree2;  // repeats the removals
  SecureString m_sTreeId;
};

#endif
