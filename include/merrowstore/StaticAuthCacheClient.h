#ifndef MERROWSTORE_STATICAUTHCACHECLIENT_H
#define MERROWSTORE_STATICAUTHCACHECLIENT_H

#include "merrowstore/AuthStoreType.h"
#include "merrowstore/export.h"
#include "xk/hresult.h"
#include "xk/oleauto.h"

namespace QX {
namespace AuthStore {

// One additional parameter of a PIN request, such as "IsACRPINAlways" = "Yes"
// or "Action" = "Authenticate". A request passes a pointer to its first record
// and the number of records; the records and their BSTRs stay the caller's.
struct AuthParameter {
  BSTR bstrName;
  BSTR bstrValue;
};

// The exported face of the PIN cache. It holds no state and takes no lock: the
// PIN stores live in the map of the library's PIN store registration, which is
// filled while the library loads (with the one default store
// "{AEA79AF9-BECB-490a-BCCB-CD0806BA970D}": volatile, encrypted, shared
// between user sessions) and emptied when it unloads.
//
// The sixteen PIN operations have no store argument: they always act on the
// default store, on behalf of the calling process 0, so what the store's
// session and process scoping sees is always the same caller. Compartment and
// PIN ids are narrow BSTRs; a PIN value is a SAFEARRAY; a PIN session id (the
// text of a UUID, issued when a PIN is cached) crosses this interface as a
// VT_UI1 vector of its bytes. Inputs stay the caller's, and every array handed
// out becomes the caller's (destroy it with qxSafeArrayDestroy).
//
// Additional parameters (pAdditionalParameters, ulCount): a NULL pointer means
// none, whatever ulCount says; a non-NULL pointer with ulCount 0 fails with
// E_FAIL. When parameters are passed, the result is that of destroying the
// parameter array the client built for them, not that of the request: a
// request that failed in the store then returns S_OK all the same, having
// written no output. Only a caller passing no parameters learns the store's
// answer.
//
// Results: S_OK; E_FAIL when the default store is missing (it failed to
// register at load; the log says "<operation> Didn't find this id"), for an
// empty PIN session id and for a PIN session id that could not be handed out;
// E_INVALIDARG from the store for a PIN that is not cached; other failures pass
// up from the store. Outputs are written only when the store call succeeded,
// each only when its pointer is not NULL; a value or a PIN session id the
// caller did not ask for is released.
class MERROWSTORE_EXPORT CStaticAuthCacheClient {
 public:
  CStaticAuthCacheClient();
  virtual ~CStaticAuthCacheClient();

  // ---- Caching a PIN -------------------------------------------------------

  // Caches a copy of pPINValue under the compartment and PIN id, replacing a
  // PIN cached there, and (re)arms its expiry timer. *ppsaPINSessionId
  // receives the new PIN session id (with a NULL ppsaPINSessionId it is
  // dropped); if it cannot be handed out the result is E_FAIL, the PIN staying
  // cached. Action "Authenticate" (a PIN the card has just verified) makes the
  // PIN usable once by a key that asks for the PIN on every use.
  HRESULT SetPIN(BSTR bstrCompartmentId, BSTR bstrPINId, SAFEARRAY* pPINValue, AuthParameter* pAdditionalParameters,
                 unsigned long ulCount, SAFEARRAY** ppsaPINSessionId);
  // As SetPIN, in the session the PIN session id psaPINSessionId was issued
  // in; the id is kept as it is. An empty psaPINSessionId gives E_FAIL before
  // the store is asked.
  HRESULT SetPINFromPINSessionId(BSTR bstrCompartmentId, BSTR bstrPINId, SAFEARRAY* psaPINSessionId,
                                 SAFEARRAY* pPINValue, AuthParameter* pAdditionalParameters, unsigned long ulCount);

  // ---- Reading a PIN -------------------------------------------------------

  // The cached value in *ppPINValue and its PIN session id in
  // *ppsaPINSessionId. The value comes whatever the PIN's state; a read by a
  // key that asks for the PIN on every use spends the PIN's one-shot token. A
  // caller that must act on the state uses GetPINEx.
  HRESULT GetPIN(BSTR bstrCompartmentId, BSTR bstrPINId, AuthParameter* pAdditionalParameters, unsigned long ulCount,
                 SAFEARRAY** ppPINValue, SAFEARRAY** ppsaPINSessionId);
  // As GetPIN, and *pnPINState tells the caller what to do next: use the PIN
  // (PINStateAvailable), prompt for it (PINStatePrompt) or ask for a
  // confirmation only (PINStateConfirm). The state is written even when the
  // session id could not be handed out.
  HRESULT GetPINEx(BSTR bstrCompartmentId, BSTR bstrPINId, AuthParameter* pAdditionalParameters,
                   unsigned long ulCount, SAFEARRAY** ppPINValue, SAFEARRAY** ppsaPINSessionId,
                   PINState* pnPINState);
  // As GetPIN, in the session of the PIN session id; an empty psaPINSessionId
  // gives E_FAIL before the store is asked.
  HRESULT GetPINFromPINSessionId(BSTR bstrCompartmentId, BSTR bstrPINId, SAFEARRAY* psaPINSessionId,
                                 AuthParameter* pAdditionalParameters, unsigned long ulCount,
                                 SAFEARRAY** ppPINValue);
  // As GetPINFromPINSessionId, with the state as in GetPINEx.
  HRESULT GetPINFromPINSessionIdEx(BSTR bstrCompartmentId, BSTR bstrPINId, SAFEARRAY* psaPINSessionId,
                                   AuthParameter* pAdditionalParameters, unsigned long ulCount,
                                   SAFEARRAY** ppPINValue, PINState* pnPINState);

