#ifndef MERROWSTORE_TESTS_TREES_TREE_TEST_SUPPORT_H
#define MERROWSTORE_TESTS_TREES_TREE_TEST_SUPPORT_H

// Shared by the tree tests: values, reading listings, a private gHistoryTree
// per test, and a scope whose allocations may leak (failed destructions).

#include <gtest/gtest.h>

#include "trees/MemoryTree.h"
#include "trees/VersionHistory.h"
#include "xk/testsupport.h"
#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace treetest {

typedef std::vector<std::string> Strings;
using xk::test::FaultInjector;
using xk::test::LogCapture;

inline SecureString S(const std::string& s) { return SecureString(s.data(), s.size()); }

// A VT_BSTR vector of `items`, owned by the caller.
inline SAFEARRAY* MakeValue(const Strings& items) {
  SAFEARRAY* psa = SafeArrayCreateVector(VT_BSTR, 0, items.size());
  for (int i = 0; i < static_cast<int>(items.size()); ++i) EXPECT_EQ(SafeArrayPutElement(psa, &i, const_cast<char*>(items[i].c_str())), S_OK);
  return psa;
}

// Reads and destroys a VT_BSTR vector; a NULL element reads "<null>".
inline Strings Take(SAFEARRAY* psa) {
  EXPECT_NE(psa, nullptr);
  Strings out;
  for (int i = 0; psa != nullptr && i < static_cast<int>(psa->rgsabound->cElements); ++i) {
    BSTR b = nullptr;
    EXPECT_EQ(SafeArrayGetElement(psa, &i, &b), S_OK);
    out.push_back(b == nullptr ? "<null>" : std::string(b, SysStringByteLen(b)));
    SysFreeString(b);
  }
  EXPECT_EQ(SafeArrayDestroy(psa), S_OK);
  return out;
}

inline void Put(CAbstractTree& tree, const std::string& compartment, const std::string& id, const std::string& text = "v") {
  SAFEARRAY* v = MakeValue({text});
  EXPECT_EQ(tree.SetData(S(compartment), S(id), v, 0, 0), S_OK);
  SafeArrayDestroy(v);
}

// The stored value, empty when GetData fails.
inline Strings Stored(CAbstractTree& tree, const std::string& compartment, const std::string& id) {
  SAFEARRAY* psa = nullptr;
  return tree.GetData(S(compartment), S(id), psa, 0) == S_OK ? Take(psa) : Strings();
}

inline Strings AllKeys(CAbstractTree& tree) {
  SAFEARRAY* psa = nullptr;
  EXPECT_EQ(tree.ListAllCompartmentIds(&psa), S_OK);
  return Take(psa);
}

// Both counters of a history path, as {compartment, content}.
inline std::vector<unsigned long> Versions(const std::string& global) {
  std::vector<unsigned long> v(2, 99);
  EXPECT_EQ(GetVersion(S(global), &v[0], &v[1]), S_OK);
  return v;
}
typedef std::vector<unsigned long> V;

// Gives each test a fresh gHistoryTree, putting back the one the library made
// at load afterwards.
class HistoryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_pLoaded = gHistoryTree;
    gHistoryTree = new CMemoryTree(S("History"));
  }
  void TearDown() override {
    DropHistory();
    gHistoryTree = m_pLoaded;
  }
  static void DropHistory() {
    delete gHistoryTree;
    gHistoryTree = nullptr;
  }
  // A fresh, empty history in place of the current one.
  static void RenewHistory() {
    DropHistory();
    gHistoryTree = new CMemoryTree(S("History"));
  }

 private:
  CAbstractTree* m_pLoaded = nullptr;
};

// Allocations made while it lives are not reported as leaks.
struct LeakAllowedScope {
#if defined(__SANITIZE_ADDRESS__)
  __lsan::ScopedDisabler disabler;
#endif
  LeakAllowedScope() {}
};

}  // namespace treetest

#endif
