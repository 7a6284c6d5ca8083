// The shell commands that call the library's data client. Each makes its ids
// into BSTRs, calls the client once and prints one result line: the result
// code, then what came back, or for a failure what it most likely means.

#include <algorithm>
#include <memory>

#include "commands.h"
#include "result_text.h"
#include "scoped_values.h"
#include "store_report.h"
#include "value_text.h"

namespace mstore {
namespace {

// The identifiers of a command as BSTRs, in the order given.
class Ids {
 public:
  Ids(const Words& args, std::size_t count) : m_Texts(args.begin(), args.begin() + static_cast<long>(count)) {
    for (const std::string& text : m_Texts) m_Bstrs.push_back(std::make_unique<ScopedBstr>(text));
  }
  char* operator[](std::size_t i) const { return m_Bstrs[i]->get(); }
  const Words& Texts() const { return m_Texts; }

 private:
  Words m_Texts;
  std::vector<std::unique_ptr<ScopedBstr>> m_Bstrs;
};

// The client takes E_INVALIDARG for an empty id and for an item or
// compartment it does not have, and E_FAIL for an unknown store among others.
std::string Meaning(Session& s, HRESULT hr, const Words& ids, bool firstIsStore) {
  const bool anyEmpty = std::any_of(ids.begin(), ids.end(), [](const std::string& id) { return id.empty(); });
  if (hr == E_INVALIDARG) return anyEmpty ? "empty identifier" : "not found";
  if (hr == E_FAIL && firstIsStore && !ids.empty() && !ids[0].empty() && !StoreRegistered(s.client, ids[0]))
    return "no store " + Quote(ids[0]);
  return "";
}

void Report(Session& s, HRESULT hr, const Ids& ids, const std::string& payload = "", bool firstIsStore = true) {
  s.out << ResultText(hr);
  const std::string more = FAILED(hr) ? Meaning(s, hr, ids.Texts(), firstIsStore) : payload;
  if (!more.empty()) s.out << ": " << more;
  s.out << "\n";
}

}  // namespace

bool RunSet(Session& s, const Words& args, std::string& error) {
  ScopedArray value;
  if (!ParseValue(args[3], Words(args.begin() + 4, args.end()), value.out(), error)) return false;
  Ids ids(args, 3);
  Report(s, s.client.SetData(ids[0], ids[1], ids[2], value.get()), ids);
  return true;
}

bool RunGet(Session& s, const Words& args, std::string&) {
  Ids ids(args, 3);
  ScopedArray value;
  HRESULT hr = s.client.GetData(ids[0], ids[1], ids[2], value.out());
  Report(s, hr, ids, RenderValue(value.get()));
  return true;
}

bool RunRemove(Session& s, const Words& args, std::string&) {
  Ids ids(args, 3);
  Report(s, s.client.RemoveData(ids[0], ids[1], ids[2]), ids);
  return true;
}

bool RunCreate(Session& s, const Words& args, std::string&) {
  Ids ids(args, 2);
  Report(s, s.client.CreateCompartment(ids[0], ids[1]), ids);
  return true;
}

bool RunTouch(Session& s, const Words& args, std::string&) {
  Ids ids(args, 2);
  Report(s, s.client.TouchCompartment(ids[0], ids[1]), ids);
  return true;
}

bool RunRemoveCompartment(Session& s, const Words& args, std::string& error) {
  if (args.size() == 3 && args[2] != "--with-versions") {
    error = "remove-compartment takes --with-versions after the compartment, not " + Quote(args[2]);
    return false;
  }
  Ids ids(args, 2);
  Report(s, s.client.RemoveCompartment(ids[0], ids[1], args.size() == 3 ? 1 : 0), ids);
  return true;
}

bool RunIsCached(Session& s, const Words& args, std::string&) {
  Ids ids(args, 3);
  signed char cached = 0;
  HRESULT hr = s.client.IsDataCached(ids[0], ids[1], ids[2], &cached);
  Report(s, hr, ids, cached ? "cached" : "not cached");
  return true;
}

bool RunListData(Session& s, const Words& args, std::string&) {
  Ids ids(args, 2);
  ScopedArray list;
  HRESULT hr = s.client.ListDataIds(ids[0], ids[1], list.out());
  Report(s, hr, ids, RenderIdList(list.get()));
  return true;
}

bool RunListCompartments(Session& s, const Words& args, std::string&) {
  Words withRoot = args;
  if (withRoot.size() == 1) withRoot.push_back("/");
  Ids ids(withRoot, 2);
  ScopedArray list;
  HRESULT hr = s.client.ListCompartmentIds(ids[0], ids[1], list.out());
  Report(s, hr, ids, RenderIdList(list.get()));
  return true;
}

bool RunVersions(Session& s, const Words& args, std::string&) {
  Ids ids(args, 2);
  unsigned long compartmentVersion = 0, contentVersion = 0;
  signed char cached = 0;
  HRESULT hr = s.client.IsCompartmentCached(ids[0], ids[1], &compartmentVersion, &contentVersion, &cached);
  Report(s, hr, ids,
         std::string(cached ? "cached" : "not cached") + ", compartment version " +
             std::to_string(compartmentVersion) + ", content version " + std::to_string(contentVersion));
  return true;
}

bool RunFlushStore(Session& s, const Words& args, std::string&) {
  Ids ids(args, 1);
  Report(s, s.client.FlushStore(ids[0]), ids);
  return true;
}

bool RunFlushProduct(Session& s, const Words& args, std::string&) {
  Ids ids(args, 1);
  Report(s, s.client.FlushDataStores(ids[0]), ids, "", false);
  return true;
}

bool RunStores(Session& s, const Words&, std::string&) {
  PrintStores(s.client, s.pins, s.out);
  return true;
}

bool RunInfo(Session& s, const Words& args, std::string&) {
  Ids ids(args, 1);
  QX::DataStore::Type type = QX::DataStore::TypeMemory;
  signed char encrypted = 0, shared = 0;
  ScopedBstr product;
  HRESULT hr = s.client.GetDataStoreInfo(ids[0], &type, &encrypted, &shared, product.out());
  Report(s, hr, ids, SUCCEEDED(hr) ? StoreInfoText(type, encrypted, shared, product.get()) : "");
  return true;
}

}  // namespace mstore
