#ifndef MERROWSTORE_TREES_MEMORYTREE_H
#define MERROWSTORE_TREES_MEMORYTREE_H

#include <cstddef>
#include <map>
#include <vector>

#include "merrowstore/export.h"
#include "trees/AbstractTree.h"
#include "trees/Node.h"

// The in-process tree. Every compartment is a CNode kept under its full path in
// one map ordered byte by byte; the hierarchy lives only in the text of the keys
// (no parent or child pointers). Whenever a path is a key, so is each of its
// prefixes at "/" boundaries. The tree never normalises a path: "a//b" has the
// keys "a", "a/" and "a//b". A tree takes no lock of its own, except the tree
// that is gHistoryTree, whose operations take the history lock. Lookups
// remember the entries they found last, so reading operations change the tree's
// state too: no two operations may run on one tree at the same time, reads
// included (each store's mutex and the history lock see to that).
class MERROWSTORE_EXPORT CMemoryTree : public CAbstractTree {
 public:
  explicit CMemoryTree(const SecureString& sTreeId);
  // Deletes every node, linked or unlinked, and so destroys every stored value.
  ~CMemoryTree() override;
  CMemoryTree(const CMemoryTree&) = delete;
  CMemoryTree& operator=(const CMemoryTree&) = delete;

  // Copies the tree id out; always S_OK.
  HRESULT GetTreeId(SecureString& sTreeId) override;
  // Creates every missing prefix of sCompartmentId, then deep-copies the value
  // into the last node's item sDataId, replacing and destroying an old value.
  // Returns the copy's result (a failed copy leaves the data id absent).
  HRESULT SetData(const SecureString& sCompartmentId, const SecureString& sDataId, SAFEARRAY* psaDataValue,
                  unsigned int dwClientProcessId, signed char bEncrypted) override;
  // A deep copy into psaDataValue, which the caller destroys. E_INVALIDARG for an
  // unknown compartment or data id.
  HRESULT GetData(const SecureString& sCompartmentId, const SecureString& sDataId, SAFEARRAY*& psaDataValue,
                  unsigned int dwClientProcessId) override;
  // Destroys the value; E_INVALIDARG for an unknown compartment or data id,
  // otherwise the destruction's result (the item is gone either way).
  HRESULT RemoveData(const SecureString& sCompartmentId, const SecureString& sDataId,
                     unsigned int dwClientProcessId) override;
  // Creates every missing prefix of sCompartmentId; always S_OK.
  HRESULT CreateCompartment(const SecureString& sCompartmentId, unsigned int dwClientProcessId) override;
  // Unlinks sCompartmentId and every descendant, and raises both counters of
  // each strict descendant (unless this tree is gHistoryTree). bUpdateVersions
  // is ignored. E_INVALIDARG for an empty tree; otherwise the result of the last
  // descendant's content counter update, or S_OK. Values are not destroyed
  // until the tree itself is.
  HRESULT RemoveCompartment(const SecureString& sCompartmentId, signed char bUpdateVersions,
                            unsigned int dwClientProcessId) override;
  // Unlinks every compartment without touching a counter; always S_OK.
  HRESULT FlushTree(unsigned int dwClientProcessId) override;
  // *pbCached is 1 when the compartment holds sDataId, else 0 (an unknown
  // compartment is a success with 0). E_FAIL for a NULL pbCached.
  HRESULT IsDataCached(const SecureString& sCompartmentId, const SecureString& sDataId, signed char* pbCached,
                       unsigned int dwClientProcessId) override;
  // A new VT_BSTR vector of the compartment's data ids in byte order, owned by
  // the caller. E_FAIL for a NULL output or an unknown compartment; an empty
  // compartment gives a zero-element vector.
  HRESULT ListDataIds(const SecureString& sCompartmentId, SAFEARRAY** ppsaDataIdList,
                      unsigned int dwClientProcessId) override;
  // A new VT_BSTR vector of the last components of the direct children of
  // sCompartmentId, or of the sessions (keys without "/") for "/", in byte order
  // of the full paths. With nothing to list: S_OK and the output untouched. A
  // failure part way leaves the partly filled vector in the output.
  HRESULT ListCompartmentIds(const SecureString& sCompartmentId, SAFEARRAY** ppsCompartmentIdList,
                             unsigned int dwClientProcessId) override;
  // *pbCached says whether sCompartmentId is exactly a key; the versions are those
  // of its global path ("tree id/path", the tree id alone for "/", the path
  // itself in gHistoryTree). A failed version read writes no output.
  HRESULT IsCompartmentCached(const SecureString& sCompartmentId, unsigned long* pulCompartmentVersion,
                              unsigned long* pulContentVersion, signed char* pbCached,
                              unsigned int dwClientProcessId) override;
  // A new VT_BSTR vector of every full path in byte order, zero elements for an
  // empty tree. E_FAIL for a NULL output.
  HRESULT ListAllCompartmentIds(SAFEARRAY** ppsAllCompartmentIdList) override;

