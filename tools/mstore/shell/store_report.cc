#include "store_report.h"

#include <algorithm>
#include <vector>

#include "catalogue.h"
#include "result_text.h"
#include "scoped_values.h"
#include "value_text.h"

namespace mstore {
namespace {

std::vector<std::string> RegisteredIds(QX::DataStore::CStaticDataCacheClient& client, HRESULT& hr) {
  ScopedArray ids;
  hr = client.ListDataStoreIds(ids.out());
  return IdsOf(ids.get());
}

std::vector<std::string> PinStoreIds(QX::AuthStore::CStaticAuthCacheClient& pins, HRESULT& hr) {
  ScopedArray ids;
  hr = pins.ListAuthStoreIds(ids.out());
  return IdsOf(ids.get());
}

// The PIN stores, one line each; a note when the start-up store is missing.
bool PrintPinStores(QX::AuthStore::CStaticAuthCacheClient& pins, std::ostream& out) {
  HRESULT hr;
  const std::vector<std::string> ids = PinStoreIds(pins, hr);
  if (FAILED(hr)) {
    out << "ListAuthStoreIds: " << ResultText(hr) << "\n";
    return false;
  }
  for (const std::string& id : ids) {
    ScopedBstr storeId(id);
    QX::AuthStore::AuthType type = QX::AuthStore::AuthTypeVolatile;
    signed char encrypted = 0, shared = 0;
    hr = pins.GetAuthStoreInfo(storeId.get(), &type, &encrypted, &shared);
    out << "PIN store " << id << ": ";
    if (FAILED(hr)) {
      out << ResultText(hr) << "\n";
      continue;
    }
    out << (type == QX::AuthStore::AuthTypeVolatile   ? "volatile"
            : type == QX::AuthStore::AuthTypeRemanent ? "remanent"
                                                      : "type " + std::to_string(static_cast<int>(type)))
        << (encrypted ? ", encrypted" : ", not encrypted") << (shared ? ", shared" : ", not shared") << "\n";
  }
  if (std::find(ids.begin(), ids.end(), kStartUpPinStore) == ids.end())
    out << "no PIN store " << kStartUpPinStore << ": the library could not register it; `mstore --log failure "
        << "stores` shows why\n";
  return true;
}

}  // namespace

const char kStartUpPinStore[] = "{AEA79AF9-BECB-490a-BCCB-CD0806BA970D}";

bool PinStoreRegistered(QX::AuthStore::CStaticAuthCacheClient& pins) {
  HRESULT hr;
  const std::vector<std::string> ids = PinStoreIds(pins, hr);
  return std::find(ids.begin(), ids.end(), kStartUpPinStore) != ids.end();
}

std::string StoreInfoText(QX::DataStore::Type type, signed char encrypted, signed char shared,
                          const char* product) {
  std::string text = type == QX::DataStore::TypeMemory     ? "memory"
                     : type == QX::DataStore::TypeRemanent ? "remanent"
                                                           : "type " + std::to_string(static_cast<int>(type));
  text += encrypted ? ", encrypted" : ", not encrypted";
  text += shared ? ", shared" : ", not shared";
  return text + ", product " + Quote(product ? product : "");
}

bool StoreRegistered(QX::DataStore::CStaticDataCacheClient& client, const std::string& id) {
  HRESULT hr;
  const std::vector<std::string> ids = RegisteredIds(client, hr);
  return std::find(ids.begin(), ids.end(), id) != ids.end();
}

int PrintStores(QX::DataStore::CStaticDataCacheClient& client, QX::AuthStore::CStaticAuthCacheClient& pins,
                std::ostream& out) {
  if (!PrintPinStores(pins, out)) return 1;
  HRESULT hr;
  const std::vector<std::string> ids = RegisteredIds(client, hr);
  if (FAILED(hr)) {
    out << "ListDataStoreIds: " << ResultText(hr) << "\n";
    return 1;
  }
  for (const std::string& id : ids) {
    ScopedBstr storeId(id);
    QX::DataStore::Type type = QX::DataStore::TypeMemory;
    signed char encrypted = 0, shared = 0;
    ScopedBstr product;
    hr = client.GetDataStoreInfo(storeId.get(), &type, &encrypted, &shared, product.out());
    out << id << ": " << (FAILED(hr) ? ResultText(hr) : StoreInfoText(type, encrypted, shared, product.get()))
        << "\n";
  }

  std::vector<CatalogueEntry> entries;
  ReadCatalogue(entries);
  std::size_t missing = 0;
  for (const CatalogueEntry& e : entries) {
    if (std::find(ids.begin(), ids.end(), e.id) != ids.end()) continue;
    const EffectiveEntry eff = Effective(e);
    out << "not registered: " << e.id << " (catalogue: "
        << StoreInfoText(eff.remanent ? QX::DataStore::TypeRemanent : QX::DataStore::TypeMemory,
                         eff.encrypted, eff.shared, eff.product.c_str())
        << ")\n";
    ++missing;
  }
  if (ids.empty() && missing == 0) out << "no data store: the catalogue is empty\n";
  if (missing != 0)
    out << "the library did not register " << missing << " of the catalogue's " << entries.size()
        << " entries; `mstore --log failure stores` shows why\n";
  return 0;
}

}  // namespace mstore
