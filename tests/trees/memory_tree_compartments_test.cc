// Subtree and child walks of the memory tree checked against a plain scan of
// every key with the subtree and child tests, on awkward paths (empty
// components, leading and trailing slashes, siblings sharing a prefix,
// characters sorting next to "/") and random ones; lookups, creations and
// removals against a set of keys; then the results of removal, flush and
// listing, and a write whose allocations fail. Then session lookup and
// compartment move, written on the tree contract and exercised on memory
// trees; the nodes that hold a memory tree's items; the version counters kept
// in gHistoryTree, a memory tree.

#include <algorithm>
#include <map>
#include <random>
#include <set>

#include "trees/AbstractTree.h"
#include "trees/Node.h"
#include "trees/VersionHistory.h"
#include "tree_test_support.h"

namespace {

using namespace treetest;

bool InSubtree(const std::string& key, const std::string& id) {
  return key.compare(0, id.size(), id) == 0 && key.size() >= id.size() &&
         (key.size() == id.size() || key[id.size()] == '/');
}

bool IsChild(const std::string& key, const std::string& id) {
  return InSubtree(key, id) && key.size() > id.size() && key.rfind('/') == id.size();
}

class Compartments : public HistoryTest {
 protected:
  // Each path gets one item named after itself; the walk makes the prefixes.
  static void Fill(CMemoryTree& tree, const Strings& paths) {
    for (const std::string& path : paths) Put(tree, path, "id:" + path);
  }

