#ifndef MERROWSTORE_TREES_ABSTRACTTREE_H
#define MERROWSTORE_TREES_ABSTRACTTREE_H

#include <list>

#include "merrowstore/export.h"
#include "xk/hresult.h"
#include "xk/oleauto.h"
#include "xk/secure_types.h"

// The storage contract every tree obeys. A tree stores SAFEARRAY values under
// a compartment path ("/"-separated, first component the session, "/" alone
// the root) and a data id. Every operation returns a result code: 0 for
// success, E_INVALIDARG for a compartment or data item that is not there,
// E_FAIL for a refused argument or a failed dependency. The trailing
// dwClientProcessId is the calling process as the store knows it; no tree
// decides anything by it. No tree takes a lock: the owning store serialises
// calls.
class MERROWSTORE_EXPORT CAbstractTree {
 public:
  CAbstractTree();
  virtual ~CAbstractTree();

  virtual HRESULT GetTreeId(SecureString& sTreeId) = 0;
  // Deep-copies psaDataValue; the caller keeps its own array.
  virtual HRESULT SetData(const SecureString& sCompartmentId, const SecureString& sDataId, SAFEARRAY* psaDataValue,
                          unsigned int dwClientProcessId, signed char bEncrypted) = 0;
  // On success psaDataValue receives a deep copy that the caller destroys.
  virtual HRESULT GetData(const SecureString& sCompartmentId, const SecureString& sDataId, SAFEARRAY*& psaDataValue,
                          unsigned int dwClientProcessId) = 0;
  virtual HRESULT RemoveData(const SecureString& sCompartmentId, const SecureString& sDataId,
                             unsigned int dwClientProcessId) = 0;
  virtual HRESULT CreateCompartment(const SecureString& sCompartmentId, unsigned int dwClientProcessId) = 0;
  virtual HRESULT RemoveCompartment(const SecureString& sCompartmentId, signed char bUpdateVersions,
                                    unsigned int dwClientProcessId) = 0;
  virtual HRESULT FlushTree(unsigned int dwClientProcessId) = 0;
  virtual HRESULT IsDataCached(const SecureString& sCompartmentId, const SecureString& sDataId, signed char* pbCached,
                               unsigned int dwClientProcessId) = 0;
  // On success *ppsaDataIdList receives a VT_BSTR vector that the caller destroys.
  virtual HRESULT ListDataIds(const SecureString& sCompartmentId, SAFEARRAY** ppsaDataIdList,
                              unsigned int dwClientProcessId) = 0;
  virtual HRESULT ListCompartmentIds(const SecureString& sCompartmentId, SAFEARRAY** ppsCompartmentIdList,
                                     unsigned int dwClientProcessId) = 0;
  virtual HRESULT IsCompartmentCached(const SecureString& sCompartmentId, unsigned long* pulCompartmentVersion,
                                      unsigned long* pulContentVersion, signed char* pbCached,
                                      unsigned int dwClientProcessId) = 0;
  virtual HRESULT ListAllCompartmentIds(SAFEARRAY** ppsAllCompartmentIdList) = 0;

  // Session lookup and move, written in terms of the operations above, so they
  // work on any tree. They pass 0 as the process to the operations they call.
  HRESULT FindSessionId(const SecureString& sSessionId, const SecureString& sSubCompartmentId,
                        SecureString& sSessionIdFound);
  HRESULT GetSessionIdList(std::list<SecureString>& sessionIdList);
  HRESULT FindCompartmentId(const SecureString& sSessionId, const SecureString& sSubCompartmentId,
                            SecureString& sCompartmentIdFound, bool& bFound);
  HRESULT MoveCompartmentIds(const SecureString& sCompartmentId0, const SecureString& sCompartmentId1,
                             bool bRemoveSource);
};

#endif
