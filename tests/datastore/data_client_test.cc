// The data cache client: the road of a call, its result codes and log levels,
// registration, listing and flushing by product.

#include <algorithm>
#include <functional>

#include "datastore_test_support.h"

using namespace dstest;

TEST(DataClient, UnknownStoresEmptyIdsAndStoresNotSharedAreRefused) {
  const std::string id = StoreId();
  ASSERT_EQ(Register(id, 0), S_OK);
  CStaticDataCacheClient c;
  signed char b = 7;
  unsigned long v1 = 7, v2 = 7;
  SAFEARRAY* list = nullptr;
  SAFEARRAY* value = MakeValue({"v"});
  Bstr comp("c"), data("d");
  const std::vector<std::pair<std::string, std::function<HRESULT(char*)>>> members = {
      {"SetData", [&](char* s) { return c.SetData(s, comp, data, value); }},
      {"GetData", [&](char* s) { return c.GetData(s, comp, data, &list); }},
      {"RemoveData", [&](char* s) { return c.RemoveData(s, comp, data); }},
      {"CreateCompartment", [&](char* s) { return c.CreateCompartment(s, comp); }},
      {"TouchCompartment", [&](char* s) { return c.TouchCompartment(s, comp); }},
      {"IsDataCached", [&](char* s) { return c.IsDataCached(s, comp, data, &b); }},
      {"ListDataIds", [&](char* s) { return c.ListDataIds(s, comp, &list); }},
      {"ListCompartmentIds", [&](char* s) { return c.ListCompartmentIds(s, comp, &list); }},
      {"IsCompartmentCached", [&](char* s) { return c.IsCompartmentCached(s, comp, &v1, &v2, &b); }},
      {"RemoveCompartment", [&](char* s) { return c.RemoveCompartment(s, comp, 0); }},
      {"FlushStore", [&](char* s) { return c.FlushStore(s); }},
      {"GetDataStoreInfo", [&](char* s) { return c.GetDataStoreInfo(s, nullptr, nullptr, nullptr, nullptr); }},
  };
  for (auto& [name, call] : members) {
    const unsigned long before = b + v1 + v2;
    EXPECT_EQ(call(Bstr("no such store")), E_FAIL) << name;
    EXPECT_EQ(call(Bstr("")), E_INVALIDARG) << name;
    EXPECT_EQ(b + v1 + v2, before) << name;  // no output written
    // A store that is not shared serves no compartment, but can be cleaned.
    const bool bCleaning = name == "RemoveCompartment" || name == "FlushStore" || name == "GetDataStoreInfo";
    EXPECT_EQ(call(Bstr(id)), bCleaning ? S_OK : E_FAIL) << name;
  }
  EXPECT_EQ(b + v1 + v2, 0u);  // cleared before the refusal
  EXPECT_EQ(list, nullptr);
  EXPECT_EQ(Versions(id), V(0, 0));
  EXPECT_EQ(AllPaths(*Store(id)), Strings());

  // An empty identifier stops a serving store before outputs or tree.
  ASSERT_EQ(Register(id + "+", 1), S_OK);
  b = 7;
  EXPECT_EQ(c.IsCompartmentCached(Bstr(id + "+"), Bstr(""), &v1, &v2, &b), E_INVALIDARG);
  EXPECT_EQ(b, 7);
  EXPECT_EQ(c.SetData(Bstr(id + "+"), comp, Bstr(""), value), E_INVALIDARG);
  EXPECT_EQ(AllPaths(*Store(id + "+")), Strings());
  SafeArrayDestroy(value);
}

// The map of stores: a second registration of an id keeps the first store;
// ids are listed in byte order. (What each store reports, and the stores
// refused for an empty product or a failed Begin, are mstore's and the load
// test's.)
TEST(DataClient, TheStoreMapKeepsItsStoresAndListsThemInByteOrder) {
  const std::string id = StoreId();
  CStaticDataCacheClient client;
  ASSERT_EQ(Register(id, 1, "First"), S_OK);
  EXPECT_EQ(Register(id, 0, "Second"), E_FAIL);
  signed char bShared = 0;
  ASSERT_EQ(client.GetDataStoreInfo(Bstr(id), nullptr, nullptr, &bShared, nullptr), S_OK);
  EXPECT_EQ(bShared, 1);
  ASSERT_EQ(Register(id + "B", 1), S_OK);
  ASSERT_EQ(Register(id + "A", 1), S_OK);
  SAFEARRAY* psa = nullptr;
  ASSERT_EQ(client.ListDataStoreIds(&psa), S_OK);
  const Strings ids = Take(psa);
  ASSERT_EQ(ids.size(), gStaticDataStoreRegistration.m_Stores.size());
  auto a = std::find(ids.begin(), ids.end(), id + "A");
  EXPECT_TRUE(a != ids.end() && a + 1 != ids.end() && a[1] == id + "B");
  // Later ids move up into the failed slot, the last slot stays empty, and
  // only the last id's outcome is returned.
  FaultInjector faults;
  faults.FailWithCode("SafeArrayPutElement", E_OUTOFMEMORY, 1);
  ASSERT_EQ(client.ListDataStoreIds(&psa), S_OK);
  Strings expected(ids.begin() + 1, ids.end());
  expected.push_back("<null>");
  EXPECT_EQ(Take(psa), expected);
  faults.FailWithCode("SafeArrayPutElement", E_OUTOFMEMORY, static_cast<unsigned>(ids.size()));
  EXPECT_EQ(client.ListDataStoreIds(&psa), E_OUTOFMEMORY);
  Take(psa);
}

TEST(DataClient, FlushDataStoresFlushesExactlyTheStoresOfAProduct) {
  const std::string id = StoreId();
  CStaticDataCacheClient client;
  for (const char* tag : {"1", "2", "1x"}) {  // "1x" begins with another store's id
    ASSERT_EQ(Register(id + tag, 1, tag[1] == 'x' ? id + "-P" : id + "-p"), S_OK);
    ASSERT_EQ(client.TouchCompartment(Bstr(id + tag), Bstr("c")), S_OK);
  }
  EXPECT_EQ(client.FlushDataStores(Bstr("")), E_INVALIDARG);
  EXPECT_EQ(client.FlushDataStores(Bstr(id + "-nobody")), S_OK);
  EXPECT_EQ(client.FlushDataStores(Bstr(id + "-p")), S_OK);
  EXPECT_EQ(Versions(id + "1"), V(0, 0)) << "the store's whole history goes";
  EXPECT_EQ(Versions(id + "2/c"), V(0, 0));
  EXPECT_EQ(Versions(id + "1x/c"), V(1, 1));  // products differ in case
  EXPECT_EQ(AllPaths(*Store(id + "2")), Strings());
  EXPECT_EQ(AllPaths(*Store(id + "1x")), Strings{"c"});
  EXPECT_EQ(client.FlushStore(Bstr(id + "1")), S_OK) << "no history left to remove";
}