  // Appends every full path and its node, in byte order, to two parallel
  // vectors; always S_OK. The nodes stay the tree's.
  HRESULT ListNodes(std::vector<SecureString>& fullPaths, std::vector<CNode*>& nodes);

 private:
  typedef std::map<SecureString, CNode*> NodeMap;

  // An exact-match hash index of the entries of the node map, kept beside it
  // so that looking a full path up costs one hash and, as a rule, one string
  // comparison, whatever the size of the tree and however long the prefixes
  // the paths share. The map keeps the byte order for listings and range
  // walks; the index never decides an order. Open addressing with linear
  // probing and backward-shift deletion; each slot holds the key's hash (0
  // marks an empty slot) and the map entry, so about 30 bytes a key.
  class PathIndex {
   public:
    // The entry of sKey, or end.
    NodeMap::iterator Find(const SecureString& sKey, NodeMap::iterator end) const;
    // Makes room for one more entry, so that the next Insert can't fail.
    void MakeRoom();
    // Adds an entry whose key is not in the index yet, after MakeRoom.
    void Insert(NodeMap::iterator entry);
    // Removes an entry that is in the index.
    void Erase(NodeMap::iterator entry);
    void Clear();

   private:
    struct Slot {
      std::size_t hash;
      NodeMap::iterator entry;
    };
    static std::size_t Hash(const SecureString& sKey);

    std::vector<Slot> m_Slots;  // empty, or a power of two
    std::size_t m_Count = 0;
  };

  NodeMap::iterator Find(const SecureString& sCompartmentId);
  NodeMap::iterator Lookup(const SecureString& sCompartmentId);
  void Unlink(NodeMap::iterator entry);
  void ForgetRecent();
  CNode* WalkPath(const SecureString& sCompartmentId);
  std::vector<NodeMap::iterator> Subtree(const SecureString& sCompartmentId);
  NodeMap::iterator FirstOfSubtree(const SecureString& sCompartmentId);
  std::vector<SecureString> Children(const SecureString& sCompartmentId);
  std::vector<SecureString> Sessions();
  HRESULT RemoveSubtree(const SecureString& sCompartmentId);
  HRESULT PutIdentifiers(SAFEARRAY* psa, const std::vector<SecureString>& ids, const char* sOperation);

  NodeMap m_cFullPathNodeList;
  PathIndex m_Index;
  SecureString m_sTreeId;
  // Nodes unlinked by RemoveCompartment and FlushTree, freed with the tree.
  std::vector<CNode*> m_cRetiredNodes;
  // The entries Find found last, one for each key length modulo kRecent, or
  // end(). A store's SetData looks each path up twice in a row (its
  // compartment, then each level of the history path for every counter: once
  // to read, once to write), and it reads the compartment's counters before
  // it walks the history path from the top down. The levels of one path have
  // different lengths, so each keeps its own place here and is found again
  // without a search. Reset whenever entries are unlinked.
  static const std::size_t kRecent = 8;
  NodeMap::iterator m_Recent[kRecent];
};

#endif
