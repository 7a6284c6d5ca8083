#ifndef MERROWSTORE_PKCS11_FORWARDINGFUNCTIONLIST_H
#define MERROWSTORE_PKCS11_FORWARDINGFUNCTIONLIST_H

#include <p11-kit/pkcs11.h>

#include "PINCachePolicy.h"
#include "TokenModule.h"

namespace QX {
namespace PKCS11 {

// The module's PKCS#11 function list (version 2.40): every entry forwards to
// the same entry of the token module's list, except C_GetFunctionList, which
// hands out this list, C_Initialize and C_Finalize, which count clients (see
// CTokenModule), and the entries of CPINCachePolicy (C_GetTokenInfo, C_Login,
// C_Logout, C_SetPIN, C_InitPIN, C_InitToken), which forward through it. An
// entry called while no client is initialised returns
// CKR_CRYPTOKI_NOT_INITIALIZED; an entry the token module leaves NULL,
// CKR_FUNCTION_NOT_SUPPORTED. One instance per process, made at first use.
class CForwardingFunctionList {
 public:
  static CForwardingFunctionList& Instance();

  CK_FUNCTION_LIST* List() { return &m_List; }
  CTokenModule& Module() { return m_Module; }
  CPINCachePolicy& Policy() { return m_Policy; }

 private:
  CForwardingFunctionList();

  CK_FUNCTION_LIST m_List;
  CTokenModule m_Module;
  CPINCachePolicy m_Policy;
};

}  // namespace PKCS11
}  // namespace QX

// The module's exports (plain C, found with dlsym; no header is installed).
extern "C" {
// The function list above; CKR_ARGUMENTS_BAD for a NULL pointer.
CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR ppFunctionList);
// Writes a text report of the tokens seen, NUL-terminated and cut to `size`
// bytes (nothing is written when size is 0), and returns the length of the
// whole report without its NUL, so that a caller can size its buffer. One
// line per token: `token <serial> "<label>" pin cached expires <UTC time as
// 2026-11-24T06:12:03Z | never>` or `token <serial> "<label>" pin none`. It
// never contains a PIN.
size_t MerrowstorePKCS11Status(char* buffer, size_t size);
// Removes every PIN the module cached (each seen token's compartment) from
// the PIN store. Tokens logged in with them are logged out at the next call
// that opens a session or starts an operation.
void MerrowstorePKCS11Wipe(void);
}

#endif