  // ---- Probing a PIN -------------------------------------------------------

  // Whether a read would let the caller use the PIN: *pbCached is 1 only for
  // PINStateAvailable, and 0 for a PIN that would call for a prompt or a
  // confirmation. *ppsaPINSessionId receives the PIN's session id. Writes
  // nothing in the store, spends no token, leaves the timer alone.
  HRESULT IsPINCached(BSTR bstrCompartmentId, BSTR bstrPINId, AuthParameter* pAdditionalParameters,
                      unsigned long ulCount, SAFEARRAY** ppsaPINSessionId, signed char* pbCached);
  // As IsPINCached, with the state a read would report in *pnPINState.
  HRESULT IsPINCachedEx(BSTR bstrCompartmentId, BSTR bstrPINId, AuthParameter* pAdditionalParameters,
                        unsigned long ulCount, SAFEARRAY** ppsaPINSessionId, PINState* pnPINState);
  // As IsPINCached, in the session of the PIN session id.
  HRESULT IsPINCachedFromPINSessionId(BSTR bstrCompartmentId, BSTR bstrPINId, SAFEARRAY* psaPINSessionId,
                                      AuthParameter* pAdditionalParameters, unsigned long ulCount,
                                      signed char* pbCached);
  // As IsPINCachedEx, in the session of the PIN session id.
  HRESULT IsPINCachedFromPINSessionIdEx(BSTR bstrCompartmentId, BSTR bstrPINId, SAFEARRAY* psaPINSessionId,
                                        AuthParameter* pAdditionalParameters, unsigned long ulCount,
                                        PINState* pnPINState);

  // ---- Removing PINs -------------------------------------------------------

  // Removes the PIN with its timer and its PIN session id.
  HRESULT RemovePIN(BSTR bstrCompartmentId, BSTR bstrPINId, AuthParameter* pAdditionalParameters,
                    unsigned long ulCount);
  // Removes the PIN in the session of the PIN session id.
  HRESULT RemovePINFromPINSessionId(BSTR bstrCompartmentId, BSTR bstrPINId, SAFEARRAY* psaPINSessionId,
                                    AuthParameter* pAdditionalParameters, unsigned long ulCount);
  // Removes the compartment with every PIN under it.
  HRESULT RemoveCompartment(BSTR bstrCompartmentId, AuthParameter* pAdditionalParameters, unsigned long ulCount);
  // Removes every PIN of the default store and deletes its timers.
  HRESULT FlushStore(AuthParameter* pAdditionalParameters, unsigned long ulCount);

  // ---- Changing a PIN's state ----------------------------------------------

  // Makes the PIN's one-shot token available (PINStateAvailable) or spent
  // (any other value); the value stays and the timer restarts.
  HRESULT ChangePINState(BSTR bstrCompartmentId, BSTR bstrPINId, AuthParameter* pAdditionalParameters,
                         unsigned long ulCount, PINState enPINState);
  // As ChangePINState, in the session of the PIN session id.
  HRESULT ChangePINStateFromPINSessionId(BSTR bstrCompartmentId, BSTR bstrPINId, SAFEARRAY* psaPINSessionId,
                                         AuthParameter* pAdditionalParameters, unsigned long ulCount,
                                         PINState enPINState);

  // ---- The PIN stores --------------------------------------------------------

  // Creates a PIN store and enters it in the map. An empty or NULL id gives
  // E_INVALIDARG; a known id gives E_FAIL and keeps the existing store as it
  // was; a store whose set-up fails (its key, for one) is destroyed, the map
  // stays unchanged and the set-up's code is returned. Called while the
  // library loads; not safe against concurrent client calls.
  static HRESULT RegisterAuthStore(BSTR bstrStoreId, AuthType eType, signed char bEncrypted,
                                   signed char bSharedBetweenUserSessions);
  // Empties every PIN store, in id order, leaving their timers to fire and
  // find nothing. The code returned is that of the last store, so an earlier
  // failure is not reported; S_OK with no store.
  HRESULT FlushAuthStores();
  // A new VT_BSTR vector of every PIN store id in byte order, written to
  // *ppsaStoreIds. A NULL ppsaStoreIds gives S_OK and creates nothing. A failed
  // element is logged and skipped; the code returned is that of the last id.
  HRESULT ListAuthStoreIds(SAFEARRAY** ppsaStoreIds);
  // The configuration of one PIN store. An unknown id gives E_FAIL. Each
  // output is optional and written only on success.
  HRESULT GetAuthStoreInfo(BSTR bstrStoreId, AuthType* peType, signed char* pbEncrypted,
                           signed char* pbSharedBetweenUserSessions);
};

}  // namespace AuthStore
}  // namespace QX

#endif
