// Remanent stores across processes: a forked child writes through its own
// stores, and this process, which had not registered them, reads. The child
// shares the sandbox (registry file and key file) but nothing in memory that
// matters: the store map and the keys are made after the fork.

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <functional>

#include "datastore_test_support.h"
#include "trees/RegistryTree.h"
#include "xk/testsupport.h"

using namespace dstest;
using QX::DataStore::TypeRemanent;

namespace {

std::string Hex(HRESULT hr) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%x", static_cast<unsigned>(hr));
  return text;
}

// Runs `body` in a forked child and returns its report.
std::string InChild(const std::function<std::string()>& body) {
  int fds[2];
  if (pipe(fds) != 0) return "<no pipe>";
  const pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    const std::string report = body();
    for (std::size_t at = 0; at < report.size();) {
      const ssize_t n = write(fds[1], report.data() + at, report.size() - at);
      if (n <= 0) _exit(2);
      at += static_cast<std::size_t>(n);
    }
    _exit(0);
  }
  close(fds[1]);
  std::string report;
  char buffer[256];
  for (ssize_t n; (n = read(fds[0], buffer, sizeof buffer)) > 0;) report.append(buffer, n);
  close(fds[0]);
  int status = -1;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? report : "<child failed> " + report;
}

HRESULT Write(const std::string& id, const std::vector<std::string>& items) {
  SAFEARRAY* value = MakeValue(items);
  const HRESULT hr = CStaticDataCacheClient().SetData(Bstr(id), Bstr("s/c"), Bstr("d"), value);
  SafeArrayDestroy(value);
  return hr;
}

HRESULT Read(const std::string& id, std::vector<std::string>& items) {
  SAFEARRAY* out = nullptr;
  const HRESULT hr = CStaticDataCacheClient().GetData(Bstr(id), Bstr("s/c"), Bstr("d"), &out);
  items = Take(out);
  return hr;
}

}  // namespace

TEST(RemanentStoreProcess, ValuesWrittenInOneProcessAreReadInAnotherUnderTheSameKey) {
  xk::test::Sandbox sandbox;
  sandbox.WriteKeyFile(KeyFile(1));
  const std::string plain = StoreId("C"), vault = StoreId("E");
  EXPECT_EQ(InChild([&] {
              std::string report;
              for (const auto& [id, bEncrypted] : {std::pair{plain, 0}, std::pair{vault, 1}}) {
                report += Hex(Register(id, 1, "P", TypeRemanent, static_cast<signed char>(bEncrypted))) + " ";
                report += Hex(Write(id, {"kept", id})) + " ";
              }
              return report;
            }),
            "0x0 0x0 0x0 0x0 ");
  // A key file changed between processes fails the read in the next process
  // and keeps the value: with the first key back, this process reads it below.
  sandbox.WriteKeyFile(KeyFile(2));
  EXPECT_EQ(InChild([&] {
              const HRESULT hrRegister = Register(vault, 1, "P", TypeRemanent, 1);
              xk::test::LogCapture log;
              std::vector<std::string> items;
              const HRESULT hrRead = Read(vault, items);
              return Hex(hrRegister) + " " + Hex(hrRead) + " " + std::to_string(items.size()) + " " +
                     std::to_string(log.Contains(1, "CInternalDataStore::GetData DecryptValue failed"));
            }),
            "0x0 0x80004005 0 1");
  sandbox.WriteKeyFile(KeyFile(1));
  for (const std::string& id : {plain, vault}) {
    ASSERT_EQ(gStaticDataStoreRegistration.m_Stores.count(S(id)), 0u);
    ASSERT_EQ(Register(id, 1, "P", TypeRemanent, id == vault ? 1 : 0), S_OK);
    std::vector<std::string> items;
    EXPECT_EQ(Read(id, items), S_OK) << id;
    EXPECT_EQ(items, (std::vector<std::string>{"kept", id}));
  }
  // The encrypted store's registry value is ciphertext: read raw, it is a
  // VT_UI1 vector without the text.
  SAFEARRAY* psa = nullptr;
  ASSERT_EQ(CRegistryTree(S(vault), 0).GetData(S("s/c"), S("d"), psa, 0), S_OK);
  const std::string blob = TakeBytes(psa);
  EXPECT_EQ(blob.size() % 16, 0u);
  EXPECT_EQ(blob.find("kept"), std::string::npos);
}
