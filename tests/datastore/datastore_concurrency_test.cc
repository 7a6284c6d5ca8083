// Three stores written from three threads at once share the version history
// (the third store keeps its values in the registry), while two more threads
// report and query sessions of one of them.

#include <latch>
#include <thread>

#include "datastore_test_support.h"
#include "xk/registry.h"

using namespace dstest;

TEST(DataStoreConcurrency, StoresWrittenAtOnceKeepExactCounters) {
  const unsigned long kRounds = 200;
  const std::string ids[3] = {StoreId("-A"), StoreId("-B"), StoreId("-R")};
  ASSERT_EQ(Register(ids[0], 1), S_OK);
  ASSERT_EQ(Register(ids[1], 1), S_OK);
  // The remanent store starts empty, whatever an earlier run left in the registry.
  const std::string remanentKey = "Software\\Norvane Co\\Merrowstore\\RemanentDataStore\\" + ids[2];
  qxRegDeleteSubKey("HKEY_LOCAL_MACHINE", remanentKey.c_str(), 0, 0);
  ASSERT_EQ(Register(ids[2], 1, "Keldara", QX::DataStore::TypeRemanent), S_OK);
  std::latch start(5);
  auto writer = [&](const std::string& id) {
    CStaticDataCacheClient client;
    start.arrive_and_wait();
    for (unsigned long i = 0; i < kRounds; ++i) {
      Bstr comp("s/c" + std::to_string(i % 4)), data("d" + std::to_string(i));
      SAFEARRAY* value = MakeValue({id, static_cast<char*>(data)});
      EXPECT_EQ(client.SetData(Bstr(id), comp, data, value), S_OK);
      SafeArrayDestroy(value);
      SAFEARRAY* out = nullptr;
      EXPECT_EQ(client.GetData(Bstr(id), comp, data, &out), S_OK);
      EXPECT_EQ(Take(out), (std::vector<std::string>{id, static_cast<char*>(data)}));
      EXPECT_EQ(client.RemoveData(Bstr(id), comp, data), S_OK);
    }
  };
  auto sessions = [&](unsigned int first) {
    start.arrive_and_wait();
    for (unsigned long i = 0; i < kRounds; ++i) {
      signed char b = 0;
      Store(ids[0])->SetAvailabilityStoreFromSessionId(first + i % 3, static_cast<signed char>(i % 2));
      Store(ids[0])->GetAvailabilityStoreFromSessionId(first + i % 3, b);
    }
  };
  std::thread threads[] = {std::thread(writer, ids[0]), std::thread(writer, ids[1]), std::thread(writer, ids[2]),
                           std::thread(sessions, 0), std::thread(sessions, 1)};
  for (std::thread& t : threads) t.join();

  // Every write and every removal moved the content counters once; each of the
  // four compartments was new once.
  for (const std::string& id : ids) {
    EXPECT_EQ(Versions(id), V(4, 2 * kRounds)) << id;
    EXPECT_EQ(Versions(id + "/s"), V(4, 2 * kRounds)) << id;
    EXPECT_EQ(Versions(id + "/s/c3"), V(1, 2 * kRounds / 4)) << id;
  }
}
