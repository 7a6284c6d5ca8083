// The commands of mstore that work on the library's data stores, driven
// through the binary: the catalogue, the stores the library registers from it,
// and the shell.

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <utility>
#include <vector>

#include "mstore_test_support.h"

using namespace mstoretest;

TEST(MstoreCatalogue, AddListAndRemoveEntries) {
  xk::test::Sandbox sandbox;
  EXPECT_EQ(RunMstore(sandbox, "catalogue list").out,
            "the catalogue is empty (HKEY_LOCAL_MACHINE\\Software\\Norvane Co\\Merrowstore\\StoreList)\n");
  ASSERT_EQ(RunMstore(sandbox, "catalogue add Demo").status, 0);
  ASSERT_EQ(RunMstore(sandbox, "catalogue add Vault --type remanent --encrypted --not-shared --product Acme").status, 0);

  Result list = RunMstore(sandbox, "catalogue list");
  EXPECT_EQ(list.status, 0);
  EXPECT_EQ(list.out,
            "Demo\n"
            "  Type                       0            memory\n"
            "  Encrypted                  0            not encrypted\n"
            "  SharedBetweenUserSessions  1            shared\n"
            "  Product                    (absent)     default: \"Keldara\"\n"
            "Vault\n"
            "  Type                       1            remanent\n"
            "  Encrypted                  1            encrypted\n"
            "  SharedBetweenUserSessions  0            not shared: the store refuses data operations\n"
            "  Product                    \"Acme\"\n");

  // What the library would not read as it expects is shown as such.
  const std::string key = "'HKEY_LOCAL_MACHINE\\Software\\Norvane Co\\Merrowstore\\StoreList\\Demo'";
  ASSERT_EQ(RunMstore(sandbox, "registry set " + key + " Encrypted --type sz 1").status, 0);
  ASSERT_EQ(RunMstore(sandbox, "registry set " + key + " type --type dword 1").status, 0);
  list = RunMstore(sandbox, "catalogue list");
  EXPECT_TRUE(Has(list.out, "  Encrypted                  \"1\" (sz)     unreadable: the library stops reading the "
                            "catalogue here\n")) << list.out;
  EXPECT_TRUE(Has(list.out, "  type (ignored)\n")) << list.out;

  Result again = RunMstore(sandbox, "catalogue add Demo");
  EXPECT_EQ(again.status, 1);
  EXPECT_TRUE(Has(again.out, "Demo is already in the catalogue")) << again.out;
  for (const char* bad : {"catalogue add X --type big", "catalogue add X --shared --not-shared",
                          "catalogue add 'a\\b'", "catalogue add ''"}) {
    Result r = RunMstore(sandbox, bad);
    EXPECT_NE(r.status, 0) << bad;
    EXPECT_FALSE(r.out.empty()) << bad;
  }

  ASSERT_EQ(RunMstore(sandbox, "catalogue remove Vault").status, 0);
  EXPECT_FALSE(Has(RunMstore(sandbox, "catalogue list").out, "Vault"));
  Result gone = RunMstore(sandbox, "catalogue remove Vault");
  EXPECT_EQ(gone.status, 1);
  EXPECT_TRUE(Has(gone.out, "Vault is not in the catalogue")) << gone.out;
}

TEST(MstoreStores, ListsWhatTheLibraryRegisteredAndWhatItDidNot) {
  xk::test::Sandbox sandbox;
  const std::string pinStore = "PIN store {AEA79AF9-BECB-490a-BCCB-CD0806BA970D}: volatile, encrypted, shared\n";
  EXPECT_EQ(RunMstore(sandbox, "stores").out, pinStore + "no data store: the catalogue is empty\n");
  ASSERT_EQ(RunMstore(sandbox, "catalogue add Demo").status, 0);
  ASSERT_EQ(RunMstore(sandbox, "catalogue add Other --not-shared --product Acme").status, 0);
  // An empty product is always refused.
  ASSERT_EQ(RunMstore(sandbox, "catalogue add Remanent --type 1").status, 0);
  ASSERT_EQ(RunMstore(sandbox, "catalogue add Unnamed --product ''").status, 0);

  Result stores = RunMstore(sandbox, "stores");
  EXPECT_EQ(stores.status, 0);
  EXPECT_EQ(stores.out,
            pinStore +
            "Demo: memory, not encrypted, shared, product \"Keldara\"\n"
            "Other: memory, not encrypted, not shared, product \"Acme\"\n"
            "Remanent: remanent, not encrypted, shared, product \"Keldara\"\n"
            "not registered: Unnamed (catalogue: memory, not encrypted, shared, product \"\")\n"
            "the library did not register 1 of the catalogue's 4 entries; `mstore --log failure stores` shows "
            "why\n");

  // Without its plugin beside it, mstore says so instead of crashing.
  const std::string bin = sandbox.Dir() + "/bin";
  std::filesystem::create_directories(bin);
  std::filesystem::copy_file(MSTORE_BINARY, bin + "/mstore");
  Result lost = RunMstore(sandbox, "stores", bin + "/mstore");
  EXPECT_EQ(lost.status, 1);
  EXPECT_TRUE(Has(lost.out, "mstore: cannot load the store library: ")) << lost.out;
  EXPECT_TRUE(Has(lost.out, "libmstoreshell.so")) << lost.out;
}

