#include "trees/VersionHistory.h"

#include <type_traits>

#include "common/Module.h"
#include "xk/log.h"

CAbstractTree* gHistoryTree = NULL;

// Made while the library loads, before any constructor runs, and never torn
// down (a pthread mutex needs no destruction), so it stays usable while other
// static objects are destroyed.
constinit xk::ReentrantMutex gHistoryMutex;
static_assert(std::is_trivially_destructible_v<xk::ReentrantMutex>, "the history lock must outlive every static object");

namespace {

// The two data ids, made once, since every version read and update names one
// of them and "CompartmentVersion" is too long to fit in a string without a
// heap block. Never destroyed, like the lock below.
const SecureString& CompartmentVersionId() {
  static const SecureString* const id = new SecureString("CompartmentVersion");
  return *id;
}

const SecureString& ContentVersionId() {
  static const SecureString* const id = new SecureString("ContentVersion");
  return *id;
}

// The steps of UpdateVersion; the caller holds the history lock.
HRESULT RaiseVersion(const SecureString& sCompartmentIdGlobal, int nVersionKind) {
  HRESULT hr = S_OK;
  unsigned int ulVersion = 1;
  int index = 0;
  SAFEARRAY* psaOld = NULL;
  SAFEARRAY* psaNew = NULL;

  if (gHistoryTree == NULL) {
    xklogLog(MSTORE_MODULE, 1, "UpdateVersion NULL == gHistoryTree");
    return E_FAIL;
  }
  const SecureString& sDataId = nVersionKind != 0 ? ContentVersionId() : CompartmentVersionId();

  // Only an exact success is read; any other answer restarts the counter at 1.
  hr = gHistoryTree->GetData(sCompartmentIdGlobal, sDataId, psaOld, 0);
  if (hr == S_OK) {
    hr = SafeArrayGetElement(psaOld, &index, &ulVersion);
    if (FAILED(hr)) {
      xklogLog(MSTORE_MODULE, 1, "UpdateVersion SafeArrayGetElement failed");
      goto cleanup;
    }
    ++ulVersion;
  }

  psaNew = SafeArrayCreateVector(VT_UINT, 0, 1);
  if (psaNew == NULL) {
    xklogLog(MSTORE_MODULE, 1, "UpdateVersion SafeArrayCreateVector failed");
    goto cleanup;
  }
  SafeArrayPutElement(psaNew, &index, &ulVersion);
  hr = gHistoryTree->SetData(sCompartmentIdGlobal, sDataId, psaNew, 0, 0);
  if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "UpdateVersion SetData failed");

cleanup:
  // Each destruction's result replaces the result so far: a failed write above
  // is logged and then lost to the caller.
  if (psaOld != NULL) {
    hr = qxSafeArrayDestroy(psaOld, 0);
    if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "UpdateVersion qxSafeArrayDestroy failed");
  }
  if (psaNew != NULL) {
    hr = qxSafeArrayDestroy(psaNew, 0);
    if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "UpdateVersion qxSafeArrayDestroy failed");
  }
  return hr;
}

// UpdateVersion for a caller that holds the history lock already: its texts
// and its steps, without taking the lock again.
HRESULT UpdateVersionHeld(const SecureString& sCompartmentIdGlobal, int nVersionKind) {
  xklogLog(MSTORE_MODULE, 8, "UpdateVersion");
  HRESULT hr = RaiseVersion(sCompartmentIdGlobal, nVersionKind);
  xklogLog(MSTORE_MODULE, 16, "UpdateVersion hr = 0x%x", hr);
  return hr;
}

// The steps of UpdateHistoryTree; the caller holds the history lock.
HRESULT RaiseVersionsAlongPath(const SecureString& sCompartmentIdGlobal, int nVersionKind) {
  HRESULT hr = S_OK;
  // The prefixes of the components that split would give, joined again by
  // "/", are the text before each "/" and then the whole path; empty
  // components are kept the same way.
  // The last prefix is the path itself, taken as it is.
  SecureString sPrefix;
  SecureString::size_type start = 0;
  for (;;) {
    const SecureString::size_type end = sCompartmentIdGlobal.find('/', start);
    const bool bLast = end == SecureString::npos;
    if (!bLast) sPrefix.assign(sCompartmentIdGlobal, 0, end);
    const SecureString& sLevel = bLast ? sCompartmentIdGlobal : sPrefix;
    for (int nKind : {0, 1}) {
      if (nVersionKind != -1 && nVersionKind != nKind) continue;
      hr = UpdateVersionHeld(sLevel, nKind);
      if (FAILED(hr)) {
        xklogLog(MSTORE_MODULE, 1, "UpdateHistoryTree UpdateVersion failed");
        return hr;
      }
    }
    if (bLast) return hr;
    start = end + 1;
  }
}

