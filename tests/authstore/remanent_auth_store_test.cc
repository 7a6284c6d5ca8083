// A PIN store kept in the registry, encrypted with the key file's key: forked
// children begin their own store of the same id on the same registry and key
// file, so what one process caches another reads and removes.

#include <filesystem>
#include <fstream>
#include <iterator>

#include "authstore_test_support.h"
#include "xk/testsupport.h"

using namespace atest;

namespace {

const char kPIN[] = "4711-kept-in-no-file";
const Params kPINAlways = {{"IsACRPINAlways", "Yes"}};

// Shared between sessions, so the caller's process (0 from the exported
// client) plays no part.
StorePtr Remanent() { return Begin("{remanent-pins}", 1, 1, QX::AuthStore::AuthTypeRemanent); }
std::string Probe(CInternalAuthStore& store, const char* comp, const char* pin) {
  const Read r = Get(store, 0, comp, pin, kPINAlways, true);
  return std::to_string(r.hr) + ":" + std::to_string(r.hr == S_OK ? r.state : -1);
}

}  // namespace

TEST(RemanentAuthStore, PINsCachedInOneProcessAreReadAndRemovedInOthers) {
  xk::test::Sandbox sandbox;
  sandbox.WriteKeyFile(std::vector<unsigned char>(16, 0x5a));
  // No timers, so no timer thread is forked with a lock held.
  SetSetting("Merrowstore.Authentication.Timeout", -2147483648LL);
  const std::string id = InChild([] {
    StorePtr store = Remanent();
    const std::string sId = Set(*store, 0, "card", "user", kPIN, {{"Action", "Authenticate"}});
    Set(*store, 0, "card", "so", "2222");
    Set(*store, 0, "spare", "user", "3333");
    return sId;
  });
  ASSERT_EQ(id.size(), 36u) << id;

  StorePtr store = Remanent();
  EXPECT_EQ(Probe(*store, "card", "user"), "0:1");  // the fresh token, untouched by the probe
  Array params(MakeParams(kPINAlways));
  SAFEARRAY* value = nullptr;
  char* bstrId = nullptr;
  int state = -1;
  ASSERT_EQ(store->GetPIN(0, Bstr("card"), Bstr("user"), params, &value, &bstrId, &state), S_OK);
  EXPECT_EQ(Take(value) + " " + Dec(state) + " " + (bstrId != nullptr ? bstrId : ""), kPIN + (" 1 " + id));
  SysFreeString(bstrId);

  // The tree holds ciphertext only, and no file of the sandbox (registry,
  // journal, key) holds the PIN.
  const std::string blob = Item(*store, "card/user", "PINValue");
  EXPECT_TRUE(blob.size() % 16 == 0 && blob.find(kPIN) == std::string::npos) << blob;
  for (const auto& file : std::filesystem::directory_iterator(sandbox.Dir())) {
    std::ifstream in(file.path(), std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(bytes.find(kPIN), std::string::npos) << file.path();
  }

  // A third process, with another key file, sees the removals and the token
  // spent by that read, but gets no value: the key comes from the sandbox's
  // file, never from the fixed path.
  EXPECT_EQ(store->RemovePIN(0, Bstr("card"), Bstr("so"), nullptr), S_OK);
  EXPECT_EQ(store->RemoveCompartment(0, Bstr("spare"), nullptr), S_OK);
  sandbox.WriteKeyFile(std::vector<unsigned char>(16, 0xa5));
  const std::string gone = std::to_string(E_INVALIDARG) + ":-1";
  EXPECT_EQ(InChild([] {
              StorePtr third = Remanent();
              std::string report = Probe(*third, "card", "user");
              const Read r = Get(*third, 0, "card", "user");
              return report + " " + std::to_string(r.hr) + " " + std::to_string(r.value == kPIN) + " " +
                     Probe(*third, "card", "so") + " " + Probe(*third, "spare", "user");
            }),
            "0:0 0 0 " + gone + " " + gone);
  EXPECT_EQ(store->FlushStore(0, nullptr), S_OK);
  EXPECT_EQ(Probe(*store, "card", "user"), gone);
}
