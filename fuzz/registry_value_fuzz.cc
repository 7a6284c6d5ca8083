// Decoding of a stored registry value of any type. The input's first byte picks
// the registry type (REG_NONE, REG_SZ, REG_EXPAND_SZ, REG_BINARY, REG_DWORD,
// REG_MULTI_SZ, REG_QWORD or an unknown type 99), the rest is the value's
// bytes. Each input is decoded twice: directly, and by writing it with
// xkRegSetValueEx under a tree's key in a private registry and reading it back
// with CRegistryTree::GetData; both must give the same result and the same
// array. An array that comes back is stored through SetData and read again,
// twice: from the second round on the format must be a fixed point.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "trees/RegistryTree.h"
#include "trees/RegistryValueCodec.h"
#include "xk/registry.h"
#include "xk/testsupport.h"

namespace {

const unsigned int kTypes[] = {REG_NONE, REG_SZ, REG_EXPAND_SZ, REG_BINARY, REG_DWORD, REG_MULTI_SZ, REG_QWORD, 99};

// Element type, stored bounds and content of an array, as text.
std::string Describe(SAFEARRAY* psa) {
  if (psa == nullptr) return "null";
  VARTYPE vt = VT_EMPTY;
  SafeArrayGetVartype(psa, &vt);
  std::string out = std::to_string(vt) + "[";
  std::size_t n = psa->cbElements;
  for (unsigned d = 0; d < psa->cDims; ++d) {
    out += std::to_string(psa->rgsabound[d].cElements) + ",";
    n *= psa->rgsabound[d].cElements;
  }
  out += "]";
  if (vt == VT_BSTR) {
    for (int i = 0; static_cast<unsigned long>(i) < psa->rgsabound->cElements; ++i) {
      BSTR b = nullptr;
      if (SafeArrayGetElement(psa, &i, &b) != S_OK) std::abort();
      out += "|" + std::string(b, SysStringByteLen(b));
      SysFreeString(b);
    }
    return out;
  }
  void* pv = nullptr;
  if (SafeArrayAccessData(psa, &pv) != S_OK) std::abort();
  out.append(static_cast<const char*>(pv), n);
  SafeArrayUnaccessData(psa);
  return out;
}

struct World {
  xk::test::Sandbox sandbox;
  CRegistryTree tree{SecureString("F"), 0};
  HKEY hKey = nullptr;
  World() {
    const char* path = "Software\\Norvane Co\\Merrowstore\\RemanentDataStore\\F\\s";
    if (xkRegCreateKeyEx("HKEY_LOCAL_MACHINE", path, 0, nullptr, 0, 3, nullptr, &hKey, nullptr) != 0) std::abort();
  }
};

World& TheWorld() {
  static World world;
  return world;
}

// Stores the array through the tree and reads it back: every array the reader
// makes can be written, and every value written can be read.
SAFEARRAY* ThroughTheTree(SAFEARRAY* psa) {
  CRegistryTree& tree = TheWorld().tree;
  SAFEARRAY* back = nullptr;
  if (tree.SetData(SecureString("s"), SecureString("w"), psa, 0, 0) != S_OK) std::abort();
  if (tree.GetData(SecureString("s"), SecureString("w"), back, 0) != S_OK) std::abort();
  return back;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  World& world = TheWorld();
  const unsigned int dwType = kTypes[data[0] % (sizeof kTypes / sizeof kTypes[0])];
  const unsigned char* pValue = size > 1 ? data + 1 : nullptr;
  const unsigned int cbValue = static_cast<unsigned int>(size - 1);

  SAFEARRAY* direct = nullptr;
  const HRESULT hrDirect = DecodeRegistryValue(dwType, pValue, cbValue, direct);
  if (xkRegSetValueEx(world.hKey, "v", 0, dwType, pValue, cbValue) != 0) std::abort();
  SAFEARRAY* read = nullptr;
  const HRESULT hrRead = world.tree.GetData(SecureString("s"), SecureString("v"), read, 0);
  const std::string first = Describe(direct);
  if (hrRead != hrDirect || Describe(read) != first) std::abort();
  qxSafeArrayDestroy(read, 0);

  if (direct != nullptr) {
    // The writer only makes values that read back as an array.
    SAFEARRAY* second = ThroughTheTree(direct);
    if (second == nullptr) std::abort();
    SAFEARRAY* third = ThroughTheTree(second);
    if (Describe(third) != Describe(second)) std::abort();
    qxSafeArrayDestroy(third, 0);
    qxSafeArrayDestroy(second, 0);
  }
  qxSafeArrayDestroy(direct, 0);
  return 0;
}
