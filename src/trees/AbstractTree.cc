#include "trees/AbstractTree.h"

#include <vector>

#include "common/FctUtils.h"
#include "common/Module.h"
#include "xk/log.h"

// The session id a caller passes when it doesn't know the session, and the
// answer of FindSessionId when no session holds the sub-compartment.
static const char kWildcardSession[] = "0";

namespace {

// The element count of a vector, as the index loops compare it.
int ElementCount(SAFEARRAY* psa) { return static_cast<int>(static_cast<unsigned int>(psa->rgsabound->cElements)); }

}  // namespace

CAbstractTree::CAbstractTree() { xklogLog(MSTORE_MODULE, 0, "CAbstractTree::CAbstractTree"); }

CAbstractTree::~CAbstractTree() { xklogLog(MSTORE_MODULE, 0, "CAbstractTree::~CAbstractTree"); }

HRESULT CAbstractTree::GetSessionIdList(std::list<SecureString>& sessionIdList) {
  xklogLog(MSTORE_MODULE, 8, "CAbstractTree::GetSessionIdList");
  sessionIdList.clear();
  SAFEARRAY* psaSessions = NULL;
  HRESULT hr = ListCompartmentIds(SecureString("/"), &psaSessions, 0);
  if (FAILED(hr) || psaSessions == NULL) {
    // An empty tree lands here too; it is a success with an empty list.
    xklogLog(MSTORE_MODULE, 1, "CAbstractTree::GetSessionIdList ListCompartmentIds failed");
    if (psaSessions != NULL) qxSafeArrayDestroy(psaSessions, 0);
    hr = S_OK;
  } else {
    const int count = ElementCount(psaSessions);
    for (int i = 0; i < count; ++i) {
      BSTR bstrElement = NULL;
      hr = SafeArrayGetElement(psaSessions, &i, &bstrElement);
      if (FAILED(hr)) {
        xklogLog(MSTORE_MODULE, 1, "CAbstractTree::GetSessionIdList SafeArrayGetElement failed");
        break;
      }
      SecureString sElement;
      hr = BSTR2wstring(bstrElement, sElement);
      if (FAILED(hr)) {
        xklogLog(MSTORE_MODULE, 1, "CAbstractTree::GetSessionIdList BSTR2wstring failed");
        qxSysFreeString(bstrElement, 0);
        break;
      }
      const std::vector<SecureString> components = split(sElement, L'/');
      if (!components.empty()) {
        bool bListed = false;
        for (const SecureString& sSession : sessionIdList)
          if (sSession == components[0]) bListed = true;
        if (!bListed) sessionIdList.push_back(components[0]);
      }
      qxSysFreeString(bstrElement, 0);
    }
    qxSafeArrayDestroy(psaSessions, 0);
  }
  xklogLog(MSTORE_MODULE, 16, "CAbstractTree::GetSessionIdList hr = 0x%x", hr);
  return hr;
}

HRESULT CAbstractTree::FindCompartmentId(const SecureString& sSessionId, const SecureString& sSubCompartmentId,
                                         SecureString& sCompartmentIdFound, bool& bFound) {
  xklogLog(MSTORE_MODULE, 8, "CAbstractTree::FindCompartmentId");
  bFound = false;
  SAFEARRAY* psaAll = NULL;
  HRESULT hr = ListAllCompartmentIds(&psaAll);
  if (FAILED(hr) || psaAll == NULL) {
    xklogLog(MSTORE_MODULE, 1, "CAbstractTree::FindCompartmentId ListAllCompartmentIds failed");
    if (psaAll != NULL) qxSafeArrayDestroy(psaAll, 0);
    xklogLog(MSTORE_MODULE, 16, "CAbstractTree::FindCompartmentId hr = 0x%x", hr);
    return hr;
  }
  const int count = ElementCount(psaAll);
  for (int i = 0; i < count && !bFound; ++i) {
    BSTR bstrElement = NULL;
    hr = SafeArrayGetElement(psaAll, &i, &bstrElement);
    if (FAILED(hr)) {
      xklogLog(MSTORE_MODULE, 1, "CAbstractTree::FindCompartmentId SafeArrayGetElement failed");
      continue;
    }
    SecureString sElement;
    hr = BSTR2wstring(bstrElement, sElement);
    qxSysFreeString(bstrElement, 0);
    if (FAILED(hr)) {
      xklogLog(MSTORE_MODULE, 1, "CAbstractTree::FindCompartmentId BSTR2wstring failed");
      continue;
    }
    // Session, then the rest of the path joined again: an exact match of both.
    const std::vector<SecureString> components = split(sElement, L'/');
    if (components.size() < 2 || components[0] != sSessionId) continue;
    SecureString sRest = components[1];
    for (std::size_t c = 2; c < components.size(); ++c) sRest += '/' + components[c];
    if (sRest == sSubCompartmentId) {
      sCompartmentIdFound = sElement;
      bFound = true;
    }
  }
  qxSafeArrayDestroy(psaAll, 0);
  xklogLog(MSTORE_MODULE, 16, "CAbstractTree::FindCompartmentId hr = 0x%x", hr);
  return hr;
}

