// What only the store itself shows: its lifecycle, the sessions of a store that
// is not shared, and the branches that a missing history or a failing value
// service reaches.

#include "datastore_test_support.h"

using namespace dstest;
using QX::DataStore::TypeMemory;

// Writes item "d" straight into the store's tree.
static void Put(CInternalDataStore& store, const std::string& comp) {
  Put(*CInternalDataStoreTestPeer::Tree(store), comp, "d");
}

TEST(DataStore, WithoutATreeEveryOperationRefusesAfterClearingItsOutputs) {
  CInternalDataStore store;
  EXPECT_EQ(store.Begin(Bstr(""), TypeMemory, 0, 1, S("P")), E_INVALIDARG);
  ASSERT_EQ(store.Begin(Bstr(StoreId()), TypeMemory, 0, 1, S("P")), S_OK);
  EXPECT_EQ(store.End(), S_OK);
  unsigned long v1 = 7, v2 = 7;
  signed char b = 7;
  EXPECT_EQ(store.IsCompartmentCached(0, Bstr("c"), &v1, &v2, &b), E_FAIL);
  EXPECT_EQ(v1 + v2 + b, 0u);
  EXPECT_EQ(store.RemoveCompartment(0, Bstr("c"), 1), E_FAIL);
  EXPECT_EQ(store.FlushStore(0), E_FAIL);
  EXPECT_EQ(store.FlushStoreFromSessionId(1), E_FAIL);
}

// A store that is not shared keeps each session's compartments below the
// session's number: a removal reaches into every session, a flush by session
// empties one. A shared store has no session to flush.
TEST(DataStore, AStoreNotSharedWorksSessionBySession) {
  const std::string id = StoreId();
  CInternalDataStore store;
  ASSERT_EQ(store.Begin(Bstr(id), TypeMemory, 0, 0, S("P")), S_OK);
  for (const char* path : {"3/x/y", "4/x", "5/z"}) Put(store, path);
  EXPECT_EQ(store.RemoveCompartment(0, Bstr("x"), 0), S_OK);
  EXPECT_EQ(AllPaths(store), (Strings{"3", "4", "5", "5/z"}));
  EXPECT_EQ(Versions(id + "/4/x"), V(1, 1));
  EXPECT_EQ(store.RemoveCompartment(0, Bstr("/"), 1), S_OK);  // each session whole
  EXPECT_TRUE(AllPaths(store).empty());
  EXPECT_EQ(store.RemoveCompartment(0, Bstr("/"), 1), S_OK);  // no session: nothing to do

  // Without a history the tree fails on a compartment with descendants: the
  // walk stops at the second session, the first stays removed.
  for (const char* path : {"3/x", "4/x/y", "5/x", "6/a"}) Put(store, path);
  {
    NoHistory none;
    EXPECT_EQ(store.RemoveCompartment(0, Bstr("x"), 1), E_FAIL);
  }
  EXPECT_EQ(AllPaths(store), (Strings{"3", "4", "5", "5/x", "6", "6/a"}));

  for (const char* path : {"5/x", "6/a"}) ASSERT_EQ(UpdateHistoryTree(S(id + "/" + path), -1), S_OK);
  EXPECT_EQ(store.FlushStoreFromSessionId(5), S_OK);
  EXPECT_EQ(AllPaths(store), (Strings{"3", "4", "6", "6/a"}));
  EXPECT_EQ(Versions(id + "/5/x"), V(0, 0));
  EXPECT_EQ(Versions(id + "/6/a"), V(1, 1));
  {
    NoHistory none;
    EXPECT_EQ(store.FlushStoreFromSessionId(4), S_OK);
  }
  EXPECT_EQ(AllPaths(store), (Strings{"3", "6", "6/a"}));
  store.End();

  CInternalDataStore shared;
  ASSERT_EQ(shared.Begin(Bstr(id + "S"), TypeMemory, 0, 1, S("P")), S_OK);
  Put(shared, "7/a");
  ASSERT_EQ(UpdateHistoryTree(S(id + "S/7/a"), -1), S_OK);
  EXPECT_EQ(shared.FlushStoreFromSessionId(7), S_OK);  // names "/": removes nothing
  EXPECT_EQ(Versions(id + "S/7/a"), V(1, 1));
  EXPECT_EQ(AllPaths(shared).size(), 2u);
  shared.End();
}

TEST(DataStore, FailuresAfterTheTreeChangedRollNothingBack) {
  const std::string id = StoreId();
  ASSERT_EQ(Register(id, 1), S_OK);
  ASSERT_EQ(Write(id, "c", "d", {"v"}), S_OK);
  {
    NoHistory none;  // the removal stands although its version update fails
    EXPECT_EQ(CStaticDataCacheClient().RemoveCompartment(Bstr(id), Bstr("c"), 0), E_FAIL);
  }
  EXPECT_EQ(AllPaths(*Store(id)), Strings());
  ASSERT_EQ(Write(id, "c", "d", {"v"}), S_OK);
  FaultInjector faults;
  {
    LeakAllowedScope leaks;  // the store's own copy is lost when its destruction fails
    faults.FailWithCode("qxSafeArrayDestroy", E_FAIL, 1);
    EXPECT_EQ(Read(id, "c", "d"), Strings{"v"}) << "the caller still gets its value";
  }
  faults.FailWithCode("SafeArrayCopy", E_OUTOFMEMORY, 1);  // the tree's copy for the caller
  EXPECT_EQ(Read(id, "c", "d", E_OUTOFMEMORY), Strings{"<no array>"});
  // SetData doesn't look at its own copy: when that fails the tree is handed
  // NULL, a valid empty value, which replaces the old one.
  faults.FailWithCode("SafeArrayCopy", E_OUTOFMEMORY, 1);
  EXPECT_EQ(Write(id, "c", "d", {"v"}), S_OK);
  EXPECT_EQ(Read(id, "c", "d"), Strings{"<no array>"});
}
