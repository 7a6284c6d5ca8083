#ifndef MERROWSTORE_COMMON_STOREIDLIST_H
#define MERROWSTORE_COMMON_STOREIDLIST_H

#include "common/FctUtils.h"
#include "common/Module.h"
#include "xk/log.h"
#include "xk/oleauto.h"

// The ids of a store map (data stores or PIN stores), in the map's order, as a
// new VT_BSTR vector written to *ppsaStoreIds; both clients list their stores
// this way. A NULL ppsaStoreIds creates nothing and gives S_OK. An id that
// cannot be converted or put is logged under sCaller's name and skipped; each
// id overwrites the code, so only the last id's outcome is returned.
template <typename StoreMap>
HRESULT ListStoreIds(const StoreMap& stores, const char* sCaller, SAFEARRAY** ppsaStoreIds) {
  HRESULT hr = S_OK;
  if (ppsaStoreIds == NULL) return hr;
  SAFEARRAY* psaStoreIds = SafeArrayCreateVector(VT_BSTR, 0, stores.size());
  *ppsaStoreIds = psaStoreIds;
  int index = 0;
  for (const auto& entry : stores) {
    BSTR bstrStoreId = NULL;
    hr = wstring2BSTR(entry.first, bstrStoreId);
    if (FAILED(hr)) {
      xklogLog(MSTORE_MODULE, 1, "%s wstring2BSTR failed", sCaller);
      continue;
    }
    hr = SafeArrayPutElement(psaStoreIds, &index, bstrStoreId);
    if (FAILED(hr))
      xklogLog(MSTORE_MODULE, 1, "%s SafeArrayPutElement failed", sCaller);
    else
      ++index;
    qxSysFreeString(bstrStoreId, 0);
  }
  return hr;
}

#endif
