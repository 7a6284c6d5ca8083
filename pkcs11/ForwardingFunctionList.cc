#include "ForwardingFunctionList.h"

#include <cstring>

#include "merrowstore/export.h"

namespace QX {
namespace PKCS11 {

namespace {

CForwardingFunctionList& Self() { return CForwardingFunctionList::Instance(); }

// The entry `Member` of the list: the same entry of the token module's list,
// after the expiry sweep when kSweep (calls that open a session or start an
// operation).
template <auto Member, typename Function, bool kSweep>
struct Forward;
template <auto Member, bool kSweep, typename... Args>
struct Forward<Member, CK_RV (*)(Args...), kSweep> {
  static CK_RV Call(Args... args) {
    CK_FUNCTION_LIST* token = Self().Module().Functions();
    if (token == nullptr) return CKR_CRYPTOKI_NOT_INITIALIZED;
    if constexpr (kSweep) Self().Policy().LogOutExpired(token);
    const auto function = token->*Member;
    return function != nullptr ? function(args...) : CKR_FUNCTION_NOT_SUPPORTED;
  }
};
#define MSTORE_FORWARD(name) (&Forward<&CK_FUNCTION_LIST::name, CK_##name, false>::Call)
#define MSTORE_SWEEP_FORWARD(name) (&Forward<&CK_FUNCTION_LIST::name, CK_##name, true>::Call)

// The token module's list after the expiry sweep, or NULL.
CK_FUNCTION_LIST* SweptToken() {
  CK_FUNCTION_LIST* token = Self().Module().Functions();
  if (token != nullptr) Self().Policy().LogOutExpired(token);
  return token;
}

CK_RV Initialize(void* initArgs) {
  if (initArgs != nullptr) {
    const auto* args = static_cast<const CK_C_INITIALIZE_ARGS*>(initArgs);
    const int callbacks = (args->CreateMutex != nullptr) + (args->DestroyMutex != nullptr) +
                          (args->LockMutex != nullptr) + (args->UnlockMutex != nullptr);
    if (args->pReserved != nullptr || (callbacks != 0 && callbacks != 4)) return CKR_ARGUMENTS_BAD;
  }
  return Self().Module().Initialize();
}

CK_RV Finalize(void* reserved) {
  if (reserved != nullptr) return CKR_ARGUMENTS_BAD;
  bool last = false;
  const CK_RV rv = Self().Module().Finalize(&last);
  if (last) Self().Policy().Finalized();
  return rv;
}

CK_RV GetFunctionList(CK_FUNCTION_LIST_PTR_PTR ppFunctionList) {
  if (ppFunctionList == nullptr) return CKR_ARGUMENTS_BAD;
  *ppFunctionList = Self().List();
  return CKR_OK;
}

CK_RV GetTokenInfo(CK_SLOT_ID slot, CK_TOKEN_INFO_PTR info) {
  CK_FUNCTION_LIST* token = SweptToken();
  if (token == nullptr) return CKR_CRYPTOKI_NOT_INITIALIZED;
  const CK_RV rv = token->C_GetTokenInfo(slot, info);
  if (rv == CKR_OK && info != nullptr) Self().Policy().TokenInfo(slot, info);
  return rv;
}

CK_RV Login(CK_SESSION_HANDLE session, CK_USER_TYPE userType, CK_UTF8CHAR_PTR pin, CK_ULONG pinLen) {
  CK_FUNCTION_LIST* token = SweptToken();
  return token == nullptr ? CKR_CRYPTOKI_NOT_INITIALIZED : Self().Policy().Login(token, session, userType, pin, pinLen);
}

CK_RV Logout(CK_SESSION_HANDLE session) {
  CK_FUNCTION_LIST* token = Self().Module().Functions();
  return token == nullptr ? CKR_CRYPTOKI_NOT_INITIALIZED : Self().Policy().Logout(token, session);
}

CK_RV SetPIN(CK_SESSION_HANDLE session, CK_UTF8CHAR_PTR oldPin, CK_ULONG oldLen, CK_UTF8CHAR_PTR newPin,
             CK_ULONG newLen) {
  CK_FUNCTION_LIST* token = SweptToken();
  return token == nullptr ? CKR_CRYPTOKI_NOT_INITIALIZED
                          : Self().Policy().SetPIN(token, session, oldPin, oldLen, newPin, newLen);
}

CK_RV InitPIN(CK_SESSION_HANDLE session, CK_UTF8CHAR_PTR pin, CK_ULONG pinLen) {
  CK_FUNCTION_LIST* token = SweptToken();
  return token == nullptr ? CKR_CRYPTOKI_NOT_INITIALIZED : Self().Policy().InitPIN(token, session, pin, pinLen);
}

CK_RV InitToken(CK_SLOT_ID slot, CK_UTF8CHAR_PTR soPin, CK_ULONG soPinLen, CK_UTF8CHAR_PTR label) {
  CK_FUNCTION_LIST* token = SweptToken();
  return token == nullptr ? CKR_CRYPTOKI_NOT_INITIALIZED
                          : Self().Policy().InitToken(token, slot, soPin, soPinLen, label);
}

}  // namespace

CForwardingFunctionList& CForwardingFunctionList::Instance() {
  static CForwardingFunctionList* instance = new CForwardingFunctionList;  // outlives every client, even at exit
  return *instance;
}

CForwardingFunctionList::CForwardingFunctionList()
    : m_List{
          {2, 40},
          &Initialize,
          &Finalize,
          MSTORE_FORWARD(C_GetInfo),
          &GetFunctionList,
          MSTORE_FORWARD(C_GetSlotList),
          MSTORE_FORWARD(C_GetSlotInfo),
          &GetTokenInfo,
          MSTORE_FORWARD(C_GetMechanismList),
          MSTORE_FORWARD(C_GetMechanismInfo),
          &InitToken,
          &InitPIN,
          &SetPIN,
          MSTORE_SWEEP_FORWARD(C_OpenSession),
          MSTORE_FORWARD(C_CloseSession),
          MSTORE_FORWARD(C_CloseAllSessions),
          MSTORE_SWEEP_FORWARD(C_GetSessionInfo),
          MSTORE_FORWARD(C_GetOperationState),
          MSTORE_FORWARD(C_SetOperationState),
          &Login,
          &Logout,
          MSTORE_SWEEP_FORWARD(C_CreateObject),
          MSTORE_SWEEP_FORWARD(C_CopyObject),
          MSTORE_SWEEP_FORWARD(C_DestroyObject),
          MSTORE_FORWARD(C_GetObjectSize),
          MSTORE_FORWARD(C_GetAttributeValue),
          MSTORE_SWEEP_FORWARD(C_SetAttributeValue),
          MSTORE_SWEEP_FORWARD(C_FindObjectsInit),
          MSTORE_FORWARD(C_FindObjects),
          MSTORE_FORWARD(C_FindObjectsFinal),
          MSTORE_SWEEP_FORWARD(C_EncryptInit),
          MSTORE_FORWARD(C_Encrypt),
          MSTORE_FORWARD(C_EncryptUpdate),
          MSTORE_FORWARD(C_EncryptFinal),
          MSTORE_SWEEP_FORWARD(C_DecryptInit),
          MSTORE_FORWARD(C_Decrypt),
          MSTORE_FORWARD(C_DecryptUpdate),
          MSTORE_FORWARD(C_DecryptFinal),
          MSTORE_FORWARD(C_DigestInit),
          MSTORE_FORWARD(C_Digest),
          MSTORE_FORWARD(C_DigestUpdate),
          MSTORE_FORWARD(C_DigestKey),
          MSTORE_FORWARD(C_DigestFinal),
          MSTORE_SWEEP_FORWARD(C_SignInit),
          MSTORE_FORWARD(C_Sign),
          MSTORE_FORWARD(C_SignUpdate),
          MSTORE_FORWARD(C_SignFinal),
          MSTORE_SWEEP_FORWARD(C_SignRecoverInit),
          MSTORE_FORWARD(C_SignRecover),
          MSTORE_FORWARD(C_VerifyInit),
          MSTORE_FORWARD(C_Verify),
          MSTORE_FORWARD(C_VerifyUpdate),
          MSTORE_FORWARD(C_VerifyFinal),
          MSTORE_FORWARD(C_VerifyRecoverInit),
          MSTORE_FORWARD(C_VerifyRecover),
          MSTORE_FORWARD(C_DigestEncryptUpdate),
          MSTORE_FORWARD(C_DecryptDigestUpdate),
          MSTORE_FORWARD(C_SignEncryptUpdate),
          MSTORE_FORWARD(C_DecryptVerifyUpdate),
          MSTORE_SWEEP_FORWARD(C_GenerateKey),
          MSTORE_SWEEP_FORWARD(C_GenerateKeyPair),
          MSTORE_SWEEP_FORWARD(C_WrapKey),
          MSTORE_SWEEP_FORWARD(C_UnwrapKey),
          MSTORE_SWEEP_FORWARD(C_DeriveKey),
          MSTORE_FORWARD(C_SeedRandom),
          MSTORE_FORWARD(C_GenerateRandom),
          MSTORE_FORWARD(C_GetFunctionStatus),
          MSTORE_FORWARD(C_CancelFunction),
          MSTORE_FORWARD(C_WaitForSlotEvent),
      } {}

}  // namespace PKCS11
}  // namespace QX

using QX::PKCS11::CForwardingFunctionList;

extern "C" {

MERROWSTORE_EXPORT CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR ppFunctionList) {
  if (ppFunctionList == nullptr) return CKR_ARGUMENTS_BAD;
  *ppFunctionList = CForwardingFunctionList::Instance().List();
  return CKR_OK;
}

MERROWSTORE_EXPORT size_t MerrowstorePKCS11Status(char* buffer, size_t size) {
  const std::string report = CForwardingFunctionList::Instance().Policy().Status();
  if (buffer != nullptr && size > 0) {
    const size_t n = std::min(report.size(), size - 1);
    std::memcpy(buffer, report.data(), n);
    buffer[n] = '\0';
  }
  return report.size();
}

MERROWSTORE_EXPORT void MerrowstorePKCS11Wipe(void) { CForwardingFunctionList::Instance().Policy().Wipe(); }

}
