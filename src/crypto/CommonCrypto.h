#ifndef MERROWSTORE_CRYPTO_COMMONCRYPTO_H
#define MERROWSTORE_CRYPTO_COMMONCRYPTO_H

#include "merrowstore/export.h"
#include "xk/crypto.h"
#include "xk/hresult.h"
#include "xk/oleauto.h"
#include "xk/secure_types.h"

// The value protector of one store: its AES-128 key (generated for this
// process, or read from the key file) and the encryption of values with it.
// A store owns one by value and calls initialize once if it is encrypted.
// No lock: a store calls it under its own mutex.
class MERROWSTORE_EXPORT CommonCrypto {
 public:
  // Both keys null.
  CommonCrypto();
  // Deletes whichever key is set.
  ~CommonCrypto();
  CommonCrypto(const CommonCrypto&) = delete;
  CommonCrypto& operator=(const CommonCrypto&) = delete;

  // Makes the store's key: with bPersistent, the key of the key file (shared
  // by every persistent store; `name` is not used for it), otherwise a new
  // random key labelled name + "_AES_NVC_VOLATILE_KEY". Returns what the key
  // creation returned. A second call would lose the first key without
  // deleting it; stores call it once.
  HRESULT initialize(const SecureString& name, bool bPersistent);

  // Generates a 16-byte key labelled `label` into m_VolatileKey. A failure of
  // the cryptography library gives its mapped code (util_ConvertCryptoError)
  // and leaves m_VolatileKey as it was.
  HRESULT CreateNewVolatileKey(const SecureString& label);

  // Reads the key file (GetKeyFromFile) and makes m_PersistentKey from its
  // bytes. `label` is not used. Returns GetKeyFromFile's code, or the mapped
  // code of a failure of the cryptography library; on failure
  // m_PersistentKey stays as it was.
  HRESULT CreateNewPersistentKey(const SecureString& label);

  // Reads the first 16 bytes of the key file into `key` and unmasks them.
  // E_FAIL when the file cannot be opened (`key` untouched) or holds fewer
  // than 16 bytes (`key` holds the raw partial read padded with zeroes).
  HRESULT GetKeyFromFile(SecureByteVector& key);

  // 4000 (an invalid argument) gives E_INVALIDARG, every other code E_FAIL.
  static HRESULT util_ConvertCryptoError(unsigned int code);

  // Protects psaIn (VT_BSTR, VT_UNKNOWN, VT_I1, VT_UI1, VT_I8, VT_UI8,
  // VT_INT, VT_UINT) into a new VT_UI1 vector of AES-128-CBC ciphertext under
  // the key bPersistent selects. psaOut is written only on success and then
  // belongs to the caller; psaIn stays the caller's. See docs/crypto.md for
  // the blob and what does not survive the way back.
  HRESULT encryptValue(SAFEARRAY* psaIn, SAFEARRAY*& psaOut, bool bPersistent);

  // Turns a blob of encryptValue back into an array owned by the caller.
  // psaOut is written on success; on the string list path also with a failure
  // code (the partly filled array) or as NULL with success when the array
  // could not be made. psaIn stays the caller's.
  HRESULT DecryptValue(SAFEARRAY* psaIn, SAFEARRAY*& psaOut, bool bPersistent);

  // The string list rebuild of DecryptValue on the value bytes after the
  // description: stores a new VT_BSTR vector (or NULL when it cannot be made)
  // in psaOut and returns the running result hr, replaced by the code of a
  // failed SafeArrayPutElement. Never reads outside `value`.
  static HRESULT RebuildStringList(const SecureByteVector& value, SAFEARRAY*& psaOut, HRESULT hr);

  // The keys, for inspection; NULL when not made. The object keeps them.
  const QX::Framework::IKey* PersistentKey() const { return m_PersistentKey; }
  const QX::Framework::IKey* VolatileKey() const { return m_VolatileKey; }

  // The IV of every value is byte k = m_const_EntropyData[k] XOR (k + 1).
  static const unsigned char m_const_EntropyData[16];

 private:
  QX::Framework::IKey* m_PersistentKey;
  QX::Framework::IKey* m_VolatileKey;
};

// Copies psaIn into psaOut (SafeArrayCopy, whose result is ignored) and
// returns S_OK. Protects nothing; `flag` is ignored. No store calls it.
MERROWSTORE_EXPORT HRESULT EncryptValue(SAFEARRAY* psaIn, SAFEARRAY*& psaOut, signed char flag);
// Copies psaIn into psaOut like EncryptValue and returns S_OK.
MERROWSTORE_EXPORT HRESULT DecryptValue(SAFEARRAY* psaIn, SAFEARRAY*& psaOut);

#endif
