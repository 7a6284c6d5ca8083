#ifndef MERROWSTORE_TREES_VERSIONHISTORY_H
#define MERROWSTORE_TREES_VERSIONHISTORY_H

#include "merrowstore/export.h"
#include "trees/AbstractTree.h"
#include "xk/hresult.h"
#include "xk/reentrant_mutex.h"
#include "xk/secure_types.h"

// The version history: two counters per compartment, "CompartmentVersion" and
// "ContentVersion", each a one-element VT_UINT vector kept in the shared memory
// tree gHistoryTree under the compartment's global path (tree id, "/", path).
// Counters read as 0 while absent, start at 1 and wrap at 32 bits.

// The shared version tree, NULL at load. The data store registration creates it
// once (a CMemoryTree with the tree id "History"); nothing deletes it. Every use
// of the tree it points to is serialised by HistoryLock.
extern MERROWSTORE_EXPORT CAbstractTree* gHistoryTree;

// The history lock itself; never used directly.
extern MERROWSTORE_EXPORT xk::ReentrantMutex gHistoryMutex;

// The one lock of gHistoryTree, held while it lives. The version functions take
// it themselves, and so does every operation of the memory tree that is
// gHistoryTree; a caller that makes several calls on gHistoryTree in a row
// takes it around them. It is recursive, and is always taken under, never
// around, a store's mutex.
class MERROWSTORE_EXPORT HistoryLock {
 public:
  HistoryLock() : HistoryLock(true) {}
  // Takes the lock only when bTake is true.
  explicit HistoryLock(bool bTake) : m_bTaken(bTake) {
    if (m_bTaken) gHistoryMutex.lock();
  }
  ~HistoryLock() {
    if (m_bTaken) gHistoryMutex.unlock();
  }
  HistoryLock(const HistoryLock&) = delete;
  HistoryLock& operator=(const HistoryLock&) = delete;

 private:
  bool m_bTaken;
};

// Raises one counter of sCompartmentIdGlobal alone: "ContentVersion" for a
// non-zero nVersionKind, "CompartmentVersion" for 0. A counter that can't be
// read starts again at 1. E_FAIL when gHistoryTree is NULL; otherwise the result
// of the last array destruction, so a failed write is logged but not returned.
MERROWSTORE_EXPORT HRESULT UpdateVersion(const SecureString& sCompartmentIdGlobal, int nVersionKind);

// Raises counters of every prefix of sCompartmentIdGlobal at "/" boundaries,
// shortest first: -1 both counters, 0 the compartment counter, 1 the content
// counter, any other value none. Stops at the first failed UpdateVersion and
// returns its result; otherwise the last UpdateVersion's, or S_OK if none ran.
MERROWSTORE_EXPORT HRESULT UpdateHistoryTree(const SecureString& sCompartmentIdGlobal, int nVersionKind);

// Reads both counters of sCompartmentIdGlobal (0 while absent). Writes each
// non-null output even on failure. E_FAIL when gHistoryTree or
// pulCompartmentVersion is NULL; pulContentVersion may be NULL.
MERROWSTORE_EXPORT HRESULT GetVersion(const SecureString& sCompartmentIdGlobal, unsigned long* pulCompartmentVersion,
                                      unsigned long* pulContentVersion);

#endif
