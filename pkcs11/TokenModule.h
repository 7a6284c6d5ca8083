#ifndef MERROWSTORE_PKCS11_TOKENMODULE_H
#define MERROWSTORE_PKCS11_TOKENMODULE_H

#include <p11-kit/pkcs11.h>

#include <atomic>
#include <mutex>
#include <string>

namespace QX {
namespace PKCS11 {

// The token's own PKCS#11 module behind ours: loaded with dlopen and
// initialised once for every client of the process. Each client's
// C_Initialize and C_Finalize only count; the first loads and initialises the
// module (with CKF_OS_LOCKING_OK, whatever the client asked for), the last
// finalises and unloads it. Thread-safe.
class CTokenModule {
 public:
  CTokenModule() = default;
  CTokenModule(const CTokenModule&) = delete;
  CTokenModule& operator=(const CTokenModule&) = delete;

  // One client more. The first loads the module at ModulePath() and
  // initialises it. CKR_GENERAL_ERROR when no path is set, the module cannot be
  // loaded or has no C_GetFunctionList (a log line names the path); the
  // module's own code when its C_Initialize fails, the module being unloaded
  // again. A module some other code of the process had already initialised is
  // used as it is and never finalised by us. The count changes only on CKR_OK.
  CK_RV Initialize();
  // One client fewer: CKR_CRYPTOKI_NOT_INITIALIZED when there is none. The
  // last one finalises the module (if we initialised it) and unloads it;
  // *pbLast tells the caller so.
  CK_RV Finalize(bool* pbLast);
  // The module's function list while at least one client is initialised, else
  // NULL. The list stays valid until the last client's Finalize.
  CK_FUNCTION_LIST* Functions() const { return m_pFunctions.load(std::memory_order_acquire); }

  // Where the module is loaded from: the environment variable
  // MERROWSTORE_PKCS11_MODULE when set and not empty, else the setting
  // "Merrowstore.PKCS11.Module"; empty when neither names one.
  static std::string ModulePath();

 private:
  void Unload();

  std::mutex m_Mutex;
  unsigned long m_ulClients = 0;   // guarded by m_Mutex
  void* m_hLibrary = nullptr;      // guarded by m_Mutex
  bool m_bFinalizeAtEnd = false;   // guarded by m_Mutex
  std::atomic<CK_FUNCTION_LIST*> m_pFunctions{nullptr};
};

}  // namespace PKCS11
}  // namespace QX

#endif
