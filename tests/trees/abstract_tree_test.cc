// Session lookup and compartment move, written on the tree contract and
// exercised on memory trees.

#include "trees/AbstractTree.h"

#include "tree_test_support.h"

namespace {

using namespace treetest;

class SessionsAndMoves : public HistoryTest {
 protected:
  std::string FindSession(const std::string& session, const std::string& sub, HRESULT expected = S_OK) {
    SecureString found("untouched");
    EXPECT_EQ(tree_.FindSessionId(S(session), S(sub), found), expected);
    return std::string(found.data(), found.size());
  }
  Strings Sessions(HRESULT expected = S_OK) {
    std::list<SecureString> sessions{S("stale")};
    EXPECT_EQ(tree_.GetSessionIdList(sessions), expected);
    return Strings(sessions.begin(), sessions.end());
  }
  CMemoryTree tree_{S("T")};
};

TEST_F(SessionsAndMoves, FindSessionId) {
  EXPECT_EQ(FindSession("5", "x"), "5") << "a concrete session is believed";
  EXPECT_EQ(FindSession("0", "x"), "0") << "an empty tree finds nothing, successfully";
  for (const char* path : {"0/x", "7/x", "3/x", "10/x", "3/a/b/c"}) Put(tree_, path, "d");
  EXPECT_EQ(FindSession("0", "x"), "10") << "the first session in byte order wins, \"0\" skipped";
  EXPECT_EQ(FindSession("0", "x/y"), "0");
  EXPECT_EQ(Sessions(), Strings({"0", "10", "3", "7"}));
  // FindCompartmentId matches session and sub-compartment exactly.
  for (const auto& [sub, expected] : {std::pair{"a/b", true}, {"a", true}, {"a/b/c", true}, {"a/b/c/d", false},
                                      {"b", false}, {"a/", false}, {"", false}}) {
    SecureString found("untouched");
    bool bFound = !expected;
    EXPECT_EQ(tree_.FindCompartmentId(S("3"), S(sub), found, bFound), S_OK);
    EXPECT_EQ(bFound, expected) << sub;
    EXPECT_EQ(found, expected ? S(std::string("3/") + sub) : S("untouched")) << sub;
  }
  // An empty session name can't be converted back and fails the session list.
  Put(tree_, "/lead", "d");
  EXPECT_EQ(Sessions(E_INVALIDARG), Strings());
  EXPECT_EQ(FindSession("0", "x", E_INVALIDARG), "untouched");
}

TEST_F(SessionsAndMoves, LookupFaults) {
  FaultInjector faults;
  Put(tree_, "3/a", "d");
  Put(tree_, "4/a", "d");
  faults.FailWithCode("SafeArrayGetElement", E_UNEXPECTED, 1);
  EXPECT_EQ(Sessions(E_UNEXPECTED), Strings());
  // Gets: sessions 3 and 4, then the keys 3, 3/a, 4, 4/a of session 3's scan.
  // A failed element is skipped (here session 3's match, so 4 answers) and the
  // last element's result is the scan's.
  faults.FailWithCode("SafeArrayGetElement", E_UNEXPECTED, 4);
  EXPECT_EQ(FindSession("0", "a"), "4");
  faults.FailWithCode("SafeArrayGetElement", E_UNEXPECTED, 3, true);
  EXPECT_EQ(FindSession("0", "a", E_UNEXPECTED), "untouched");
  faults.Reset();
  SecureString found;
  bool bFound = true;
  faults.FailWithCode("SafeArrayPutElement", E_UNEXPECTED, 1);
  EXPECT_EQ(tree_.FindCompartmentId(S("3"), S("a"), found, bFound), E_UNEXPECTED);
  EXPECT_FALSE(bFound);
}

TEST_F(SessionsAndMoves, MoveCopiesTheSubtreeAndCanRemoveTheSource) {
  EXPECT_EQ(tree_.MoveCompartmentIds(S("nowhere"), S("t"), false), E_FAIL);
  Put(tree_, "a/b", "x", "1");
  Put(tree_, "a/b", "y", "2");
  Put(tree_, "a/b/e/f", "z", "3");
  Put(tree_, "a/bc", "q");
  tree_.CreateCompartment(S("a/b/empty"), 0);
  EXPECT_EQ(tree_.MoveCompartmentIds(S("a/b"), S("c/d"), false), E_FAIL) << "the last child is a leaf";
  EXPECT_EQ(Stored(tree_, "c/d/e/f", "z"), Strings({"3"}));
  // No empty compartment, no a/bc at the target.
  EXPECT_EQ(AllKeys(tree_), Strings({"a", "a/b", "a/b/e", "a/b/e/f", "a/b/empty", "a/bc", "c", "c/d", "c/d/e",
                                     "c/d/e/f"}));
  // With removal, the top RemoveCompartment's result is the move's, and it
  // raises the source's descendants.
  EXPECT_EQ(tree_.MoveCompartmentIds(S("a/b"), S("m"), true), S_OK);
  EXPECT_EQ(AllKeys(tree_), Strings({"a", "a/bc", "c", "c/d", "c/d/e", "c/d/e/f", "m", "m/e", "m/e/f"}));
  EXPECT_EQ(Versions("T/a/b/e/f"), V(1, 1));
}

// Each allocation of a move fails in turn: the source stays intact, each item
// at the target is whole or absent, the failure leaves a trace, nothing leaks.
TEST_F(SessionsAndMoves, MoveSurvivesEachFailedAllocation) {
  Put(tree_, "a", "x", "1");
  Put(tree_, "a/b", "y", "2");
  Put(tree_, "a/b/c", "z", "3");
  const Strings source = AllKeys(tree_);
  unsigned n = 1;
  for (bool completed = false; !completed && n < 200; ++n) {
    LogCapture log;
    FaultInjector faults;
    faults.FailWithNull("winext.Allocate", n);
    tree_.MoveCompartmentIds(S("a"), S("t"), false);
    completed = faults.Fired("winext.Allocate") == 0;
    faults.Reset();
    bool traced = completed;
    for (const auto& e : log.Entries()) traced |= e.level == 1 || e.text.find("hr = 0x8007000e") != std::string::npos;
    EXPECT_TRUE(traced) << n;
    const char* items[][3] = {{"a", "t", "x"}, {"a/b", "t/b", "y"}, {"a/b/c", "t/b/c", "z"}};
    for (int i = 0; i < 3; ++i) {
      const Strings value = {std::to_string(i + 1)};
      EXPECT_EQ(Stored(tree_, items[i][0], items[i][2]), value) << n;
      const Strings copy = Stored(tree_, items[i][1], items[i][2]);
      EXPECT_TRUE(copy.empty() || copy == value) << n;
      EXPECT_TRUE(!completed || copy == value) << n;
    }
    tree_.RemoveCompartment(S("t"), 1, 0);
  }
  EXPECT_GT(n, 10u);
  EXPECT_LT(n, 200u);
  EXPECT_EQ(AllKeys(tree_), source);
}

}  // namespace