TEST(MstoreShell, OneProcessKeepsTheMemoryStoreAcrossCommands) {
  xk::test::Sandbox sandbox;
  ASSERT_EQ(RunMstore(sandbox, "catalogue add Demo").status, 0);
  const std::vector<std::pair<std::string, std::string>> steps = {
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
      {"flush-product Keldara", "S_OK"},
      {"list-compartments Demo", "S_OK: (none)"},
  };
  std::string script = "# comments and blank lines print nothing\n\n";
  std::string expected;
  for (const auto& [command, result] : steps) {
    script += command + "   # a comment after the command\n";
    expected += result + "\n";
  }
  Result r = RunMstore(sandbox, "shell --script '" + WriteScript(sandbox, script + "quit\nset Demo a b text late\n") + "'");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, expected);

  // From a pipe: no prompt, and the library's log printed after the result.
  WriteScript(sandbox, "log on\nget Demo a b\n");
  Result piped = RunMstore(sandbox, "shell < '" + sandbox.Dir() + "/script.mstore'");
  EXPECT_EQ(piped.status, 0);
  EXPECT_EQ(piped.out,
            "log levels 1,2 after each result\n"
            "E_INVALIDARG 0x80070057: not found\n"
            "  log [2] CInternalDataStore::GetData GetData : data not found\n"
            "  log [2] CStaticDataCacheClient::GetData GetData : data not found\n");
}

TEST(MstoreShell, ARemanentStoreKeepsItsValuesAcrossInvocations) {
  xk::test::Sandbox sandbox;
  ASSERT_EQ(RunMstore(sandbox, "catalogue add Keep --type remanent").status, 0);
  Result set = RunMstore(sandbox, "shell --script '" + WriteScript(sandbox, "set Keep user/alice name text Alice\n") + "'");
  EXPECT_EQ(set.out, "S_OK\n");
  Result get = RunMstore(sandbox, "shell --script '" + WriteScript(sandbox, "get Keep user/alice name\n") + "'");
  EXPECT_EQ(get.out, "S_OK: text \"Alice\"\n");
  Result shown = RunMstore(
      sandbox, "registry show 'HKEY_LOCAL_MACHINE\\Software\\Norvane Co\\Merrowstore\\RemanentDataStore\\Keep\\user\\alice'");
  EXPECT_EQ(shown.status, 0);
  EXPECT_TRUE(Has(shown.out, "name")) << shown.out;
  EXPECT_TRUE(Has(shown.out, "-> VT_BSTR")) << shown.out;
}

