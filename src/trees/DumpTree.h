#ifndef MERROWSTORE_TREES_DUMPTREE_H
#define MERROWSTORE_TREES_DUMPTREE_H

#include "merrowstore/export.h"
#include "trees/AbstractTree.h"
#include "xk/hresult.h"
#include "xk/oleauto.h"
#include "xk/secure_types.h"

// A memory tree that answers, with a registry tree of the same id beside it
// as a mirror. Every operation runs on the memory tree first; only when that
// succeeds does it run again, with the same arguments, on the registry tree,
// whose result is logged at the detail level ("CDumpTree::<operation> hr1 =
// 0x%x") and never returned: the caller always gets the memory tree's result.
//
// What each tree is passed is not all the caller gave: the process is always
// 0 (CreateCompartment excepted), SetData's bEncrypted is 0, and
// RemoveCompartment always asks for version updates.
//
// Outputs are shared. Where the registry tree writes an output, its answer
// replaces the memory tree's: GetData and the listings hand out the registry's
// array when the registry has one (the memory tree's array is then released).
// A failure of the memory tree leaves the registry untouched, so the two can
// drift apart; nothing repairs that. Nothing in the library builds this tree.
// Takes no lock: the owner serialises calls.
class MERROWSTORE_EXPORT CDumpTree : public CAbstractTree {
 public:
  // Makes CMemoryTree(sTreeId) and CRegistryTree(sTreeId, 0).
  explicit CDumpTree(const SecureString& sTreeId);
  // Deletes both inner trees.
  ~CDumpTree() override;
  CDumpTree(const CDumpTree&) = delete;
  CDumpTree& operator=(const CDumpTree&) = delete;

  // Copies the tree id out; always S_OK.
  HRESULT GetTreeId(SecureString& sTreeId) override;
  HRESULT SetData(const SecureString& sCompartmentId, const SecureString& sDataId, SAFEARRAY* psaDataValue,
                  unsigned int dwClientProcessId, signed char bEncrypted) override;
  HRESULT GetData(const SecureString& sCompartmentId, const SecureString& sDataId, SAFEARRAY*& psaDataValue,
                  unsigned int dwClientProcessId) override;
  HRESULT RemoveData(const SecureString& sCompartmentId, const SecureString& sDataId,
                     unsigned int dwClientProcessId) override;
  HRESULT CreateCompartment(const SecureString& sCompartmentId, unsigned int dwClientProcessId) override;
  // Both trees are asked to update versions, whatever bUpdateVersions says.
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
  CAbstractTree* m_pTree1;  // the memory tree, which answers
  CAbstractTree* m_pTree2;  // the registry tree, the mirror
  SecureString m_sTreeId;
};

#endif
