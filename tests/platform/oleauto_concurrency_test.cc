// The BSTR and SAFEARRAY service used from several threads at once.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "xk/oleauto.h"

namespace {

constexpr int kThreads = 4;

// Each thread makes, measures and frees its own strings while all of them lock
// and read one shared array.
int Worker(int t, SAFEARRAY* shared) {
  int errors = 0;
  std::vector<BSTR> held;
  char plain[] = "plain\0tail";
  for (int i = 0; i < 20000; ++i) {
    // Embedded NUL: only a BSTR the live set still knows gives its full length.
    const std::string text = std::to_string(t) + std::string(1, '\0') + std::to_string(i);
    held.push_back(SysAllocStringByteLen(text.data(), static_cast<unsigned>(text.size())));
    errors += SysStringLen(held.back()) != text.size() || SysStringLen(plain) != 5;
    if (held.size() == 64) {
      for (BSTR h : held) SysFreeString(h);
      held.clear();
    }
    void* data = nullptr;
    BSTR got = nullptr;
    int at[1] = {0};
    errors += SafeArrayLock(shared) != S_OK || SafeArrayAccessData(shared, &data) != S_OK;
    errors += SafeArrayGetElement(shared, at, &got) != S_OK || SysStringLen(got) != 6;
    SysFreeString(got);
    errors += SafeArrayUnaccessData(shared) != S_OK || SafeArrayUnlock(shared) != S_OK;
  }
  for (BSTR h : held) SysFreeString(h);
  return errors;
}

TEST(OleautoConcurrency, StringsAndOneArrayLockCountFromManyThreads) {
  SAFEARRAY* shared = SafeArrayCreateVector(VT_BSTR, 0, 1);
  ASSERT_NE(shared, nullptr);
  int at[1] = {0};
  ASSERT_EQ(SafeArrayPutElement(shared, at, const_cast<char*>("shared")), S_OK);
  std::vector<int> errors(kThreads, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) threads.emplace_back([&, t] { errors[t] = Worker(t, shared); });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(errors, std::vector<int>(kThreads, 0));
  EXPECT_EQ(shared->cLocks, 0u);
  EXPECT_EQ(SafeArrayDestroy(shared), S_OK);
}

// Released blocks are kept for reuse by the releasing thread, and a thread's
// blocks are freed when it ends: threads make and release arrays of every
// kept size, release arrays another thread made, and end while the arrays of
// the main thread stay whole.
TEST(OleautoConcurrency, ArraysMadeAndReleasedOnManyThreads) {
  auto make = [](int n) {
    SAFEARRAY* psa = SafeArrayCreateVector(VT_UI1, 0, static_cast<unsigned long>(n));
    if (psa != nullptr) std::memset(psa->pvData, n, static_cast<std::size_t>(n));
    return psa;
  };
  auto intact = [](SAFEARRAY* psa) {
    const std::size_t n = psa->rgsabound[0].cElements;
    return std::string(static_cast<char*>(psa->pvData), n) == std::string(n, static_cast<char>(n));
  };
  std::vector<SAFEARRAY*> mine;
  for (int n = 0; n < 100; ++n) mine.push_back(make(n));
  std::vector<std::vector<SAFEARRAY*>> handed(kThreads);
  for (int t = 0; t < kThreads; ++t)
    for (int n = 0; n < 100; ++n) handed[t].push_back(make(n));
  std::vector<int> errors(kThreads, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (SAFEARRAY* psa : handed[t]) errors[t] += !intact(psa) || SafeArrayDestroy(psa) != S_OK;
      for (int i = 0; i < 5000; ++i) {
        SAFEARRAY* a = make(i % 100);
        SAFEARRAY* b = make((i * 7) % 100);
        errors[t] += a == nullptr || b == nullptr || !intact(a) || !intact(b);
        SafeArrayDestroy(b);
        SafeArrayDestroy(a);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(errors, std::vector<int>(kThreads, 0));
  for (SAFEARRAY* psa : mine) {
    EXPECT_TRUE(intact(psa));
    EXPECT_EQ(SafeArrayDestroy(psa), S_OK);
  }
}

}  // namespace
