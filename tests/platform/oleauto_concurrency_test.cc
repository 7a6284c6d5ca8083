// The BSTR and SAFEARRAY service used from several threads at once.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "xk/oleauto.h"

namespace {

constexpr int kThreads = 4;

// Runs `body(t)` on threads 0 to kThreads - 1 at once; the errors each counted.
template <typename Body>
std::vector<int> OnThreads(Body body) {
  std::vector<int> errors(kThreads, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) threads.emplace_back([&, t] { errors[t] = body(t); });
  for (auto& thread : threads) thread.join();
  return errors;
}

TEST(OleautoConcurrency, StringsAndOneArrayLockCountFromManyThreads) {
  SAFEARRAY* shared = SafeArrayCreateVector(VT_BSTR, 0, 1);
  ASSERT_NE(shared, nullptr);
  int at[1] = {0};
  ASSERT_EQ(SafeArrayPutElement(shared, at, const_cast<char*>("shared")), S_OK);
  // Each thread makes, measures and frees its own strings while all of them
  // lock and read the shared array.
  const std::vector<int> errors = OnThreads([shared](int t) {
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
  });
  EXPECT_EQ(errors, std::vector<int>(kThreads, 0));
  EXPECT_EQ(shared->cLocks, 0u);
  EXPECT_EQ(SafeArrayDestroy(shared), S_OK);
}

// An array and a string of n bytes, every byte telling n: a block handed out
// twice, or kept for a size it is too small for, shows as a changed value.
struct Pair {
  SAFEARRAY* psa;
  BSTR text;
};
Pair Make(int n) {
  SAFEARRAY* psa = SafeArrayCreateVector(VT_UI1, 0, static_cast<unsigned long>(n));
  if (psa != nullptr) std::memset(psa->pvData, n, static_cast<std::size_t>(n));
  return {psa, SysAllocStringByteLen(std::string(static_cast<std::size_t>(n), char('a' + n % 26)).data(), n)};
}
bool Intact(const Pair& p) {
  const std::size_t n = p.psa == nullptr ? 0 : p.psa->rgsabound[0].cElements;
  return p.psa != nullptr && std::string(static_cast<char*>(p.psa->pvData), n) == std::string(n, char(n)) &&
         std::string(p.text, SysStringByteLen(p.text)) == std::string(n, char('a' + n % 26));
}
void Free(const Pair& p) {
  SafeArrayDestroy(p.psa);
  SysFreeString(p.text);
}

// Released blocks are kept for reuse by the releasing thread, and a thread's
// blocks are freed when it ends. Threads release what another thread made,
// make and release in turn arrays and strings of every kept size and some
// larger while many of them live, and end while the main thread's stay whole.
TEST(OleautoConcurrency, ArraysAndStringsMadeAndReleasedOnManyThreads) {
  constexpr int kSizes = 161;
  std::vector<Pair> mine;
  for (int n = 0; n < kSizes; ++n) mine.push_back(Make(n));
  std::vector<std::vector<Pair>> handed(kThreads);
  for (auto& each : handed)
    for (int n = 0; n < kSizes; ++n) each.push_back(Make(n));
  const std::vector<int> errors = OnThreads([&handed](int t) {
    int errors = 0;
    for (const Pair& p : handed[t]) {
      errors += !Intact(p);
      Free(p);
    }
    std::vector<Pair> live;
    for (int n = 0; n < kSizes; ++n) live.push_back(Make(n));
    for (std::size_t round = 0; round < 20; ++round) {
      for (std::size_t i = round % 2; i < live.size(); i += 2) {
        Free(live[i]);
        live[i] = Make(static_cast<int>((i * 7 + round) % kSizes));
      }
      for (const Pair& p : live) errors += !Intact(p);
    }
    for (const Pair& p : live) Free(p);
    return errors;
  });
  EXPECT_EQ(errors, std::vector<int>(kThreads, 0));
  for (const Pair& p : mine) {
    EXPECT_TRUE(Intact(p));
    Free(p);
  }
}

}  // namespace
