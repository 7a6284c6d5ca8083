// The data cache client: the road of a call, its result codes and log levels,
// registration, listing and flushing by product.

#include <algorithm>
#include <functional>

#include "datastore_test_support.h"

using namespace dstest;

TEST(DataClient, ReadsGiveCopiesAndTellNotFoundFromFailure) {
  const std::string id = StoreId();
  ASSERT_EQ(Register(id, 1), S_OK);
  CStaticDataCacheClient client;
  SAFEARRAY* value = MakeValue({"alpha", "beta"});
  ASSERT_EQ(client.SetData(Bstr(id), Bstr("s/c"), Bstr("item"), value), S_OK);
  SafeArrayDestroy(value);  // the store keeps its own copy
  SAFEARRAY* copies[2] = {nullptr, nullptr};
  for (SAFEARRAY*& copy : copies) ASSERT_EQ(client.GetData(Bstr(id), Bstr("s/c"), Bstr("item"), &copy), S_OK);
  EXPECT_NE(copies[0], copies[1]);
  for (SAFEARRAY* copy : copies) EXPECT_EQ(Take(copy), Strings({"alpha", "beta"}));
  EXPECT_EQ(client.GetData(Bstr(id), Bstr("s/c"), Bstr("item"), nullptr), S_OK);  // a test of existence

  // An absent item or compartment is not found, at detail level only.
  LogCapture log;
  EXPECT_EQ(Read(id, "s/c", "missing", E_INVALIDARG), Strings({"<no array>"}));
  EXPECT_EQ(Read(id, "nowhere", "item", E_INVALIDARG), Strings({"<no array>"}));
  EXPECT_TRUE(log.Contains(2, "CStaticDataCacheClient::GetData GetData : data not found"));
  for (const auto& e : log.Entries()) EXPECT_NE(e.level, 1) << e.text;
  FaultInjector faults;
  faults.FailWithCode("SafeArrayCopy", E_OUTOFMEMORY);  // the tree's copy
  EXPECT_EQ(Read(id, "s/c", "item", E_OUTOFMEMORY), Strings({"<no array>"}));
  EXPECT_TRUE(log.Contains(1, "CStaticDataCacheClient::GetData: GetData failed hr = 8007000e"));
}

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
    LogCapture log;
    const unsigned long before = b + v1 + v2;
    EXPECT_EQ(call(Bstr("no such store")), E_FAIL) << name;
    EXPECT_TRUE(log.Contains(1, "CStaticDataCacheClient::" + name + " Didn't find IDataStore with this id")) << name;
    EXPECT_EQ(call(Bstr("")), E_INVALIDARG) << name;
    EXPECT_EQ(b + v1 + v2, before) << name;  // no output written
    // A store that is not shared serves no compartment, but can be cleaned.
    const bool bCleaning = name == "RemoveCompartment" || name == "FlushStore" || name == "GetDataStoreInfo";
    EXPECT_EQ(call(Bstr(id)), bCleaning ? S_OK : E_FAIL) << name;
    EXPECT_EQ(log.Contains(1, "CInternalDataStore::" + name + " Shared between user sessions is not supported on "
                                  "this product. Please change the store configuration."), !bCleaning) << name;
  }
  EXPECT_EQ(b + v1 + v2, 0u);  // cleared before the refusal
  EXPECT_EQ(list, nullptr);
  EXPECT_EQ(Versions(id), V(0, 0));
  EXPECT_EQ(AllPaths(*Store(id)), Strings());

  // An empty identifier stops a serving store before outputs or tree.
  ASSERT_EQ(Register(id + "+", 1), S_OK);
  b = 7;
  EXPECT_EQ(c.IsCompartmentCached(Bstr(id + "+"), Bstr(""), &v1, &v2, &b), E_INVALIDARG);
  EXPECT_EQ(c.IsDataCached(Bstr(id + "+"), comp, Bstr(""), &b), E_INVALIDARG);
  EXPECT_EQ(c.SetData(Bstr(id + "+"), comp, Bstr(""), value), E_INVALIDARG);
  EXPECT_EQ(b, 7);
  EXPECT_EQ(AllPaths(*Store(id + "+")), Strings());
  SafeArrayDestroy(value);
}

TEST(DataClient, RegistrationRefusalsLeaveTheMapAsItWas) {
  const std::string id = StoreId();
  CStaticDataCacheClient client;
  ASSERT_EQ(Register(id, 1, "First"), S_OK);
  EXPECT_EQ(Register(id, 0, "Second"), E_FAIL);
  signed char bShared = 0;
  char* product = nullptr;
  ASSERT_EQ(client.GetDataStoreInfo(Bstr(id), nullptr, nullptr, &bShared, &product), S_OK);
  EXPECT_EQ(bShared, 1);
  EXPECT_STREQ(product, "First");
  qxSysFreeString(product, 0);
  EXPECT_EQ(Register(id + "2", 1, ""), E_INVALIDARG);  // no store without a product
  // Without a key file, every encrypted kind but the memory one fails its key set-up.
  Sandbox sandbox;
  EXPECT_EQ(Register(id + "3", 1, "P", QX::DataStore::TypeRemanent, 1), E_FAIL);
  EXPECT_EQ(Register(id + "4", 1, "P", static_cast<QX::DataStore::Type>(2), 1), E_FAIL);
  for (const char* tag : {"2", "3", "4"}) EXPECT_EQ(gStaticDataStoreRegistration.m_Stores.count(S(id + tag)), 0u);
  // Any other kind gets a memory tree and keeps its number.
  ASSERT_EQ(Register(id + "5", 1, "P", static_cast<QX::DataStore::Type>(2)), S_OK);
  QX::DataStore::Type eType = QX::DataStore::TypeMemory;
  ASSERT_EQ(client.GetDataStoreInfo(Bstr(id + "5"), &eType, nullptr, nullptr, nullptr), S_OK);
  EXPECT_EQ(eType, 2);
}

TEST(DataClient, ListsStoreIdsInByteOrderAndSkipsAFailedElement) {
  const std::string id = StoreId();
  ASSERT_EQ(Register(id + "B", 1), S_OK);
  ASSERT_EQ(Register(id + "A", 1), S_OK);
  CStaticDataCacheClient client;
  EXPECT_EQ(client.ListDataStoreIds(nullptr), S_OK);
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
  for (const char* tag : {"1", "2", "3"}) {
    ASSERT_EQ(Register(id + tag, 1, tag[0] == '3' ? id + "-P" : id + "-p"), S_OK);
    ASSERT_EQ(client.TouchCompartment(Bstr(id + tag), Bstr("c")), S_OK);
  }
  EXPECT_EQ(client.FlushDataStores(Bstr("")), E_INVALIDARG);
  EXPECT_EQ(client.FlushDataStores(Bstr(id + "-nobody")), S_OK);
  EXPECT_EQ(Versions(id + "1/c"), V(1, 1));
  EXPECT_EQ(client.FlushDataStores(Bstr(id + "-p")), S_OK);
  EXPECT_EQ(Versions(id + "1/c"), V(0, 0));
  EXPECT_EQ(Versions(id + "2/c"), V(0, 0));
  EXPECT_EQ(Versions(id + "3/c"), V(1, 1));  // products differ in case
  EXPECT_EQ(AllPaths(*Store(id + "2")), Strings());
  EXPECT_EQ(AllPaths(*Store(id + "3")), Strings{"c"});
}
