#include "trees/RegistryTree.h"

#include <algorithm>
#include <cstring>

#include "common/FctUtils.h"
#include "common/Module.h"
#include "xk/log.h"
#include "xk/registry.h"

// The life of the tree, its path conversion, the common beginning of its
// operations and the two type tables. The data operations are in
// RegistryTreeValues.cc, the compartments and listings in
// RegistryTreeCompartments.cc, the value bytes in RegistryValueCodec.cc.

namespace {

// Every registry operation names the hive by this text.
char gRootKey[] = "HKEY_LOCAL_MACHINE";

const char kSoftwareKey[] = "Software\\";
const char kRemanentDataStoreKey[] = "Norvane Co\\Merrowstore\\RemanentDataStore\\";

}  // namespace

void CRegistryTree::BstrRelease::operator()(char* p) const { qxSysFreeString(p, 0); }

CRegistryTree::CRegistryTree(const SecureString& sTreeId, signed char bDuplicate)
    : m_pRootKey(gRootKey), m_sTreeId(sTreeId), m_bDuplicate(bDuplicate) {
  xklogLog(MSTORE_MODULE, 0, "CRegistryTree::CRegistryTree sTreeId = %s", m_sTreeId.c_str());
  m_sRegistryKey = kSoftwareKey;
  m_sRegistryKey += kRemanentDataStoreKey;
  UpdateRegistryKey(0);
}

CRegistryTree::~CRegistryTree() {
  xklogLog(MSTORE_MODULE, 0, "CRegistryTree::~CRegistryTree");
  // The base key begins with "Software\", so this never closes anything; the
  // comparison stays as the tree has always made it.
  if (m_sRegistryKey == kRemanentDataStoreKey) {
    xkRegCloseKey(m_pRootKey);
    m_pRootKey = NULL;
  }
}

HRESULT CRegistryTree::GetTreeId(SecureString& sTreeId) {
  xklogLog(MSTORE_MODULE, 8, "CRegistryTree::GetTreeId");
  sTreeId = m_sTreeId;
  xklogLog(MSTORE_MODULE, 16, "CRegistryTree::GetTreeId hr = 0x%x", S_OK);
  return S_OK;
}

HRESULT CRegistryTree::UpdateRegistryKey(unsigned int /*dwClientProcessId*/) {
  xklogLog(MSTORE_MODULE, 8, "CRegistryTree::UpdateRegistryKey");
  xklogLog(MSTORE_MODULE, 16, "CRegistryTree::UpdateRegistryKey hr = 0x%x", S_OK);
  return S_OK;
}

HRESULT CRegistryTree::ConvertString2RegistryFormat(const SecureString& sCompartmentId, SecureString& sRegistryPath) {
  xklogLog(MSTORE_MODULE, 8, "CRegistryTree::ConvertString2RegistryFormat");
  sRegistryPath += m_sRegistryKey;
  sRegistryPath += m_sTreeId;
  if (sCompartmentId != "/") {
    // Each component after a backslash, which is each "/" turned into one
    // after a leading backslash. Empty components are kept: the registry
    // refuses the doubled backslash.
    sRegistryPath += '\\';
    const SecureString::size_type start = sRegistryPath.size();
    sRegistryPath += sCompartmentId;
    std::replace(sRegistryPath.begin() + start, sRegistryPath.end(), '/', '\\');
  }
  xklogLog(MSTORE_MODULE, 16, "CRegistryTree::ConvertString2RegistryFormat hr = 0x%x", S_OK);
  return S_OK;
}

// The key path as a new BSTR in pSubKey, refused when longer than 250
// characters. pSubKey stays NULL when the conversion failed, when the
// allocation gave nothing (the caller then stops with the conversion's S_OK),
// or when the path is too long.
HRESULT CRegistryTree::MakeSubKey(const char* sOperation, const char* sSubKeyName, const SecureString& sRegistryPath,
                                  ScopedBstr& pSubKey) {
  BSTR bstrPath = NULL;
  HRESULT hr = wstring2BSTR(sRegistryPath, bstrPath);
  if (FAILED(hr)) {
    xklogLog(MSTORE_MODULE, 1, "CRegistryTree::%s wstring2BSTR failed", sOperation);
    return hr;
  }
  pSubKey.reset(bstrPath);
  if (pSubKey == NULL) return hr;
  const unsigned int nLength = SysStringLen(pSubKey.get());
  if (nLength > kMaxKeyPathLength) {
    xklogLog(MSTORE_MODULE, 1, "CRegistryTree::%s length of %s = %d greater than %d", sOperation, sSubKeyName,
             static_cast<int>(nLength), static_cast<int>(kMaxKeyPathLength));
    pSubKey.reset();
    return E_INVALIDARG;
  }
  return hr;
}

// Convert, then MakeSubKey: what every compartment operation does after
// UpdateRegistryKey.
HRESULT CRegistryTree::BeginOperation(const char* sOperation, const char* sSubKeyName,
                                      const SecureString& sCompartmentId, ScopedBstr& pSubKey) {
  SecureString sRegistryPath;
  ConvertString2RegistryFormat(sCompartmentId, sRegistryPath);
  return MakeSubKey(sOperation, sSubKeyName, sRegistryPath, pSubKey);
}

// "tree id/a/b" from "<base key>tree id\a\b": the base key's length is cut off
// and each backslash becomes "/". BSTR2wstring's result (pPath is never empty
// here, so it is S_OK).
HRESULT CRegistryTree::CompartmentIdFromPath(char* pPath, SecureString& sCompartmentIdGlobal) {
  SecureString sPath;
  HRESULT hr = BSTR2wstring(pPath, sPath);
  if (FAILED(hr)) return hr;
  sCompartmentIdGlobal = sPath.substr(std::min(sPath.size(), std::strlen(m_sRegistryKey.c_str())));
  std::replace(sCompartmentIdGlobal.begin(), sCompartmentIdGlobal.end(), '\\', '/');
  return hr;
}

HRESULT GetRegistryTypeFromSafeArrayType(unsigned short vt, unsigned int& dwRegistryType) {
  HRESULT hr = S_OK;
  switch (vt) {
    case VT_BSTR: dwRegistryType = REG_SZ; break;
    case VT_UNKNOWN: dwRegistryType = REG_NONE; break;
    case VT_I1:
    case VT_UI1: dwRegistryType = REG_BINARY; break;
    case VT_I8:
    case VT_UI8: dwRegistryType = REG_QWORD; break;
    case VT_INT:
    case VT_UINT: dwRegistryType = REG_DWORD; break;
    default:
      xklogLog(MSTORE_MODULE, 1, "GetRegistryTypeFromSafeArrayType unsupported vt");
      hr = E_FAIL;
  }
  return hr;
}

HRESULT GetSafeArrayTypeFromRegistryType(unsigned int dwRegistryType, unsigned short& vt) {
  HRESULT hr = S_OK;
  switch (dwRegistryType) {
    case REG_NONE: vt = VT_UNKNOWN; break;
    case REG_SZ:
    case REG_MULTI_SZ: vt = VT_BSTR; break;
    case REG_BINARY: vt = VT_UI1; break;
    case REG_DWORD: vt = VT_UINT; break;
    case REG_QWORD: vt = VT_UI8; break;
    default:
      xklogLog(MSTORE_MODULE, 1, "GetSafeArrayTypeFromRegistryType unsupported dwRegistryType");
      hr = E_FAIL;
  }
  return hr;
}