  void CheckAgainstScan(const Strings& paths) {
    CMemoryTree tree(S("T"));
    Fill(tree, paths);
    const Strings keys = AllKeys(tree);
    Strings ids = keys;
    for (const char* id : {"/", "//", "a/", "a//", "5///", "x", "a/b/c/d/e"}) ids.push_back(id);
    for (const std::string& id : ids) {
      SCOPED_TRACE("id \"" + id + "\"");
      Strings children;
      const std::string* first = nullptr;
      for (const std::string& key : keys) {
        if (id == "/" ? key.find('/') == std::string::npos : IsChild(key, id))
          children.push_back(id == "/" ? key : key.substr(key.rfind('/') + 1));
        if (first == nullptr && InSubtree(key, id)) first = &key;
      }
      SAFEARRAY* out = reinterpret_cast<SAFEARRAY*>(&tree);
      EXPECT_EQ(tree.ListCompartmentIds(S(id), &out, 0), S_OK);
      if (children.empty()) {
        EXPECT_EQ(out, reinterpret_cast<SAFEARRAY*>(&tree)) << "nothing found leaves the output alone";
      } else {
        EXPECT_EQ(Take(out), children);
      }
      out = nullptr;
      EXPECT_EQ(tree.ListDataIds(S(id), &out, 0), first ? S_OK : E_FAIL);
      if (first) {
        EXPECT_EQ(Take(out), std::count(paths.begin(), paths.end(), *first) ? Strings({"id:" + *first}) : Strings());
      }
      EXPECT_EQ(Cached(tree, id)[2], std::count(keys.begin(), keys.end(), id) ? 1 : 0);
      for (const std::string& name : {"id:" + id, "id:" + id + "!"}) {
        signed char bItem = 9;
        EXPECT_EQ(tree.IsDataCached(S(id), S(name), &bItem, 0), S_OK);
        EXPECT_EQ(bItem, name == "id:" + id && std::count(paths.begin(), paths.end(), id) ? 1 : 0) << name;
      }
    }
  }
};

TEST_F(Compartments, WalksMatchTheScan) {
  CheckAgainstScan({"a", "a/b", "a/bc", "ab", "a0", "a!", "a.", "a//b", "a/b/c/d", "a/b/e", "/x", "//y", "", "5//",
                    "5///z", "5/", "3/q", "10/q", "0/q", "a/b!/f", "a/b0", "a/b/", "a/b//g"});
  std::mt19937 random(20240607);
  for (int round = 0; round < 4; ++round) {
    Strings paths;
    for (int i = 0; i < 12; ++i) {
      std::string path;
      for (int c = static_cast<int>(random() % 6); c > 0; --c) path += "./0a"[random() % 4];
      paths.push_back(path);
    }
    CheckAgainstScan(paths);
  }
}

// Lookups by full path go through a hash index kept beside the ordered map,
// and through the entries found last; both must follow every creation,
// removal and flush. A random run of them against a plain set of keys, with
// enough keys to make the index grow and paths of equal length and shared
// prefixes to make its probes collide.
TEST_F(Compartments, LookupsFollowEveryChangeOfTheTree) {
  std::mt19937 random(20240611);
  CMemoryTree tree(S("T"));
  std::set<std::string> model;
  std::size_t largest = 0;
  Strings pool;
  auto expectCached = [&](const std::string& path, int step) {
    const long cached = Cached(tree, path)[2];
    EXPECT_EQ(cached, model.count(path) ? 1 : 0) << "step " << step << " path \"" << path << "\"";
    return cached == (model.count(path) ? 1 : 0);
  };
  for (int step = 0; step < 600; ++step) {
    std::string path;
    for (int c = 1 + static_cast<int>(random() % 7); c > 0; --c) path += "./0ab"[random() % 5];
    pool.push_back(path);
    // Mostly creations, a third as many removals, now and then a flush.
    const unsigned op = random() % 64;
    if (op < 47) {
      EXPECT_EQ(tree.CreateCompartment(S(path), 0), S_OK);
      for (std::size_t end = path.find('/'); end != std::string::npos; end = path.find('/', end + 1))
        model.insert(path.substr(0, end));
      model.insert(path);
    } else {
      // Found just before it goes, then not found.
      const std::string id = op < 63 ? pool[random() % pool.size()] : path;
      expectCached(id, step);
      if (op < 63) {
        tree.RemoveCompartment(S(id), 1, 0);
        for (auto it = model.begin(); it != model.end();) it = InSubtree(*it, id) ? model.erase(it) : std::next(it);
      } else {
        EXPECT_EQ(tree.FlushTree(0), S_OK);
        model.clear();
      }
      expectCached(id, step);
    }
    // Every path seen so far, found exactly when it is a key.
    for (std::size_t i = step % 7; i < pool.size(); i += 7) ASSERT_TRUE(expectCached(pool[i], step));
    largest = std::max(largest, model.size());
  }
  EXPECT_EQ(AllKeys(tree), Strings(model.begin(), model.end()));
  EXPECT_GT(largest, 100u) << "enough keys to grow the index several times";
}

// Removal on an empty tree, on the history tree and without history; a
// flush; listings whose puts fail.
TEST_F(Compartments, RemovalFlushAndListingResults) {
  LogCapture log;
  CMemoryTree tree(S("T"));
  EXPECT_EQ(tree.RemoveCompartment(S("a"), 1, 0), E_INVALIDARG) << "an empty tree";
  Fill(tree, {"a/b/c", "a/d", "z"});
  UpdateHistoryTree(S("T/a/b"), -1);
  EXPECT_EQ(gHistoryTree->RemoveCompartment(S("T/a"), 1, 0), S_OK);
  EXPECT_EQ(Versions("T"), V(1, 1)) << "the history keeps no versions of itself";
  // Failed version updates are logged at level 2 and never stop the removal.
  DropHistory();
  EXPECT_EQ(tree.RemoveCompartment(S("a"), 1, 0), E_FAIL);
  EXPECT_EQ(AllKeys(tree), Strings({"z"}));
  EXPECT_EQ(log.Count("CMemoryTree::RemoveCompartment UpdateVersion failed hr = 0x80004005"), 6u);
  // A flush leaves the versions alone.
  RenewHistory();
  UpdateHistoryTree(S("T/z"), -1);
  EXPECT_EQ(tree.FlushTree(0), S_OK);
  EXPECT_EQ(Cached(tree, "z"), C({1, 1, 0}));

  SAFEARRAY* out = nullptr;
  EXPECT_EQ(tree.ListDataIds(S("a"), nullptr, 0), E_FAIL);
  EXPECT_EQ(tree.ListCompartmentIds(S("a"), nullptr, 0), E_FAIL);
  EXPECT_EQ(tree.ListAllCompartmentIds(nullptr), E_FAIL);
  // A failed put ends the listing: the elements after it stay empty.
  Fill(tree, {"a/x", "a/y", "a/z"});
  FaultInjector faults;
  faults.FailWithCode("SafeArrayPutElement", E_UNEXPECTED, 2);
  EXPECT_EQ(tree.ListCompartmentIds(S("a"), &out, 0), E_UNEXPECTED);
  EXPECT_EQ(Take(out), Strings({"x", "<null>", "<null>"}));
  faults.FailWithCode("SafeArrayPutElement", E_UNEXPECTED, 3);
  EXPECT_EQ(tree.ListAllCompartmentIds(&out), E_UNEXPECTED);
  EXPECT_EQ(Take(out), Strings({"a", "a/x", "<null>", "<null>"}));
  out = nullptr;
  faults.FailWithNull("SafeArrayCreateVector");
  EXPECT_EQ(tree.ListCompartmentIds(S("a"), &out, 0), E_INVALIDARG) << "the first put fails on no array";
  EXPECT_EQ(out, nullptr);
  // The data id listing puts without looking; a failed string leaves its element empty.
  Put(tree, "a/x", "second");
  for (const char* op : {"SysAllocString", "SafeArrayPutElement"}) {
    faults.FailWithCode(op, E_UNEXPECTED);
    EXPECT_EQ(tree.ListDataIds(S("a/x"), &out, 0), S_OK);
    EXPECT_EQ(Take(out), Strings({"<null>", "second"}));
  }
}

// Each allocation of a write fails in turn: the write reports it, loses only
// its own item (the old value goes first), and leaks nothing.
TEST(MemoryTreeData, WriteSurvivesEachFailedAllocation) {
  CMemoryTree tree(S("T"));
  Put(tree, "s/c", "keep", "k");
  SAFEARRAY* v = MakeValue({"a", "b", "c"});
  unsigned n = 1;
  for (bool completed = false; !completed && n < 50; ++n) {
    Put(tree, "s/c", "x", "old");
    FaultInjector faults;
    faults.FailWithNull("winext.Allocate", n);
    const HRESULT hr = tree.SetData(S("s/c"), S("x"), v, 0, 0);
    completed = faults.Fired("winext.Allocate") == 0;
    faults.Reset();
    EXPECT_EQ(hr, completed ? S_OK : E_OUTOFMEMORY) << n;
    EXPECT_EQ(Stored(tree, "s/c", "x"), completed ? Strings({"a", "b", "c"}) : Strings()) << n;
    EXPECT_EQ(Stored(tree, "s/c", "keep"), Strings({"k"}));
  }
  EXPECT_GT(n, 5u) << "the array's block and its three strings each failed once";
  EXPECT_LT(n, 50u);
  SafeArrayDestroy(v);
}

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

// CNode owns deep copies: the caller's arrays stay the caller's, a replaced or
// removed value is destroyed (AddressSanitizer reports one that isn't), and a
// failed copy or destruction is reported.
Strings Item(CNode& node, const char* id) {
  SAFEARRAY* psa = nullptr;
  return node.GetDataItem(S(id), psa) == S_OK ? Take(psa) : Strings({"<absent>"});
}

// A node keeps deep copies (the caller's array stays the caller's, each read
// is a copy of its own), finds a handful of items by walking them and more by
// searching its map, and remembers the item it found last; each way must agree
// with what was put, replaced and removed.
TEST(CNode, KeepsCopiesAndFindsItemsWhateverTheirNumber) {
  CNode node(S("n"));
  std::map<std::string, std::string> held;
  auto id = [](int i) { return "id" + std::string(i % 3, '.') + std::to_string(i); };
  auto put = [&](const std::string& key, const std::string& value) {
    SAFEARRAY* v = MakeValue({value});
    EXPECT_EQ(node.AddDataItem(S(key), v), S_OK);
    int at = 0;
    EXPECT_EQ(SafeArrayPutElement(v, &at, const_cast<char*>("changed by the caller")), S_OK);
    SafeArrayDestroy(v);
    held[key] = value;
    for (const auto& [each, text] : held) EXPECT_EQ(Item(node, each.c_str()), Strings({text})) << key;
  };
  for (int i = 0; i < 12; ++i) put(id(i), id(i));
  for (int i = 1; i < 12; i += 3) put(id(i), "replaced");  // the replaced copy is destroyed (ASan)
  for (int i = 0; i < 12; i += 2) {
    EXPECT_EQ(node.RemoveDataItem(S(id(i))), S_OK);
    held.erase(id(i));
    SAFEARRAY* out = reinterpret_cast<SAFEARRAY*>(&node);
    EXPECT_EQ(node.GetDataItem(S(id(i)), out), E_INVALIDARG) << "not found again after its removal";
    EXPECT_EQ(out, reinterpret_cast<SAFEARRAY*>(&node)) << "a miss leaves the output alone";
    EXPECT_EQ(node.RemoveDataItem(S(id(i))), E_INVALIDARG);
    for (const auto& [each, text] : held) EXPECT_EQ(Item(node, each.c_str()), Strings({text})) << id(i);
  }
  std::vector<SecureString> ids{S("kept")};
  EXPECT_EQ(node.ListDataItems(ids), S_OK);
  Strings expected{"kept"};  // appended after what was there
  for (const auto& entry : held) expected.push_back(entry.first);
  EXPECT_EQ(Strings(ids.begin(), ids.end()), expected);
}

TEST(CNode, FailedCopiesAndDestructions) {
  LeakAllowedScope leaking;  // an array whose destruction fails is lost
  LogCapture log;
  FaultInjector faults;
  {
    CNode node(S("n"));
    SAFEARRAY* v = MakeValue({"old"});
    // (A failed copy, which takes the old value with it, is the write test's.)
    for (const char* id : {"b", "c", "d", "e"}) node.AddDataItem(S(id), v);
    SafeArrayDestroy(v);
    faults.FailWithCode("qxSafeArrayDestroy", DISP_E_ARRAYISLOCKED);
    EXPECT_EQ(node.RemoveDataItem(S("b")), DISP_E_ARRAYISLOCKED);
    EXPECT_EQ(Item(node, "b"), Strings({"<absent>"})) << "erased all the same";
    // The destructor destroys "c", fails on "d" and never tries "e".
    faults.FailWithCode("qxSafeArrayDestroy", E_UNEXPECTED, 2, true);
  }
  EXPECT_EQ(faults.Fired("qxSafeArrayDestroy"), 1u);
  EXPECT_TRUE(log.Contains(1, "CNode::~CNode qxSafeArrayDestroy hr = 0x8000ffff"));
}

// Version counters in gHistoryTree: raising one, raising a path, reading both,
// the results masked on purpose, and IsCompartmentCached that reports them.
class VersionHistory : public HistoryTest {};

TEST_F(VersionHistory, CountersStartAtOneWrapAndRiseAlongThePath) {
  EXPECT_EQ(UpdateVersion(S("T/s"), 0), S_OK);
  EXPECT_EQ(UpdateVersion(S("T/s"), 0), S_OK);
  EXPECT_EQ(UpdateVersion(S("T/s"), 7), S_OK) << "any non-zero kind is the content counter";
  EXPECT_EQ(Versions("T/s"), V(2, 1));
  EXPECT_EQ(Versions("T"), V(0, 0));
  gHistoryTree->SetData(S("W"), S("CompartmentVersion"), Array(Make(VT_UINT, {1}, Bytes(4, 0xFF))).get(), 0, 0);
  EXPECT_EQ(UpdateVersion(S("W"), 0), S_OK);
  EXPECT_EQ(Versions("W"), V(0, 0));

  RenewHistory();
  EXPECT_EQ(UpdateHistoryTree(S("T/S/C"), -1), S_OK);
  EXPECT_EQ(UpdateHistoryTree(S("T/S/D"), 1), S_OK);
  EXPECT_EQ(UpdateHistoryTree(S("T/S"), 0), S_OK);
  EXPECT_EQ(UpdateHistoryTree(S("T/S/E"), 2), S_OK) << "walks and changes nothing";
  EXPECT_EQ(Versions("T"), V(2, 2));
  EXPECT_EQ(Versions("T/S"), V(2, 2));
  EXPECT_EQ(Versions("T/S/C"), V(1, 1));
  EXPECT_EQ(Versions("T/S/D"), V(0, 1));
  EXPECT_EQ(UpdateHistoryTree(S("U//x/"), 1), S_OK);
  EXPECT_EQ(AllKeys(*gHistoryTree), Strings({"T", "T/S", "T/S/C", "T/S/D", "U", "U/", "U//x", "U//x/"}));
}

TEST_F(VersionHistory, FailedStepsOfUpdateVersionAndGetVersion) {
  LeakAllowedScope leaking;  // an array whose destruction fails is lost
  LogCapture log;
  FaultInjector faults;
  UpdateVersion(S("T"), 1);
  UpdateVersion(S("T"), 1);
  faults.FailWithNull("SafeArrayCopy", 2);  // the write's copy, after the old value went
  EXPECT_EQ(UpdateVersion(S("T"), 1), S_OK) << "a failed write is lost to the caller";
  EXPECT_TRUE(log.Contains(1, "UpdateVersion SetData failed"));
  EXPECT_EQ(Versions("T"), V(0, 0));
  UpdateVersion(S("T"), 0);
  UpdateVersion(S("T"), 0);
  faults.FailWithCode("SafeArrayCopy", E_UNEXPECTED);  // the lookup: the counter restarts
  EXPECT_EQ(UpdateVersion(S("T"), 0), S_OK);
  EXPECT_EQ(Versions("T"), V(1, 0));
  faults.FailWithCode("SafeArrayGetElement", DISP_E_BADINDEX);
  EXPECT_EQ(UpdateVersion(S("T"), 0), S_OK) << "masked by the destruction that follows";
  faults.FailWithNull("SafeArrayCreateVector");
  EXPECT_EQ(UpdateVersion(S("T"), 0), S_OK);
  faults.FailWithNull("SafeArrayCreateVector");
  EXPECT_EQ(UpdateVersion(S("N"), 0), E_INVALIDARG) << "no array read: the lookup's code remains";
  EXPECT_EQ(Versions("T"), V(1, 0)) << "nothing written";
  // Destructions: the replaced stored value, the value read, the new value.
  faults.FailWithCode("qxSafeArrayDestroy", E_UNEXPECTED, 2);
  EXPECT_EQ(UpdateVersion(S("T"), 0), S_OK) << "a later destruction replaces the failure";
  faults.FailWithCode("qxSafeArrayDestroy", E_UNEXPECTED, 3);
  EXPECT_EQ(UpdateVersion(S("T"), 0), E_UNEXPECTED);
  faults.Reset();
  EXPECT_EQ(Versions("T"), V(3, 0));

  UpdateVersion(S("C"), 1);  // content counter only
  V v(9, 9);
  faults.FailWithNull("SafeArrayCopy");
  EXPECT_EQ(GetVersion(S("C"), &v.first, &v.second), E_OUTOFMEMORY);
  EXPECT_EQ(v, V(0, 0));
  EXPECT_EQ(GetVersion(S("C"), nullptr, &v.second), E_FAIL);
  UpdateHistoryTree(S("B"), -1);
  UpdateVersion(S("B"), 1);
  faults.FailWithNull("SafeArrayCopy", 2);
  EXPECT_EQ(Versions("B"), V(1, 0)) << "the first array's destruction replaces the failure";
  faults.FailWithCode("SafeArrayGetElement", DISP_E_BADINDEX);
  EXPECT_EQ(Versions("B"), V(0, 0)) << "a failed first read ends the reading";
  faults.FailWithCode("qxSafeArrayDestroy", E_UNEXPECTED, 2);
  EXPECT_EQ(Versions("B"), V(1, 2)) << "a failed destruction is retried";
  EXPECT_EQ(log.Count("GetVersion qxSafeArrayDestroy failed"), 1u);
}

TEST_F(VersionHistory, IsCompartmentCachedReportsTheTreesVersionsAndNothingWorksWithoutHistory) {
  LogCapture log;
  CMemoryTree tree(S("T"));
  tree.CreateCompartment(S("s/c"), 0);
  UpdateHistoryTree(S("T/s/c"), -1);
  // (A store's compartments and "/" are the data store's and mstore's tests.)
  EXPECT_EQ(Cached(*gHistoryTree, "T/s"), C({1, 1, 1})) << "the history reads its own keys";
  unsigned long compartment = 77;
  signed char cached = 77;
  EXPECT_EQ(tree.IsCompartmentCached(S("s"), &compartment, nullptr, &cached, 0), E_FAIL);
  DropHistory();
  EXPECT_EQ(Cached(tree, "s/c", E_FAIL), C({9, 9, 9})) << "no output written";
  EXPECT_EQ(UpdateHistoryTree(S("T/S"), -1), E_FAIL);
  EXPECT_EQ(log.Count("UpdateVersion NULL == gHistoryTree"), 1u) << "the walk stops at the first failure";
  EXPECT_EQ(UpdateHistoryTree(S("T/S"), 5), S_OK) << "no UpdateVersion ran";
  V v(9, 9);
  EXPECT_EQ(GetVersion(S("T"), &v.first, &v.second), E_FAIL);
  EXPECT_EQ(v, V(0, 0)) << "GetVersion zeroes its outputs all the same";
}

}  // namespace
