// Many threads of one process on the registry: calls are serialised and
// handles are shared freely.

#include <string>
#include <thread>
#include <vector>

#include "../support/registry_support.h"

namespace {

using namespace regtest;
using RegistryConcurrencyTest = RegistryTest;

TEST_F(RegistryConcurrencyTest, ThreadsShareHandlesAndLoseNoWrite) {
  constexpr int kThreads = 4;
  constexpr int kValues = 100;
  HKEY shared = Create("T");
  std::vector<long> failures(kThreads + 1, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kValues; ++i) {
        // Each thread also opens and closes handles of its own meanwhile.
        HKEY own = Create(("T\\t" + std::to_string(t)).c_str());
        const std::string name = std::to_string(t) + "_" + std::to_string(i), bytes(reinterpret_cast<char*>(&i), sizeof i);
        failures[t] += Set(shared, name.c_str(), bytes, REG_DWORD) != ERROR_SUCCESS || xkRegCloseKey(own) != ERROR_SUCCESS;
      }
    });
  }
  threads.emplace_back([&] {
    // A reader whose two-pass listings see the key grow but never fail.
    for (int i = 0; i < kValues; ++i) {
      unsigned int count = 0;
      if (qxRegListValueNamesEx(kHklm, "T", nullptr, &count, 0xFFFFFFFF, 0) != ERROR_SUCCESS) ++failures[kThreads];
      std::vector<qxRegValue_> records(count);
      unsigned int again = count;
      if (qxRegListValueNamesEx(kHklm, "T", records.data(), &again, 0xFFFFFFFF, 0) != ERROR_SUCCESS ||
          again < count) {
        ++failures[kThreads];
      }
    }
  });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures, std::vector<long>(kThreads + 1, 0));

  EXPECT_EQ(ValueNames("T", 1u << REG_DWORD).size(), static_cast<std::size_t>(kThreads * kValues));
  unsigned int number = 0;
  ASSERT_EQ(qxRegReadDWORDValueEx(kHklm, "T", "3_99", &number, 0), ERROR_SUCCESS);
  EXPECT_EQ(number, 99u);
  EXPECT_EQ(xkRegCloseKey(shared), ERROR_SUCCESS);
}

TEST_F(RegistryConcurrencyTest, ABatchHasTheRegistryToItselfUntilItEnds) {
  HKEY key = Create("C");
  ASSERT_EQ(Set(key, "n", std::string(4, '\0'), REG_DWORD), ERROR_SUCCESS);

  // Read, add one, write back, each time in a batch: an increment is lost as
  // soon as another thread's call gets in between, or lands in another
  // thread's transaction that is then rolled back.
  constexpr int kThreads = 3;
  constexpr int kRounds = 100;
  std::vector<int> failures(kThreads, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kRounds; ++i) {
        xk::registry::Batch batch(t == 0 ? XK_REG_BATCH_READ : XK_REG_BATCH_WRITE);
        unsigned int n = 0;
        if (qxRegReadDWORDValueEx(kHklm, "C", "n", &n, 0) != ERROR_SUCCESS) ++failures[t];
        ++n;
        if (xkRegSetValueEx(key, "n", 0, REG_DWORD, reinterpret_cast<const unsigned char*>(&n), sizeof n) !=
                ERROR_SUCCESS ||
            batch.Commit() != ERROR_SUCCESS) {
          ++failures[t];
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures, std::vector<int>(kThreads, 0));
  unsigned int n = 0;
  ASSERT_EQ(qxRegReadDWORDValueEx(kHklm, "C", "n", &n, 0), ERROR_SUCCESS);
  EXPECT_EQ(n, static_cast<unsigned int>(kThreads * kRounds));
  EXPECT_EQ(xkRegCloseKey(key), ERROR_SUCCESS);
}

}  // namespace