TEST(MstoreShell, LinesThatCannotRunAreReportedAndTheRestRuns) {
  xk::test::Sandbox sandbox;
  ASSERT_EQ(RunMstore(sandbox, "catalogue add Demo").status, 0);
  std::string text =
      "frob\n"
      "set Demo a b bytes 0g\n"
      "set Demo a b text \"open\n"
      "get Demo a\n"
      "set Demo a b uint 4294967296\n"
      "set Demo a b float 1\n"
      "set Demo a b text ok\n"
      "get Demo a b\n";
  // Numbers out of their kind's range or badly written.
  for (const char* value : {"int8 128", "int8 -129", "uint16 -1", "int 0x", "uint 1.5", "uint64 18446744073709551616",
                            "int32 - 1", "uint +1", "bytes 0x00"})
    text += std::string("set Demo c v ") + value + "\n";
  const std::string script = WriteScript(sandbox, text);
  Result r = RunMstore(sandbox, "shell --script '" + script + "'");
  EXPECT_EQ(r.status, 1);
  for (const char* line : {"mstore: line 1: unknown command \"frob\" (help lists the commands)\n",
                           "mstore: line 2: not a hex byte: 0g\n",
                           "mstore: line 3: unterminated quote at column 19\n",
                           "mstore: line 4: usage: get STORE COMPARTMENT DATA\n",
                           "mstore: line 5: not a uint number: 4294967296\n",
                           "mstore: line 6: unknown value kind \"float\"", "S_OK: text \"ok\"\n",
                           "mstore: 15 of 17 commands could not be run\n"})
    EXPECT_TRUE(Has(r.out, line)) << line << "\n" << r.out;

  Result stopped = RunMstore(sandbox, "shell --stop-on-error --script '" + script + "'");
  EXPECT_EQ(stopped.status, 1);
  EXPECT_TRUE(Has(stopped.out, "line 1: unknown command")) << stopped.out;
  EXPECT_FALSE(Has(stopped.out, "line 2")) << stopped.out;
  EXPECT_FALSE(Has(stopped.out, "S_OK")) << stopped.out;
}

TEST(MstoreShell, ValuesOfEveryKindComeBackAsWritten) {
  xk::test::Sandbox sandbox;
  ASSERT_EQ(RunMstore(sandbox, "catalogue add Demo").status, 0);
  const std::vector<std::pair<std::string, std::string>> values = {
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
  };
  std::string script, expected;
  for (std::size_t i = 0; i < values.size(); ++i) {
    script += "set Demo c v" + std::to_string(i) + " " + values[i].first + "\nget Demo c v" + std::to_string(i) + "\n";
    expected += "S_OK\nS_OK: " + values[i].second + "\n";
  }
  Result r = RunMstore(sandbox, "shell --script '" + WriteScript(sandbox, script) + "'");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, expected);
}

TEST(MstoreShell, PinCommandsPlayAMiddlewaresRound) {
  xk::test::Sandbox sandbox;
  const std::vector<std::pair<std::string, std::string>> steps = {
      {"pin-set card user 1234 Action=Authenticate", "S_OK: PIN session id UUID"},
      {"pin-probe-ex card user IsACRPINAlways=Yes", "S_OK: available, PIN session id UUID"},
      {"pin-get-ex card user IsACRPINAlways=Yes", "S_OK: available, PIN \"1234\", PIN session id UUID"},
      {"pin-probe card user IsACRPINAlways=Yes", "S_OK: not cached, PIN session id UUID"},
      {"pin-get-ex card user IsACRPINAlways=Yes", "S_OK: prompt, PIN \"1234\", PIN session id UUID"},
      {"pin-state card user available", "S_OK"},
      {"pin-get card user", "S_OK: PIN \"1234\", PIN session id UUID"},
      {"pin-probe-ex card user IsACRPINAlways=Yes", "S_OK: prompt, PIN session id UUID"},
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
  };
  std::string script, expected;
  for (const auto& [command, result] : steps) {
    script += command + "\n";
    expected += result + "\n";
  }
  Result r = RunMstore(sandbox, "shell --script '" + WriteScript(sandbox, script) + "'");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(std::regex_replace(r.out, std::regex("[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}"), "UUID"), expected);

  const std::string bad = WriteScript(sandbox,
                                      "pin-set card user\n"
                                      "pin-get card user Action\n"
                                      "pin-get card user IsAcrPinAlways=Yes\n"
                                      "pin-probe card user --id\n"
                                      "pin-state card user maybe\n"
                                      "pin-flush --id x\n");
  r = RunMstore(sandbox, "shell --script '" + bad + "'");
  EXPECT_EQ(r.status, 1);
  for (const char* line :
       {"line 1: usage: pin-set COMPARTMENT PIN-ID PIN [--id ID] [NAME=VALUE...]\n",
        "line 2: pin-get takes NAME=VALUE parameters and --id ID after its arguments, not \"Action\"\n",
        "line 3: unknown parameter \"IsAcrPinAlways\" (parameters: IsACRPINAlways Action AllProcess",
        "line 4: --id needs a PIN session id (the one pin-set printed)\n",
        "line 5: a PIN state is prompt, available, confirm or a number, not \"maybe\"\n",
        "line 6: pin-flush takes NAME=VALUE parameters after its arguments, not \"--id\"\n",
        "mstore: 6 of 6 commands could not be run\n"})
    EXPECT_TRUE(Has(r.out, line)) << line << "\n" << r.out;
}
