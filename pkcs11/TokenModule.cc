#include "TokenModule.h"

#include <dlfcn.h>

#include <cstdlib>

#include "Log.h"
#include "xk/log.h"
#include "xk/settings.h"

namespace QX {
namespace PKCS11 {

std::string CTokenModule::ModulePath() {
  const char* env = std::getenv("MERROWSTORE_PKCS11_MODULE");
  if (env != nullptr && *env != '\0') return env;
  QX::Framework::XKData value;
  if (GetSettingValue(SecureString("Merrowstore.PKCS11.Module"), value, nullptr) < 0) return {};
  const SecureString text = value.String();
  return std::string(text.data(), text.size());
}

CK_RV CTokenModule::Initialize() {
  std::lock_guard<std::mutex> lock(m_Mutex);
  if (m_ulClients > 0) {
    ++m_ulClients;
    return CKR_OK;
  }
  const std::string path = ModulePath();
  if (path.empty()) {
    xklogLog(MSTORE_PKCS11_MODULE, xk::log::kFailure,
             "C_Initialize no token module: set Merrowstore.PKCS11.Module or MERROWSTORE_PKCS11_MODULE");
    return CKR_GENERAL_ERROR;
  }
  m_hLibrary = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (m_hLibrary == nullptr) {
    xklogLog(MSTORE_PKCS11_MODULE, xk::log::kFailure, "C_Initialize cannot load the token module %s: %s", path.c_str(),
             dlerror());
    return CKR_GENERAL_ERROR;
  }
  auto getFunctionList = reinterpret_cast<CK_C_GetFunctionList>(dlsym(m_hLibrary, "C_GetFunctionList"));
  CK_FUNCTION_LIST* functions = nullptr;
  if (getFunctionList == nullptr || getFunctionList(&functions) != CKR_OK || functions == nullptr ||
      functions->C_Initialize == nullptr) {
    xklogLog(MSTORE_PKCS11_MODULE, xk::log::kFailure, "C_Initialize the token module %s has no function list",
             path.c_str());
    Unload();
    return CKR_GENERAL_ERROR;
  }
  CK_C_INITIALIZE_ARGS args = {};
  args.flags = CKF_OS_LOCKING_OK;
  const CK_RV rv = functions->C_Initialize(&args);
  if (rv != CKR_OK && rv != CKR_CRYPTOKI_ALREADY_INITIALIZED) {
    xklogLog(MSTORE_PKCS11_MODULE, xk::log::kFailure, "C_Initialize the token module %s failed: 0x%lx", path.c_str(),
             static_cast<unsigned long>(rv));
    Unload();
    return rv;
  }
  xklogLog(MSTORE_PKCS11_MODULE, xk::log::kDetail, "C_Initialize token module %s", path.c_str());
  m_bFinalizeAtEnd = rv == CKR_OK;
  m_ulClients = 1;
  m_pFunctions.store(functions, std::memory_order_release);
  return CKR_OK;
}

CK_RV CTokenModule::Finalize(bool* pbLast) {
  std::lock_guard<std::mutex> lock(m_Mutex);
  *pbLast = false;
  if (m_ulClients == 0) return CKR_CRYPTOKI_NOT_INITIALIZED;
  if (--m_ulClients > 0) return CKR_OK;
  *pbLast = true;
  CK_FUNCTION_LIST* functions = m_pFunctions.exchange(nullptr, std::memory_order_acq_rel);
  if (m_bFinalizeAtEnd && functions->C_Finalize != nullptr) functions->C_Finalize(nullptr);
  Unload();
  return CKR_OK;
}

void CTokenModule::Unload() {
  if (m_hLibrary != nullptr) dlclose(m_hLibrary);
  m_hLibrary = nullptr;
}

}  // namespace PKCS11
}  // namespace QX
