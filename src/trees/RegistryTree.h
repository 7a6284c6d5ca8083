#ifndef MERROWSTORE_TREES_REGISTRYTREE_H
#define MERROWSTORE_TREES_REGISTRYTREE_H

#include <list>
#include <memory>

#include "merrowstore/export.h"
#include "trees/AbstractTree.h"
#include "xk/hresult.h"
#include "xk/oleauto.h"
#include "xk/secure_types.h"

// The persistent ("remanent") tree. A compartment is a registry key below
// HKEY_LOCAL_MACHINE\Software\Norvane Co\Merrowstore\RemanentDataStore\<tree id>
// (the path "/" is that key itself), and a data item is a value of that key,
// named by the data id, holding the typed bytes of the registry value format
// (RegistryValueCodec.h). The tree keeps nothing but its base path and holds no
// handle between calls, so two trees with the same id, in one process or in
// several, see the same data. Key paths are limited to 250 characters and
// value names to 255. Takes no lock: the owning store serialises calls; the
// registry itself serialises writers across processes.
class MERROWSTORE_EXPORT CRegistryTree : public CAbstractTree {
 public:
  // Keeps the tree id and bDuplicate (stored, read by nothing) and calls
  // UpdateRegistryKey. Opens nothing: the tree's key is made by the first
  // SetData or CreateCompartment.
  CRegistryTree(const SecureString& sTreeId, signed char bDuplicate);
  // Closes nothing: the base key never equals the text it is compared with.
  ~CRegistryTree() override;
  CRegistryTree(const CRegistryTree&) = delete;
  CRegistryTree& operator=(const CRegistryTree&) = delete;

  // Copies the tree id out; always S_OK.
  HRESULT GetTreeId(SecureString& sTreeId) override;
  // The one place where the key could depend on the calling process; every
  // operation that has a process calls it first. Looks at nothing; always S_OK.
  HRESULT UpdateRegistryKey(unsigned int dwClientProcessId);
  // Appends to sRegistryPath (which the caller passes empty) the base key, the
  // tree id and, unless sCompartmentId is exactly "/", a backslash and the
  // components of sCompartmentId joined by backslashes. Checks no component;
  // always S_OK.
  HRESULT ConvertString2RegistryFormat(const SecureString& sCompartmentId, SecureString& sRegistryPath);

  // Creates the compartment's key and its missing parents, then writes the
  // value sDataId in the registry format; the caller keeps its array.
  // E_INVALIDARG for a key path over 250 or a value name over 255 characters and
  // for a value over 1 MB; E_FAIL for an element type without a registry type
  // and for a failed registry call. A refused value leaves the key created.
  HRESULT SetData(const SecureString& sCompartmentId, const SecureString& sDataId, SAFEARRAY* psaDataValue,
                  unsigned int dwClientProcessId, signed char bEncrypted) override;
  // Finds sDataId by listing the key's value names, reads and decodes it into a
  // new array that the caller destroys. E_INVALIDARG when the value is absent or
  // the key can't be listed or read. Some found values give S_OK and no array
  // (an unknown first byte of a REG_BINARY value, a REG_MULTI_SZ value without a
  // 0 byte, a value that vanished between its two reads): psaDataValue is then
  // left as it was.
  HRESULT GetData(const SecureString& sCompartmentId, const SecureString& sDataId, SAFEARRAY*& psaDataValue,
                  unsigned int dwClientProcessId) override;
  // Deletes the value. E_INVALIDARG for any registry refusal, absence included,
  // and for a name over 255 characters.
  HRESULT RemoveData(const SecureString& sCompartmentId, const SecureString& sDataId,
                     unsigned int dwClientProcessId) override;
  // Creates the key and its missing parents; an existing key is a success.
  HRESULT CreateCompartment(const SecureString& sCompartmentId, unsigned int dwClientProcessId) override;
  // Deletes the key and its whole subtree (RegDelTree). E_INVALIDARG when the
  // key can't be opened (absent); otherwise S_OK, even when part of the subtree
  // could not be deleted. With bUpdateVersions, both counters of every removed
  // subkey (not of the key itself) are raised, deepest first.
  HRESULT RemoveCompartment(const SecureString& sCompartmentId, signed char bUpdateVersions,
                            unsigned int dwClientProcessId) override;
  // Deletes the tree's key with everything below it; no counter moves. E_FAIL
  // when the registry refuses, an absent tree key included.
  HRESULT FlushTree(unsigned int dwClientProcessId) override;
  // *pbCached is 1 when the key has a value named sDataId, else 0; a key that
  // can't be listed (absent) answers 0 with S_OK. E_FAIL for a NULL pbCached.
  HRESULT IsDataCached(const SecureString& sCompartmentId, const SecureString& sDataId, signed char* pbCached,
                       unsigned int dwClientProcessId) override;
  // A new VT_BSTR vector of the key's value names in the registry's order,
  // owned by the caller. E_FAIL for a NULL output or a key that can't be listed;
  // a key without values gives a zero-element vector.
  HRESULT ListDataIds(const SecureString& sCompartmentId, SAFEARRAY** ppsaDataIdList,
                      unsigned int dwClientProcessId) override;
  // A new VT_BSTR vector of the bare names of the key's subkeys in the
  // registry's order ("/" lists the sessions), owned by the caller; a leaf gives
  // a zero-element vector. E_FAIL for a NULL output or a key that can't be
  // listed (absent).
  HRESULT ListCompartmentIds(const SecureString& sCompartmentId, SAFEARRAY** ppsCompartmentIdList,
                             unsigned int dwClientProcessId) override;
  // *pbCached says whether the key exists ("/": the tree's key); the versions
  // are those of "tree id/path" (the tree id alone for "/"). Checks
  // pulCompartmentVersion, pulContentVersion, pbCached for NULL in that order
  // (E_FAIL). A failed version read writes no output.
  HRESULT IsCompartmentCached(const SecureString& sCompartmentId, unsigned long* pulCompartmentVersion,
                              unsigned long* pulContentVersion, signed char* pbCached,
                              unsigned int dwClientProcessId) override;
  // A new VT_BSTR vector, owned by the caller, of "tree id/path" texts: the
  // tree's own key, then its first subkey, that key's first subkey and so on
  // down one chain (RegListTree); later siblings are not listed. E_FAIL for a
  // NULL output or an absent tree key.
  HRESULT ListAllCompartmentIds(SAFEARRAY** ppsAllCompartmentIdList) override;

