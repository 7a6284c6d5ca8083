// mstore driven as a user would: through its binary, on a sandbox's registry
// and key file. The registry and settings commands, the key file it writes
// (the key the library reads), the catalogue, the stores the library
// registers from it, and the shell.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "crypto/CommonCrypto.h"
#include "crypto/KeyFileMask.h"
#include "xk/testsupport.h"

namespace {

struct Result {
  int status;
  std::string out;
};

// Runs `binary` with `args` (shell words); stdout and stderr together.
inline Result RunMstore(const xk::test::Sandbox& sandbox, const std::string& args,
                        const std::string& binary = MSTORE_BINARY) {
  FILE* p = popen((binary + " --registry '" + sandbox.RegistryPath() + "' " + args + " 2>&1").c_str(), "r");
  Result r{-1, ""};
  if (!p) return r;
  std::array<char, 4096> buf;
  for (std::size_t n; (n = fread(buf.data(), 1, buf.size(), p)) > 0;) r.out.append(buf.data(), n);
  const int raw = pclose(p);
  r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  return r;
}

inline std::string WriteScript(const xk::test::Sandbox& sandbox, const std::string& text) {
  const std::string path = sandbox.Dir() + "/script.mstore";
  std::ofstream(path) << text;
  return path;
}

inline bool Has(const std::string& out, const std::string& line) { return out.find(line) != std::string::npos; }

std::vector<unsigned char> ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<unsigned char>(std::istreambuf_iterator<char>(in), {});
}

// The key the library makes from the key file at its fixed path (which the
// sandbox redirects).
std::vector<unsigned char> LibraryKey() {
  CommonCrypto crypto;
  EXPECT_EQ(crypto.CreateNewPersistentKey(SecureString("label")), S_OK);
  if (!crypto.PersistentKey()) return {};
  SecureByteVector bytes = crypto.PersistentKey()->Export();
  return std::vector<unsigned char>(bytes.begin(), bytes.end());
}

const std::string kKey = "'HKEY_LOCAL_MACHINE\\Software\\Norvane Co\\Test'";
typedef std::vector<std::pair<std::string, std::string>> Steps;  // a shell line and what it prints

}  // namespace

