#ifndef MERROWSTORE_AUTHSTORE_INTERNALAUTHSTORE_H
#define MERROWSTORE_AUTHSTORE_INTERNALAUTHSTORE_H

#include <pthread.h>

#include <map>

#include "crypto/CommonCrypto.h"
#include "datastore/SessionAvailability.h"
#include "merrowstore/AuthStoreType.h"
#include "merrowstore/export.h"
#include "trees/AbstractTree.h"
#include "xk/hresult.h"
#include "xk/oleauto.h"
#include "xk/secure_types.h"
#include "xk/timer.h"

// One PIN store. A cached PIN is one compartment of m_Tree holding four data
// items: "PINValue" (the value, protected by m_Crypto when the store is
// encrypted) and three one-element VT_BSTR vectors, "PINAlwaysState"
// ("available" or "unavailable": the one-shot token of keys that ask for the
// PIN on every use), "PINBypassPINAlwaysState" ("True" or "False") and
// "PINSessionId" (the UUID text issued when the PIN was cached).
//
// Where a PIN lives (sCompartmentIdGlobal), built alike by every operation:
//   not shared, per session:  session/compartment/PIN id
//   not shared, per process:  session/compartment/PIN id/process
//   shared,     per session:  compartment/PIN id
//   shared,     per process:  compartment/PIN id/process
// The session is getsid() of the caller's process, in decimal; a request that
// names a PIN session id takes the session recorded for that id instead, so
// whoever holds the id reaches the PIN from any session.
//
// Every public PIN operation holds m_Mutex over its whole work; the internal
// operations (…Internal…, RemovePINData, RemovePINCompartment,
// MovePINCompartment, SetInternalTimer, RemoveExpiredTimers) lock nothing and
// must be called with it held. The mutex is not recursive. Begin,
// GetStoreInfo, the policy readers and the availability operations take no
// lock; End takes it only between its steps (see End).
//
// The clean-up rule: an operation ends by destroying each SAFEARRAY it still
// holds, and each destruction's result becomes the operation's result. So
// once an operation holds an array, a later failure reaches the caller as
// S_OK; only failures before the first array is held (and "data not found"
// from the first read) are reported.
//
// Results: S_OK; E_FAIL for a store without a tree or a refused caller;
// E_INVALIDARG for a PIN that is not cached or a missing pnPINState; other
// failures pass up from the value service, the tree and CommonCrypto.
class MERROWSTORE_EXPORT CInternalAuthStore {
 public:
  // Empty maps, no tree.
  CInternalAuthStore();
  // Does not call End: the owner ends a store whose Begin succeeded.
  ~CInternalAuthStore();
  CInternalAuthStore(const CInternalAuthStore&) = delete;
  CInternalAuthStore& operator=(const CInternalAuthStore&) = delete;

  // ---- Lifecycle and caller identity -----------------------------------

  // Sets the store up: mutex, flags, the key when bEncrypted (the key file's
  // for any type but 0, a new volatile key for 0), the tree (a registry tree
  // for AuthTypeRemanent, a memory tree for any other type) and the caching
  // mode from "Merrowstore.Authentication.AllowPerProcess". A failed mutex
  // set-up is logged and reported as S_OK with no tree. A bad store id or a
  // failed key set-up is returned, with no tree.
  HRESULT Begin(char* bstrStoreId, QX::AuthStore::AuthType enAuthType, signed char bEncrypted,
                signed char bSharedBetweenUserSessions);
  // Deletes every timer (live and expired), waits until no expiry callback is
  // running any more (a callback already waiting for m_Mutex then finishes on
  // the intact store), forgets the PIN session ids and sessions and deletes
  // the tree. Always S_OK. Never holds m_Mutex while it waits, so it never
  // deadlocks with a callback. Must not be called with m_Mutex held.
  HRESULT End();
  // Copies the three flags given to Begin. Always S_OK; no lock.
  HRESULT GetStoreInfo(QX::AuthStore::AuthType& enAuthType, signed char& bEncrypted,
                       signed char& bSharedBetweenUserSessions);
  // The caller's session as decimal text: getsid(dwClientProcessId), with a
  // failed getsid taken as the session 4294967295. E_FAIL for a process id 0
  // and for a session locked out by GetAvailabilityStoreFromSessionId;
  // sSessionId is then untouched.
  HRESULT GetSessionId(unsigned int dwClientProcessId, SecureString& sSessionId);
  // Marks a session available or not and stamps it with time(). Always S_OK;
  // no store lock.
  HRESULT SetAvailabilityStoreFromSessionId(unsigned int dwSessionId, signed char bAvailabled);
  // 1 for a session never marked; its flag when non-zero; for a session
  // marked unavailable, 1 again once "DisableTimeoutAfterEndSession" seconds
  // (15 when unset, unreadable or 0) have passed since the mark. Always S_OK.
  HRESULT GetAvailabilityStoreFromSessionId(unsigned int dwSessionId, signed char& bAvailabled);