  // Deletes pSubKey of the hive pRootKey depth first, always enumerating index
  // 0; with bUpdateVersions, raises both counters of each deleted subkey after
  // its own subtree. 1 for success, 0 for failure; a path over 250 characters
  // is refused as a success. Reads pSubKey only.
  int RegDelTree(char* pRootKey, char* pSubKey, signed char bUpdateVersions);
  // Appends the compartment path of pSubKey (tree id first) to compartmentIds,
  // then walks down the first subkey at each level. 0 for success, else the
  // registry's code; a path over 250 characters gives 0 with nothing appended.
  // Reads pSubKey only.
  long RegListTree(char* pRootKey, char* pSubKey, std::list<SecureString>& compartmentIds);

 private:
  // Longest key path and value name, in characters; the walks' work buffers
  // hold a key path and its terminator.
  static constexpr unsigned int kMaxKeyPathLength = 250;
  static constexpr unsigned int kMaxValueNameLength = 255;
  static constexpr unsigned int kKeyBufferSize = kMaxKeyPathLength + 1;

  struct BstrRelease {
    void operator()(char* p) const;
  };
  typedef std::unique_ptr<char, BstrRelease> ScopedBstr;

  HRESULT MakeSubKey(const char* sOperation, const char* sSubKeyName, const SecureString& sRegistryPath,
                     ScopedBstr& pSubKey);
  HRESULT BeginOperation(const char* sOperation, const char* sSubKeyName, const SecureString& sCompartmentId,
                         ScopedBstr& pSubKey);
  HRESULT CompartmentIdFromPath(char* pPath, SecureString& sCompartmentIdGlobal);

  char* m_pRootKey;
  SecureString m_sRegistryKey;
  SecureString m_sTreeId;
  signed char m_bDuplicate;
};

// The registry type of a SAFEARRAY element type: VT_BSTR REG_SZ, VT_UNKNOWN
// REG_NONE, VT_I1 and VT_UI1 REG_BINARY, VT_I8 and VT_UI8 REG_QWORD, VT_INT and
// VT_UINT REG_DWORD. E_FAIL, with dwRegistryType untouched, for any other.
MERROWSTORE_EXPORT HRESULT GetRegistryTypeFromSafeArrayType(unsigned short vt, unsigned int& dwRegistryType);

// The element type a registry type is read back as: REG_NONE VT_UNKNOWN,
// REG_SZ and REG_MULTI_SZ VT_BSTR, REG_BINARY VT_UI1, REG_DWORD VT_UINT,
// REG_QWORD VT_UI8. E_FAIL, with vt untouched, for any other.
MERROWSTORE_EXPORT HRESULT GetSafeArrayTypeFromRegistryType(unsigned int dwRegistryType, unsigned short& vt);

#endif
