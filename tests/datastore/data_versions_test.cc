// The version counters that each data store event moves, read back from the
// shared history under "store id/compartment path".

#include "datastore_test_support.h"

using namespace dstest;

namespace {

class DataVersions : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(Register(m_Id, 1), S_OK); }
  V At(const std::string& path) { return Versions(path.empty() ? m_Id : m_Id + "/" + path); }
  HRESULT Set(const std::string& comp) { return Write(m_Id, comp, "x", {"v"}); }
  signed char Cached(const std::string& comp, V* versions = nullptr) {
    V v;
    signed char b = 9;
    EXPECT_EQ(m_Client.IsCompartmentCached(Bstr(m_Id), Bstr(comp), &v.first, &v.second, &b), S_OK);
    if (versions != nullptr) *versions = v;
    return b;
  }

  std::string m_Id = StoreId();
  CStaticDataCacheClient m_Client;
};

}  // namespace

// (Writes, reads and removals of items at every level are the concurrency
// test's exact counts; a removal's own counters mstore's script.)
TEST_F(DataVersions, EachEventMovesItsCountersAndARemovalKeepsOrForgetsThem) {
  ASSERT_EQ(Set("a/b"), S_OK);
  ASSERT_EQ(Set("a/b"), S_OK);
  EXPECT_EQ(m_Client.RemoveData(Bstr(m_Id), Bstr("a/b"), Bstr("x")), S_OK);
  EXPECT_EQ(m_Client.RemoveData(Bstr(m_Id), Bstr("a/b"), Bstr("x")), E_INVALIDARG);  // absent: nothing moves
  EXPECT_EQ(m_Client.CreateCompartment(Bstr(m_Id), Bstr("a/b")), S_OK);             // exists: nothing moves
  EXPECT_EQ(At("a/b"), V(1, 3));
  EXPECT_EQ(m_Client.CreateCompartment(Bstr(m_Id), Bstr("a/n")), S_OK);
  EXPECT_EQ(At("a/n"), V(1, 1));
  EXPECT_EQ(At("a"), V(2, 4));
  EXPECT_EQ(m_Client.TouchCompartment(Bstr(m_Id), Bstr("t")), S_OK);  // absent: created
  EXPECT_EQ(Cached("t"), 1);
  EXPECT_EQ(At("t"), V(1, 1));
  ASSERT_EQ(Set("a/b"), S_OK);
  EXPECT_EQ(m_Client.TouchCompartment(Bstr(m_Id), Bstr("a/b")), S_OK);  // present: counters only
  EXPECT_EQ(At("a/b"), V(2, 5));
  V store;
  EXPECT_EQ(Cached("/", &store), 0);  // "/" is the store itself, and no compartment
  EXPECT_EQ(store, At(""));

  // A removal raises the counters or, asked to, forgets them.
  ASSERT_EQ(Set("r/b/c"), S_OK);
  EXPECT_EQ(m_Client.RemoveCompartment(Bstr(m_Id), Bstr("r/b"), 0), S_OK);
  EXPECT_EQ(Cached("r/b") + Cached("r/b/c"), 0);
  EXPECT_EQ(Cached("r"), 1);
  EXPECT_EQ(At("r/b/c"), V(2, 2));  // by the tree, for the descendant
  ASSERT_EQ(Set("r/b/c"), S_OK);
  EXPECT_EQ(m_Client.RemoveCompartment(Bstr(m_Id), Bstr("r/b"), 1), S_OK);
  EXPECT_EQ(At("r/b/c"), V(0, 0));
  ASSERT_EQ(Set("r/b"), S_OK);
  EXPECT_EQ(At("r/b"), V(1, 1));  // counts anew
}
