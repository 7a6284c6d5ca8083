#include <gtest/gtest.h>

#include "mstore_test_support.h"

using namespace mstoretest;

const std::string kKey = "'HKEY_LOCAL_MACHINE\\Software\\Norvane Co\\Test'";

TEST(MstoreCli, RegistrySetShowDumpAndDelete) {
  xk::test::Sandbox sandbox;
  ASSERT_EQ(RunMstore(sandbox, "registry set " + kKey + "'\\Sub' Count --type dword 7").status, 0);
  ASSERT_EQ(RunMstore(sandbox, "registry set " + kKey + " Names --type multi_sz ab c").status, 0);
  ASSERT_EQ(RunMstore(sandbox, "registry set " + kKey + " Blob --type binary 'ba 02 ff 00'").status, 0);

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
  ASSERT_EQ(RunMstore(sandbox, "registry set " + key + " a --type binary 'ba 03 01 02 03'").status, 0);
  ASSERT_EQ(RunMstore(sandbox, "registry set " + key + " b --type multi_sz ab '' c").status, 0);
  ASSERT_EQ(RunMstore(sandbox, "registry set " + key + " c --type binary 'bb 02 61 62 bb 01 63'").status, 0);
  ASSERT_EQ(RunMstore(sandbox, "registry set " + key + " d --type binary '77 00'").status, 0);
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
