// mstore keyfile: what it writes is the key the library reads.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <iterator>

#include "crypto/CommonCrypto.h"
#include "crypto/KeyFileMask.h"
#include "mstore_test_support.h"

using namespace mstoretest;

namespace {

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
