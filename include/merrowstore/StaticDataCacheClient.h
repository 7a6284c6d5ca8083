#ifndef MERROWSTORE_STATICDATACACHECLIENT_H
#define MERROWSTORE_STATICDATACACHECLIENT_H

#include "merrowstore/DataStoreType.h"
#include "merrowstore/export.h"
#include "xk/hresult.h"
#include "xk/oleauto.h"

namespace QX {
namespace DataStore {

// The exported face of the data stores. It holds no state: every member works
// on the store map of the library's data store registration, which is filled
// while the library loads and emptied when it unloads. Store, compartment and
// data ids and product names are narrow BSTRs; inputs stay the caller's, and
// every array or BSTR handed out becomes the caller's (SAFEARRAYs are
// destroyed with qxSafeArrayDestroy, BSTRs freed with qxSysFreeString).
//
// Result codes: S_OK; E_INVALIDARG for an empty or NULL identifier and for a
// data item or compartment the store does not have; E_FAIL for an unknown
// store id and every other failure. No member takes a lock of its own: each
// store serialises its own work, and the map is assumed not to change while
// clients run.
class MERROWSTORE_EXPORT CStaticDataCacheClient {
 public:
  CStaticDataCacheClient();
  virtual ~CStaticDataCacheClient();

  // Creates a store and enters it in the map. The product is converted first
  // (an empty product gives E_INVALIDARG), then the id. A known id gives E_FAIL
  // and keeps the existing store as it was; a store whose set-up fails is
  // destroyed, the map stays unchanged and the set-up's code is returned. Not
  // safe against concurrent client calls.
  static HRESULT RegisterDataStore(char* sStoreId, Type eType, signed char bEncrypted,
                                   signed char bSharedBetweenUserSessions, char* sProduct);

  // A new VT_BSTR vector of every store id in byte order, written to
  // *ppsaStoreIds. A NULL ppsaStoreIds gives S_OK and creates nothing. A failed
  // element is logged and skipped; the code returned is that of the last id.
  HRESULT ListDataStoreIds(tagSAFEARRAY** ppsaStoreIds);

  // The configuration of one store. Each output is optional and written only
  // when its pointer is not NULL, and only on success; *psProduct receives a
  // new BSTR.
  HRESULT GetDataStoreInfo(char* sStoreId, Type* pType, signed char* pbEncrypted,
                           signed char* pbSharedBetweenUserSessions, char** psProduct);

  // Flushes every store whose product equals sProduct byte for byte. An empty
  // product gives E_INVALIDARG and flushes nothing. The code returned is that
  // left by the last store examined, so an earlier failure is not reported.
  HRESULT FlushDataStores(char* sProduct);

  // The members below find the store sStoreId and forward to it with the
  // calling process 0. A store serves only if it was registered as shared
  // between user sessions; any other store refuses them with E_FAIL, except
  // RemoveCompartment and FlushStore.

  // Stores a deep copy of psaDataValue under the data id, creating the
  // compartment path as needed, and raises the content version of every level
  // of the path (both versions when the compartment is new).
  HRESULT SetData(char* sStoreId, char* sCompartmentId, char* sDataId, tagSAFEARRAY* psaDataValue);
  // A deep copy of the stored value in *ppsaDataValue. E_INVALIDARG when the
  // item is absent ("data not found", not a failure). With ppsaDataValue NULL
  // it only tests that the item exists.
  HRESULT GetData(char* sStoreId, char* sCompartmentId, char* sDataId, tagSAFEARRAY** ppsaDataValue);
  // Removes the item and raises the content versions along the path. An absent
  // item gives E_INVALIDARG and moves no version.
  HRESULT RemoveData(char* sStoreId, char* sCompartmentId, char* sDataId);
  // Creates the compartment and raises both versions along the path; an
  // existing compartment is left alone, versions included.
  HRESULT CreateCompartment(char* sStoreId, char* sCompartmentId);
  // Like CreateCompartment, but an existing compartment has both versions
  // raised all the same, so that readers who cache by version read again.
  HRESULT TouchCompartment(char* sStoreId, char* sCompartmentId);
  // Removes the compartment with its whole subtree. With bRemoveVersions its
  // version history is forgotten; without it both versions are raised. A store
  // that is not shared removes the compartment from every session instead.
  HRESULT RemoveCompartment(char* sStoreId, char* sCompartmentId, signed char bRemoveVersions);
  // Empties the store and forgets its version history.
  HRESULT FlushStore(char* sStoreId);
  // *pbCached (optional) receives 1 when the compartment holds the item, else
  // 0; it is cleared before the store is asked.
  HRESULT IsDataCached(char* sStoreId, char* sCompartmentId, char* sDataId, signed char* pbCached);
  // A new VT_BSTR vector of the compartment's data ids.
  HRESULT ListDataIds(char* sStoreId, char* sCompartmentId, tagSAFEARRAY** ppsaDataIdList);
  // A new VT_BSTR vector of the compartment's direct children ("/" lists the
  // top level); nothing is written when there is nothing to list.
  HRESULT ListCompartmentIds(char* sStoreId, char* sCompartmentId, tagSAFEARRAY** ppsCompartmentIdList);
  // Whether the compartment exists, with its two version counters (0 while it
  // has none). Each output is optional and cleared before the store is asked.
  HRESULT IsCompartmentCached(char* sStoreId, char* sCompartmentId, unsigned long* pulCompartmentVersion,
                              unsigned long* pulContentVersion, signed char* pbCached);
};

}  // namespace DataStore
}  // namespace QX

#endif