TEST(MstoreKeyFile, InitWritesAPrivateMaskedKeyThatTheLibraryReadsAndCheckJudgesIt) {
  xk::test::Sandbox sandbox;
  const std::string path = " --path '" + sandbox.KeyFilePath() + "'";
  EXPECT_NE(RunMstore(sandbox, "keyfile check" + path).status, 0);  // nothing there yet
  ASSERT_EQ(RunMstore(sandbox, "keyfile init" + path).status, 0);
  EXPECT_EQ(RunMstore(sandbox, "keyfile check" + path).status, 0);
  struct stat st;
  ASSERT_EQ(stat(sandbox.KeyFilePath().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  const std::vector<unsigned char> stored = ReadAll(sandbox.KeyFilePath());
  ASSERT_EQ(stored.size(), 16u);
  const std::vector<unsigned char> key = LibraryKey();
  ASSERT_EQ(key.size(), 16u);
  for (std::size_t i = 0; i < 16; ++i) EXPECT_EQ(key[i], stored[i] ^ KeyFileMask[i]) << i;

  // An existing key file is kept unless --force says otherwise.
  EXPECT_NE(RunMstore(sandbox, "keyfile init" + path).status, 0);
  EXPECT_EQ(ReadAll(sandbox.KeyFilePath()), stored);
  ASSERT_EQ(RunMstore(sandbox, "keyfile init --force" + path).status, 0);
  EXPECT_NE(ReadAll(sandbox.KeyFilePath()), stored);

  // Short files, folders and a file where a folder should be are refused.
  sandbox.WriteKeyFile(std::vector<unsigned char>(15, 7));
  EXPECT_NE(RunMstore(sandbox, "keyfile check" + path).status, 0);
  sandbox.WriteKeyFile(std::vector<unsigned char>(17, 7));
  EXPECT_EQ(RunMstore(sandbox, "keyfile check" + path).status, 0);
  EXPECT_NE(RunMstore(sandbox, "keyfile check --path '" + sandbox.Dir() + "'").status, 0);
  EXPECT_NE(RunMstore(sandbox, "keyfile init --force --path '" + sandbox.KeyFilePath() + "/k.key'").status, 0);
}

TEST(MstoreCli, RegistrySetShowDumpAndDelete) {
  xk::test::Sandbox sandbox;
  for (const char* value : {"'\\Sub' Count --type dword 7", " Names --type multi_sz ab c", " Blob --type binary 'ba 02 ff 00'"})
    ASSERT_EQ(RunMstore(sandbox, "registry set " + kKey + value).status, 0) << value;

  Result show = RunMstore(sandbox, "registry show " + kKey);
  EXPECT_EQ(show.status, 0);
  EXPECT_TRUE(Has(show.out, "Names  multi_sz  6 bytes  [\"ab\", \"c\"]")) << show.out;
  EXPECT_TRUE(Has(show.out, "Blob  binary  4 bytes  ba 02 ff 00")) << show.out;
  EXPECT_FALSE(Has(show.out, "->")) << "outside the remanent stores no array is shown";

  Result dump = RunMstore(sandbox, "registry dump 'HKEY_LOCAL_MACHINE\\Software'");
  EXPECT_TRUE(Has(dump.out, "Count  dword  4 bytes  0x00000007 (7)")) << dump.out;
  EXPECT_EQ(RunMstore(sandbox, "registry list " + kKey).out, "Sub\n");

  // A key with subkeys goes only with --recursive.
  EXPECT_NE(RunMstore(sandbox, "registry delete-key " + kKey).status, 0);
  EXPECT_EQ(RunMstore(sandbox, "registry delete-key --recursive " + kKey).status, 0);
  EXPECT_NE(RunMstore(sandbox, "registry show " + kKey).status, 0);

  // In the remanent stores a value also shows the array it reads back as.
  const std::string key = "'HKEY_LOCAL_MACHINE\\Software\\Norvane Co\\Merrowstore\\RemanentDataStore\\S\\1'";
  for (const char* value : {" a --type binary 'ba 03 01 02 03'", " b --type multi_sz ab '' c",
                            " c --type binary 'bb 02 61 62 bb 01 63'", " d --type binary '77 00'"})
    ASSERT_EQ(RunMstore(sandbox, "registry set " + key + value).status, 0) << value;
  show = RunMstore(sandbox, "registry show " + key);
  EXPECT_TRUE(Has(show.out, "-> VT_UI1 vector of 3 elements (record 0xBA)")) << show.out;
  // An empty string ends the list: only "ab" comes back.
  EXPECT_TRUE(Has(show.out, "-> VT_BSTR vector of 1 element\n")) << show.out;
  EXPECT_TRUE(Has(show.out, "-> VT_UI1 array of 2 rows of 3 bytes (records 0xBB)")) << show.out;
  EXPECT_TRUE(Has(show.out, "-> no array")) << show.out;
}

TEST(MstoreCli, SettingsAndBadInput) {
  xk::test::Sandbox sandbox;
  for (const std::string& args :
       {std::string("registry show 'NOHIVE\\x'"), "registry set " + kKey + " V --type dword 4294967296",
        "registry set " + kKey + " V --type binary abc", "registry set " + kKey + " V --type float 1",
        "registry set " + kKey + " V --type sz", std::string("settings set No.Such 1"),
        std::string("settings set Merrowstore.Authentication.Timeout ten"), std::string("--log nonsense settings show"),
        std::string("frobnicate"), std::string("")}) {
    Result r = RunMstore(sandbox, args);
    EXPECT_NE(r.status, 0) << args;
    EXPECT_FALSE(r.out.empty()) << args;
  }

  // Settings show their source and can be set and reset.
  Result before = RunMstore(sandbox, "settings show");
  ASSERT_EQ(before.status, 0) << before.out;
  EXPECT_TRUE(Has(before.out, "15          (default)")) << before.out;

  ASSERT_EQ(RunMstore(sandbox, "settings set Merrowstore.Authentication.Timeout 30").status, 0);
  Result after = RunMstore(sandbox, "settings show");
  EXPECT_TRUE(Has(after.out, "30          (registry)")) << after.out;
  ASSERT_EQ(RunMstore(sandbox, "settings reset Merrowstore.Authentication.Timeout").status, 0);
  EXPECT_TRUE(Has(RunMstore(sandbox, "settings show").out, "15          (default)"));
  EXPECT_EQ(RunMstore(sandbox, "--log all settings show").status, 0);
}

TEST(MstoreCatalogue, EntriesAsListedAndAsTheLibraryRegistersThem) {
  xk::test::Sandbox sandbox;
  const std::string pinStore = "PIN store {AEA79AF9-BECB-490a-BCCB-CD0806BA970D}: volatile, encrypted, shared\n";
  EXPECT_EQ(RunMstore(sandbox, "catalogue list").out,
            "the catalogue is empty (HKEY_LOCAL_MACHINE\\Software\\Norvane Co\\Merrowstore\\StoreList)\n");
  EXPECT_EQ(RunMstore(sandbox, "stores").out, pinStore + "no data store: the catalogue is empty\n");
  ASSERT_EQ(RunMstore(sandbox, "catalogue add Demo --encrypted").status, 0);
  ASSERT_EQ(RunMstore(sandbox, "catalogue add Vault --type 1 --not-shared --product Acme").status, 0);
  EXPECT_EQ(RunMstore(sandbox, "catalogue list").out,
            "Demo\n"
            "  Type                       0            memory\n"
            "  Encrypted                  1            encrypted\n"
            "  SharedBetweenUserSessions  1            shared\n"
            "  Product                    (absent)     default: \"Keldara\"\n"
            "Vault\n"
            "  Type                       1            remanent\n"
            "  Encrypted                  0            not encrypted\n"
            "  SharedBetweenUserSessions  0            not shared: the store refuses data operations\n"
            "  Product                    \"Acme\"\n");
  // An empty product is always refused.
  ASSERT_EQ(RunMstore(sandbox, "catalogue add Unnamed --product ''").status, 0);
  EXPECT_EQ(RunMstore(sandbox, "stores").out,
            pinStore +
            "Demo: memory, encrypted, shared, product \"Keldara\"\n"
            "Vault: remanent, not encrypted, not shared, product \"Acme\"\n"
            "not registered: Unnamed (catalogue: memory, not encrypted, shared, product \"\")\n"
            "the library did not register 1 of the catalogue's 3 entries; `mstore --log failure stores` shows "
            "why\n");

  // What the library would not read as it expects is shown as such.
  const std::string key = "'HKEY_LOCAL_MACHINE\\Software\\Norvane Co\\Merrowstore\\StoreList\\Demo'";
  ASSERT_EQ(RunMstore(sandbox, "registry set " + key + " Encrypted --type sz 1").status, 0);
  ASSERT_EQ(RunMstore(sandbox, "registry set " + key + " type --type dword 1").status, 0);
  const std::string list = RunMstore(sandbox, "catalogue list").out;
  EXPECT_TRUE(Has(list, "  Encrypted                  \"1\" (sz)     unreadable: the library stops reading the "
                        "catalogue here\n")) << list;
  EXPECT_TRUE(Has(list, "  type (ignored)\n")) << list;

  ASSERT_EQ(RunMstore(sandbox, "catalogue remove Vault").status, 0);
  for (const char* bad : {"catalogue remove Vault", "catalogue add Demo", "catalogue add X --type big",
                          "catalogue add X --shared --not-shared", "catalogue add 'a\\b'", "catalogue add ''"}) {
    Result r = RunMstore(sandbox, bad);
    EXPECT_NE(r.status, 0) << bad;
    EXPECT_FALSE(r.out.empty()) << bad;
  }

  // Without its plugin beside it, mstore says so instead of crashing.
  const std::string bin = sandbox.Dir() + "/bin";
  std::filesystem::create_directories(bin);
  std::filesystem::copy_file(MSTORE_BINARY, bin + "/mstore");
  Result lost = RunMstore(sandbox, "stores", bin + "/mstore");
  EXPECT_EQ(lost.status, 1);
  EXPECT_TRUE(Has(lost.out, "mstore: cannot load the store library: ")) << lost.out;
}

// One process keeps the memory stores and the PIN store across its commands;
// a remanent store keeps its values for the next process.
TEST(MstoreShell, OneScriptOfValuesDataAndPINCommands) {
  xk::test::Sandbox sandbox;
  ASSERT_EQ(RunMstore(sandbox, "catalogue add Demo").status, 0);
  ASSERT_EQ(RunMstore(sandbox, "catalogue add Keep --type remanent --product Acme").status, 0);
  Steps steps;
  for (const auto& [value, shown] : Steps{
           {"int8 -128 127", "int8 -128 127"},
           {"int16 -32768 0x7fff", "int16 -32768 32767"},
           {"uint16 0 65535", "uint16 0 65535"},
           {"int32 -2147483648", "int32 -2147483648"},
           {"uint32 0xFFFFFFFF 007", "uint32 4294967295 7"},
           {"int64 -9223372036854775808 0x7fffffffffffffff", "int64 -9223372036854775808 9223372036854775807"},
           {"uint64 0x10 18446744073709551615", "uint64 16 18446744073709551615"},
           {"int -5 2147483647", "int -5 2147483647"},
           {"uint", "uint"},
           {"bytes \"00 ff\" 10", "bytes 00ff10"},
           {"bytes", "bytes \"\""},
           {"text a\"b c\"d \"\" \"back\\\\slash\" x#y", "text \"ab cd\" \"\" \"back\\\\slash\" \"x#y\""},
       }) {
    steps.push_back({"set Demo c v " + value, "S_OK"});
    steps.push_back({"get Demo c v", "S_OK: " + shown});
  }
  steps.insert(steps.end(), {
      {"set Demo user/alice name text \"Alice \\\"A\\\" Doe\" x", "S_OK"},
      {"get Demo user/alice name", "S_OK: text \"Alice \\\"A\\\" Doe\" \"x\""},
      {"set Demo user/alice key bytes \"00 ff\" 10", "S_OK"},
      {"set Demo user/alice n uint64 0x10 18446744073709551615", "S_OK"},
      {"set Demo user/bob n int -5 2147483647", "S_OK"},
      {"versions Demo user/alice", "S_OK: cached, compartment version 1, content version 3"},
      {"touch Demo user/alice", "S_OK"},
      {"versions Demo user/alice", "S_OK: cached, compartment version 2, content version 4"},
      {"list-data Demo user/alice", "S_OK: \"key\" \"n\" \"name\""},
      {"list-compartments Demo user", "S_OK: \"alice\" \"bob\""},
      {"is-cached Demo user/alice nope", "S_OK: not cached"},
      {"get Demo user/alice nope", "E_INVALIDARG 0x80070057: not found"},
      {"get Demo \"\" name", "E_INVALIDARG 0x80070057: empty identifier"},
      {"get Nope user/alice name", "E_FAIL 0x80004005: no store \"Nope\""},
      {"remove-compartment Demo user/bob", "S_OK"},
      {"versions Demo user/bob", "S_OK: not cached, compartment version 2, content version 2"},
      {"remove-compartment Demo user/bob --with-versions", "S_OK"},
      {"versions Demo user/bob", "S_OK: not cached, compartment version 0, content version 0"},
      {"remove Demo user/alice n", "S_OK"},
      {"list-data Demo user/alice", "S_OK: \"key\" \"name\""},
      {"set Keep user/alice name text Alice", "S_OK"},
      {"flush-product Keldara", "S_OK"},
      {"list-compartments Demo", "S_OK: (none)"},
      // A middleware's round with the PIN cache.
      {"pin-set card user 1234 Action=Authenticate", "S_OK: PIN session id UUID"},
      {"pin-probe-ex card user IsACRPINAlways=Yes", "S_OK: available, PIN session id UUID"},
      {"pin-get-ex card user IsACRPINAlways=Yes", "S_OK: available, PIN \"1234\", PIN session id UUID"},
      {"pin-probe card user IsACRPINAlways=Yes", "S_OK: not cached, PIN session id UUID"},
      {"pin-get-ex card user IsACRPINAlways=Yes", "S_OK: prompt, PIN \"1234\", PIN session id UUID"},
      {"pin-state card user available", "S_OK"},
      {"pin-get card user", "S_OK: PIN \"1234\", PIN session id UUID"},
      {"pin-set card user \"12 34\" --id my-id BypassPINAlways=True", "S_OK"},
      {"pin-get-ex card user --id my-id IsACRPINAlways=Yes", "S_OK: available, PIN \"12 34\""},
      {"pin-probe card user", "S_OK: cached, PIN session id my-id"},
      {"pin-remove card user --id my-id", "S_OK"},
      {"pin-get card user", "E_INVALIDARG 0x80070057: not cached"},
      {"pin-get card user Action=None",
       "S_OK: nothing came back (with parameters the client answers S_OK for a failed call)"},
      {"pin-set other/sub p 1", "S_OK: PIN session id UUID"},
      {"pin-remove-compartment other", "S_OK"},
      {"pin-probe other/sub p", "E_INVALIDARG 0x80070057: not cached"},
      {"pin-flush", "S_OK"},
      // The library's log, when asked for, after each result.
      {"log on", "log levels 1,2 after each result"},
      {"get Demo a b", "E_INVALIDARG 0x80070057: not found\n"
                       "  log [2] CInternalDataStore::GetData GetData : data not found\n"
                       "  log [2] CStaticDataCacheClient::GetData GetData : data not found"},
  });
  std::string script = "# comments and blank lines print nothing\n\n", expected;
  for (const auto& [command, result] : steps) {
    script += command + "   # a comment after the command\n";
    expected += result + "\n";
  }
  // From a pipe: no prompt.
  Result r = RunMstore(sandbox, "shell < '" + WriteScript(sandbox, script + "quit\nset Demo a b text late\n") + "'");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(std::regex_replace(r.out, std::regex("[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}"), "UUID"), expected);
  EXPECT_EQ(RunMstore(sandbox, "shell --script '" + WriteScript(sandbox, "get Keep user/alice name\n") + "'").out,
            "S_OK: text \"Alice\"\n");
}

// Each refused line is reported (by its number) and the rest run: unknown
// commands and kinds, bad quoting, missing or misplaced arguments, numbers out
// of their kind's range or badly written, unknown PIN parameters and states.
TEST(MstoreShell, LinesThatCannotRunAreReportedAndTheRestRun) {
  xk::test::Sandbox sandbox;
  ASSERT_EQ(RunMstore(sandbox, "catalogue add Demo").status, 0);
  std::string text = "frob\nset Demo a b text \"open\nset Demo a b text ok\nget Demo a b\n";
  for (const char* line :
       {"set Demo a b bytes 0g", "get Demo a", "set Demo a b uint 4294967296", "set Demo a b float 1",
        "set Demo c v int8 128", "set Demo c v int8 -129", "set Demo c v uint16 -1", "set Demo c v int 0x",
        "set Demo c v uint 1.5", "set Demo c v uint64 18446744073709551616", "set Demo c v int32 - 1",
        "set Demo c v uint +1", "set Demo c v bytes 0x00", "pin-set card user", "pin-get card user Action",
        "pin-get card user IsAcrPinAlways=Yes", "pin-probe card user --id", "pin-state card user maybe",
        "pin-flush --id x"})
    text += std::string(line) + "\n";
  const std::string script = WriteScript(sandbox, text);
  Result r = RunMstore(sandbox, "shell --script '" + script + "'");
  EXPECT_EQ(r.status, 1);
  for (const char* line : {"mstore: line 2: unterminated quote at column 19\n", "S_OK: text \"ok\"\n",
                           "mstore: 21 of 23 commands could not be run\n"})
    EXPECT_TRUE(Has(r.out, line)) << line << "\n" << r.out;

  Result stopped = RunMstore(sandbox, "shell --stop-on-error --script '" + script + "'");
  EXPECT_EQ(stopped.status, 1);
  EXPECT_TRUE(Has(stopped.out, "line 1: unknown command")) << stopped.out;
  EXPECT_FALSE(Has(stopped.out, "line 2")) << stopped.out;
  EXPECT_FALSE(Has(stopped.out, "S_OK")) << stopped.out;
}