  // ---- Policy (no lock, no store state) ---------------------------------

  // PinCachingPerProcess when the setting is 1, PinCachingPerSession when it
  // is 0; any other value (or a failed read) leaves PinCachingPerSession.
  // Always S_OK.
  static HRESULT GetPINCachingMode(PinCachingMode& enPinCachingMode);
  // "Merrowstore.Authentication.Timeout" in minutes, the low 32 bits of the
  // setting. Always S_OK.
  static HRESULT GetPINCachingTimeout(int& nTimeout);
  // PinAlwaysConfirmationPrompt when the setting is 1, PinAlwaysPINPrompt
  // otherwise. Always S_OK.
  static HRESULT GetPINAlwaysCachingMode(PinAlwaysCachingMode& enPinAlwaysCachingMode);
  // Parses a VT_BSTR vector of name, value, name, value... into the six
  // outputs, which first take their defaults ("No", "None", "False",
  // "False", "Yes", "False"). A NULL array or an array of another vartype
  // leaves the defaults; a failed name read keeps the previous name, a failed
  // value read the previous value. The result is that of the last value read
  // or conversion: an odd element count ends in a failed read.
  static HRESULT GetAdditionalParameters(SAFEARRAY* pAdditionalParameters, SecureString& sIsACRPINAlways,
                                         SecureString& sAction, SecureString& sAllProcess, SecureString& sAllSession,
                                         SecureString& sCheckClientCaller, SecureString& sBypassPINAlways);

  // ---- Setting a PIN ----------------------------------------------------

  // Caches pPINValue (the caller keeps it) under a new PIN session id, which
  // *pbstrPINSessionId receives (optional; the caller frees it) even when a
  // later step failed. Action "Authenticate" makes the token available,
  // "ChangeAuthenticator" carries the stored token over, anything else spends
  // it; BypassPINAlways "True" is recorded. (Re)arms the PIN's timer.
  HRESULT SetPIN(unsigned int dwClientProcessId, char* bstrCompartmentId, char* bstrPINId, SAFEARRAY* pPINValue,
                 SAFEARRAY* pAdditionalParameters, char** pbstrPINSessionId);
  // As SetPIN, in the session recorded for bstrPINSessionId, which is stored
  // unchanged. An unknown id gives the empty session: the PIN lands at a path
  // that begins with "/".
  HRESULT SetPINFromPINSessionId(unsigned int dwClientProcessId, char* bstrCompartmentId, char* bstrPINId,
                                 char* bstrPINSessionId, SAFEARRAY* pPINValue, SAFEARRAY* pAdditionalParameters);
  HRESULT SetInternalPIN(signed char bFromPINSessionId, unsigned int dwClientProcessId, char* bstrCompartmentId,
                         char* bstrPINId, char*& bstrPINSessionId, SAFEARRAY* pPINValue,
                         SAFEARRAY* pAdditionalParameters);

  // ---- Reading and probing a PIN ----------------------------------------

  // The cached value in *ppPINValue (optional; the caller owns it), its PIN
  // session id in *pbstrPINSessionId (optional; the caller frees it) and in
  // *pnPINState what the caller must do (QX::AuthStore::PINState). The value
  // comes back whatever the state says. Spends the PIN-always token unless
  // Action is "Authenticate" or "ChangeAuthenticator"; restarts the PIN's
  // timer. E_INVALIDARG for a PIN that is not cached or a NULL pnPINState.
  HRESULT GetPIN(unsigned int dwClientProcessId, char* bstrCompartmentId, char* bstrPINId,
                 SAFEARRAY* pAdditionalParameters, SAFEARRAY** ppPINValue, char** pbstrPINSessionId,
                 int* pnPINState);
  // As GetPIN, in the session recorded for bstrPINSessionId.
  HRESULT GetPINFromPINSessionId(unsigned int dwClientProcessId, char* bstrCompartmentId, char* bstrPINId,
                                 char* bstrPINSessionId, SAFEARRAY* pAdditionalParameters, SAFEARRAY** ppPINValue,
                                 int* pnPINState);
  // Whether the PIN is cached, and the state a read would report; writes
  // nothing, decrypts nothing, leaves the timer alone. An IsACRPINAlways
  // other than "Yes" and "No" reports 0 here (a read reports 1).
  HRESULT IsPINCached(unsigned int dwClientProcessId, char* bstrCompartmentId, char* bstrPINId,
                      SAFEARRAY* pAdditionalParameters, char** pbstrPINSessionId, int* pnPINState);
  // As IsPINCached, in the session recorded for bstrPINSessionId.
  HRESULT IsPINCachedFromPINSessionId(unsigned int dwClientProcessId, char* bstrCompartmentId, char* bstrPINId,
                                      char* bstrPINSessionId, SAFEARRAY* pAdditionalParameters, int* pnPINState);
  HRESULT GetInternalPIN(signed char bFromPINSessionId, unsigned int dwClientProcessId, char* bstrCompartmentId,
                         char* bstrPINId, char*& bstrPINSessionId, SAFEARRAY* pAdditionalParameters,
                         SAFEARRAY** ppPINValue, QX::AuthStore::PINState* pnPINState);
  HRESULT IsInternalPINCached(signed char bFromPINSessionId, unsigned int dwClientProcessId, char* bstrCompartmentId,
                              char* bstrPINId, char*& bstrPINSessionId, SAFEARRAY* pAdditionalParameters,
                              QX::AuthStore::PINState* pnPINState);