// Destroys both arrays, first then second; a failed destruction is logged and
// the whole step starts again until every destruction succeeds.
HRESULT DestroyVersionArrays(SAFEARRAY*& psaCompartment, SAFEARRAY*& psaContent, HRESULT hr) {
  for (;;) {
    if (psaCompartment != NULL) {
      hr = qxSafeArrayDestroy(psaCompartment, 0);
      if (FAILED(hr)) {
        xklogLog(MSTORE_MODULE, 1, "GetVersion qxSafeArrayDestroy failed");
        continue;
      }
      psaCompartment = NULL;
    }
    if (psaContent != NULL) {
      hr = qxSafeArrayDestroy(psaContent, 0);
      if (FAILED(hr)) {
        xklogLog(MSTORE_MODULE, 1, "GetVersion qxSafeArrayDestroy failed");
        continue;
      }
      psaContent = NULL;
    }
    return hr;
  }
}

// The steps of GetVersion up to the destruction of the arrays it read.
HRESULT ReadVersions(const SecureString& sCompartmentIdGlobal, unsigned long* pulCompartmentVersion,
                     unsigned int& ulCompartmentVersion, unsigned int& ulContentVersion,
                     SAFEARRAY*& psaCompartment, SAFEARRAY*& psaContent) {
  HRESULT hr = S_OK;
  int index = 0;
  if (gHistoryTree == NULL) {
    xklogLog(MSTORE_MODULE, 1, "GetVersion NULL == gHistoryTree");
    return E_FAIL;
  }
  if (pulCompartmentVersion == NULL) {
    xklogLog(MSTORE_MODULE, 1, "GetVersion NULL == pulCompartmentVersion");
    return E_FAIL;
  }
  // Only an exact success of the first lookup is read; any other answer is ignored.
  if (gHistoryTree->GetData(sCompartmentIdGlobal, CompartmentVersionId(), psaCompartment, 0) == S_OK) {
    hr = SafeArrayGetElement(psaCompartment, &index, &ulCompartmentVersion);
    if (FAILED(hr)) {
      xklogLog(MSTORE_MODULE, 1, "GetVersion SafeArrayGetElement failed");
      return hr;
    }
  }
  // An absent content counter reads as 0; any other failed lookup is the result.
  hr = gHistoryTree->GetData(sCompartmentIdGlobal, ContentVersionId(), psaContent, 0);
  if (hr == E_INVALIDARG) return S_OK;
  if (hr != S_OK) return hr;
  hr = SafeArrayGetElement(psaContent, &index, &ulContentVersion);
  if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "GetVersion SafeArrayGetElement failed");
  return hr;
}

}  // namespace

HRESULT UpdateVersion(const SecureString& sCompartmentIdGlobal, int nVersionKind) {
  HistoryLock lock;
  return UpdateVersionHeld(sCompartmentIdGlobal, nVersionKind);
}

HRESULT UpdateHistoryTree(const SecureString& sCompartmentIdGlobal, int nVersionKind) {
  HistoryLock lock;
  xklogLog(MSTORE_MODULE, 8, "UpdateHistoryTree");
  HRESULT hr = RaiseVersionsAlongPath(sCompartmentIdGlobal, nVersionKind);
  xklogLog(MSTORE_MODULE, 16, "UpdateHistoryTree hr = 0x%x", hr);
  return hr;
}

HRESULT GetVersion(const SecureString& sCompartmentIdGlobal, unsigned long* pulCompartmentVersion,
                   unsigned long* pulContentVersion) {
  HistoryLock lock;
  xklogLog(MSTORE_MODULE, 8, "GetVersion");
  unsigned int ulCompartmentVersion = 0;
  unsigned int ulContentVersion = 0;
  SAFEARRAY* psaCompartment = NULL;
  SAFEARRAY* psaContent = NULL;
  HRESULT hr = ReadVersions(sCompartmentIdGlobal, pulCompartmentVersion, ulCompartmentVersion, ulContentVersion,
                            psaCompartment, psaContent);
  hr = DestroyVersionArrays(psaCompartment, psaContent, hr);
  // Written even after a failure; the content output may be NULL.
  if (pulCompartmentVersion != NULL) *pulCompartmentVersion = ulCompartmentVersion;
  if (pulContentVersion != NULL) *pulContentVersion = ulContentVersion;
  xklogLog(MSTORE_MODULE, 16, "GetVersion hr = 0x%x", hr);
  return hr;
}
