// The BSTR and SAFEARRAY service used from several threads at once.

#include <gtest/gtest.h>

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

}  // namespace