  // ---- Expiry -------------------------------------------------------------

  // Deletes the parked timers, then restarts the PIN's timer or makes one of
  // "Merrowstore.Authentication.Timeout" minutes (0 means 5 seconds,
  // 0x80000000 means never: no timer is made or restarted). Always S_OK.
  HRESULT SetInternalTimer(SecureString const& sCompartmentIdGlobal, unsigned int dwClientProcessId,
                           char* bstrCompartmentId, char* bstrPINId, char* bstrPINSessionId);
  // Deletes every timer parked in m_ExpiredTimers. Always S_OK.
  HRESULT RemoveExpiredTimers();
  // The expiry of one PIN, on the timer's thread: locks and removes the PIN
  // found through its PIN session id, parking its timer.
  HRESULT RemoveExpiredPINFromPINSessionId(unsigned int dwClientProcessId, char* bstrCompartmentId, char* bstrPINId,
                                           char* bstrPINSessionId);

  // ---- Removing and moving ----------------------------------------------

  // Removes the caller's PIN with its session id mapping and timer. With
  // AllProcess "True" in per-process mode, also the PIN of every process of
  // the caller's session (tree only); with AllSession "True" on a store that
  // is not shared, the PIN of every session known by a PIN session id.
  HRESULT RemovePIN(unsigned int dwClientProcessId, char* bstrCompartmentId, char* bstrPINId,
                    SAFEARRAY* pAdditionalParameters);
  // Removes the PIN in the session recorded for bstrPINSessionId.
  // pAdditionalParameters is not read.
  HRESULT RemovePINFromPINSessionId(unsigned int dwClientProcessId, char* bstrCompartmentId, char* bstrPINId,
                                    char* bstrPINSessionId, SAFEARRAY* pAdditionalParameters);
  HRESULT RemoveInternalPIN(signed char bFromPINSessionId, unsigned int dwClientProcessId, char* bstrCompartmentId,
                            char* bstrPINId, char* bstrPINSessionId, signed char bExpired);
  // Removes one PIN: its items, its PIN session id mapping, its timer (parked
  // when bExpired, deleted otherwise) and its compartment, stopping at the
  // first failing step.
  HRESULT RemovePINData(SecureString const& sCompartmentIdGlobal, signed char bExpired);
  // Removes a subtree; deletes the parked timers and the timer keyed exactly
  // by the path, not those of PINs below it.
  HRESULT RemovePINCompartment(SecureString const& sCompartmentIdGlobal);
  // Removes the compartment of the caller's session (or, with AllSession
  // "True", of every session known by a PIN session id) with its PINs.
  HRESULT RemoveCompartment(unsigned int dwClientProcessId, char* bstrCompartmentId,
                            SAFEARRAY* pAdditionalParameters);
  // Deletes every timer and empties the tree; the PIN session ids stay. A
  // parameter array that does not parse flushes nothing.
  HRESULT FlushStore(unsigned int dwClientProcessId, SAFEARRAY* pAdditionalParameters);
  // Empties the tree; timers are left to fire and find nothing.
  HRESULT FlushStore(unsigned int dwClientProcessId);
  // Removes the subtree "session//" ("/" on a shared store), which on a
  // memory tree matches no ordinary PIN.
  HRESULT FlushStoreFromSessionId(unsigned int dwSessionId);
  // Moves a session's PINs to another session and rewrites their PIN session
  // id mappings; timers keep their old keys.
  HRESULT MoveStore(unsigned int dwFromSessionId, unsigned int dwToSessionId);
  HRESULT MovePINCompartment(SecureString const& sCompartmentIdFromGlobal,
                             SecureString const& sCompartmentIdToGlobal);

  // ---- State changes ------------------------------------------------------