HRESULT CAbstractTree::FindSessionId(const SecureString& sSessionId, const SecureString& sSubCompartmentId,
                                     SecureString& sSessionIdFound) {
  xklogLog(MSTORE_MODULE, 8, "CAbstractTree::FindSessionId");
  HRESULT hr = S_OK;
  if (sSessionId != kWildcardSession) {
    // A concrete session is believed without a look at the tree.
    sSessionIdFound = sSessionId;
  } else {
    std::list<SecureString> sessionIdList;
    hr = GetSessionIdList(sessionIdList);
    if (FAILED(hr)) {
      xklogLog(MSTORE_MODULE, 1, "CAbstractTree::FindSessionId GetSessionIdList failed");
    } else {
      const SecureString* pFound = NULL;
      for (const SecureString& sSession : sessionIdList) {
        if (sSession == kWildcardSession) continue;
        SecureString sCompartmentIdFound;
        bool bFound = false;
        hr = FindCompartmentId(sSession, sSubCompartmentId, sCompartmentIdFound, bFound);
        if (FAILED(hr)) {
          xklogLog(MSTORE_MODULE, 1, "CAbstractTree::FindSessionId FindCompartmentId failed");
          break;
        }
        if (bFound) {
          pFound = &sSession;
          break;
        }
      }
      if (SUCCEEDED(hr)) sSessionIdFound = pFound != NULL ? *pFound : SecureString(kWildcardSession);
    }
  }
  xklogLog(MSTORE_MODULE, 16, "CAbstractTree::FindSessionId hr = 0x%x", hr);
  return hr;
}

HRESULT CAbstractTree::MoveCompartmentIds(const SecureString& sCompartmentId0, const SecureString& sCompartmentId1,
                                          bool bRemoveSource) {
  xklogLog(MSTORE_MODULE, 8, "CAbstractTree::MoveCompartmentIds");
  SAFEARRAY* psaDataIds = NULL;
  SAFEARRAY* psaChildren = NULL;

  // The data items of this level; nothing here changes the result of the move.
  HRESULT hr = ListDataIds(sCompartmentId0, &psaDataIds, 0);
  if (FAILED(hr)) {
    xklogLog(MSTORE_MODULE, 1, "CAbstractTree::MoveCompartmentIds ListDataIds failed");
  } else if (psaDataIds != NULL) {
    const int count = ElementCount(psaDataIds);
    for (int i = 0; i < count; ++i) {
      BSTR bstrDataId = NULL;
      if (FAILED(SafeArrayGetElement(psaDataIds, &i, &bstrDataId))) {
        xklogLog(MSTORE_MODULE, 1, "CAbstractTree::MoveCompartmentIds SafeArrayGetElement failed");
        continue;
      }
      SecureString sDataId;
      SAFEARRAY* psaValue = NULL;
      if (SUCCEEDED(BSTR2wstring(bstrDataId, sDataId)) &&
          SUCCEEDED(GetData(sCompartmentId0, sDataId, psaValue, 0))) {
        if (FAILED(SetData(sCompartmentId1, sDataId, psaValue, 0, 0)))
          xklogLog(MSTORE_MODULE, 1, "CAbstractTree::MoveCompartmentIds SetData failed");
        if (FAILED(qxSafeArrayDestroy(psaValue, 0)))
          xklogLog(MSTORE_MODULE, 1, "CAbstractTree::MoveCompartmentIds qxSafeArrayDestroy failed");
      }
      qxSysFreeString(bstrDataId, 0);
    }
  }

  // The children, each moved depth-first without removal.
  hr = ListCompartmentIds(sCompartmentId0, &psaChildren, 0);
  if (FAILED(hr) || psaChildren == NULL) {
    xklogLog(MSTORE_MODULE, 1, "CAbstractTree::MoveCompartmentIds ListCompartmentIds failed");
    hr = E_FAIL;
  } else {
    const int count = ElementCount(psaChildren);
    for (int i = 0; i < count; ++i) {
      BSTR bstrChild = NULL;
      hr = SafeArrayGetElement(psaChildren, &i, &bstrChild);
      if (FAILED(hr)) {
        xklogLog(MSTORE_MODULE, 1, "CAbstractTree::MoveCompartmentIds SafeArrayGetElement failed");
        continue;
      }
      SecureString sChild;
      hr = BSTR2wstring(bstrChild, sChild);
      qxSysFreeString(bstrChild, 0);
      if (FAILED(hr)) continue;
      hr = MoveCompartmentIds(sCompartmentId0 + '/' + sChild, sCompartmentId1 + '/' + sChild, false);
      if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "CAbstractTree::MoveCompartmentIds MoveCompartmentIds failed");
    }
  }

  // One removal at the top takes the whole source subtree.
  if (bRemoveSource) {
    hr = RemoveCompartment(sCompartmentId0, 1, 0);
    if (FAILED(hr)) xklogLog(MSTORE_MODULE, 1, "CAbstractTree::MoveCompartmentIds RemoveCompartment failed");
  }
  if (psaDataIds != NULL) qxSafeArrayDestroy(psaDataIds, 0);
  if (psaChildren != NULL) qxSafeArrayDestroy(psaChildren, 0);
  xklogLog(MSTORE_MODULE, 16, "CAbstractTree::MoveCompartmentIds hr = 0x%x", hr);
  return hr;
}
