// Subtree and child walks of the memory tree checked against a plain scan of
// every key with the subtree and child tests, on awkward paths (empty
// components, leading and trailing slashes, siblings sharing a prefix,
// characters sorting next to "/") and random ones; lookups, creations and
// removals against a set of keys; then the results of removal, flush and
// listing, and a write whose allocations fail.

#include <algorithm>
#include <random>
#include <set>

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

}  // namespace