  // Sets the PIN's token: "available" for PINStateAvailable (1), "unavailable"
  // for every other value. The value and the bypass stay; the timer restarts.
  // pAdditionalParameters is not read. E_INVALIDARG for a PIN not cached.
  HRESULT ChangePINState(unsigned int dwClientProcessId, char* bstrCompartmentId, char* bstrPINId,
                         SAFEARRAY* pAdditionalParameters, int nPINState);
  // As ChangePINState, in the session recorded for bstrPINSessionId.
  HRESULT ChangePINStateFromPINSessionId(unsigned int dwClientProcessId, char* bstrCompartmentId, char* bstrPINId,
                                         char* bstrPINSessionId, SAFEARRAY* pAdditionalParameters, int nPINState);
  HRESULT ChangeInternalPINState(signed char bFromPINSessionId, unsigned int dwClientProcessId,
                                 char* bstrCompartmentId, char* bstrPINId, char*& bstrPINSessionId,
                                 SAFEARRAY* pAdditionalParameters, QX::AuthStore::PINState enPINState);

 private:
  friend class CInternalAuthStoreTestPeer;

  // Step 1 of every PIN request on a store that is not shared: the session
  // of the PIN session id (empty when unknown) or of the caller.
  HRESULT ResolveSession(const char* sOperation, signed char bFromPINSessionId, unsigned int dwClientProcessId,
                         char* bstrPINSessionId, SecureString& sSessionId);
  HRESULT ConvertIds(const char* sOperation, char* bstrCompartmentId, char* bstrPINId,
                     SecureString& sCompartmentId, SecureString& sPINId);
  HRESULT CheckTree(const char* sOperation);
  // The scoping rule above; a session that is not shared always gets its
  // session segment, even an empty one.
  SecureString BuildPath(const SecureString& sSessionId, const SecureString& sCompartmentId,
                         const SecureString& sPINId, unsigned int dwClientProcessId) const;
  // Steps 1 to 4 of a request that takes no other step in between.
  HRESULT ResolvePINPath(const char* sOperation, signed char bFromPINSessionId, unsigned int dwClientProcessId,
                         char* bstrCompartmentId, char* bstrPINId, char* bstrPINSessionId,
                         SecureString& sCompartmentIdGlobal);
  // The clean-up rule for one held array.
  void DestroyHeld(const char* sOperation, SAFEARRAY*& psa, HRESULT& hr);
  // A new one-element VT_BSTR vector in psa, holding a copy of bstrText
  // (left empty for NULL); the caller destroys it.
  HRESULT MakeBSTRVector(const char* sOperation, BSTR bstrText, SAFEARRAY*& psa);
  // The same for a text, copied into a temporary BSTR first.
  HRESULT MakeTextVector(const char* sOperation, const char* sText, SAFEARRAY*& psa);
  // One data item of a PIN: "data not found" (E_INVALIDARG) at the detail
  // level, other failures at the failure level.
  HRESULT ReadItem(const char* sOperation, const SecureString& sCompartmentIdGlobal, const SecureString& sDataId,
                   SAFEARRAY*& psa);
  // The four items of a PIN in the order a read takes them, each array
  // handed to the caller's clean-up: the PIN session id (element 0 into
  // bstrPINSessionId), the value, the token (bAvailable) and the bypass text.
  HRESULT ReadPINItems(const char* sOperation, const SecureString& sCompartmentIdGlobal, char*& bstrPINSessionId,
                       SAFEARRAY*& psaSessionId, SAFEARRAY*& psaValue, SAFEARRAY*& psaState, bool& bAvailable,
                       SAFEARRAY*& psaBypass, SecureString& sBypassPINAlwaysStateValue);
  // Stores one data item, logging "SetData failed".
  HRESULT WriteItem(const char* sOperation, const SecureString& sCompartmentIdGlobal, const SecureString& sDataId,
                    SAFEARRAY* psa);
  // Element 0 of a stored VT_BSTR vector, as text.
  HRESULT ReadText(const char* sOperation, SAFEARRAY* psa, SecureString& sText);
  void DeleteTimers(std::map<SecureString, QX::Framework::ITimer*>& timers, const char* sLogText);

  // Statically initialised so that a store whose pthread_mutex_init failed
  // still locks safely.
  pthread_mutex_t m_Mutex = PTHREAD_MUTEX_INITIALIZER;
  CAbstractTree* m_Tree;
  QX::AuthStore::AuthType m_AuthType;
  signed char m_bEncrypted;
  signed char m_bSharedBetweenUserSessions;
  PinCachingMode m_PinCachingMode;
  CommonCrypto m_Crypto;
  // Key sCompartmentIdGlobal; each owns its timer (a NULL entry is no timer).
  std::map<SecureString, QX::Framework::ITimer*> m_Timers;
  std::map<SecureString, QX::Framework::ITimer*> m_ExpiredTimers;
  // PIN session id to the decimal session it was issued in.
  std::map<SecureString, SecureString> m_PINSessionIds;
  // m_SessionAvailability and m_SessionTimeStamps, behind their own lock.
  CSessionAvailability m_Availability;
};

#endif
