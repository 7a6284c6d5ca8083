#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "crypto/CommonCrypto.h"
#include "crypto/KeyFileMask.h"
#include "xk/testsupport.h"

namespace {

int Mstore(const std::string& args) {
  int raw = std::system((std::string(MSTORE_BINARY) + " " + args + " >/dev/null 2>&1").c_str());
  return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
}

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

TEST(MstoreKeyFile, InitWritesAPrivateMaskedKeyThatTheLibraryReads) {
  xk::test::Sandbox sandbox;
  const std::string path = sandbox.KeyFilePath();
  EXPECT_NE(Mstore("keyfile check --path '" + path + "'"), 0);  // nothing there yet

  ASSERT_EQ(Mstore("keyfile init --path '" + path + "'"), 0);
  EXPECT_EQ(Mstore("keyfile check --path '" + path + "'"), 0);
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);

  std::vector<unsigned char> stored = ReadAll(path);
  ASSERT_EQ(stored.size(), 16u);
  std::vector<unsigned char> key = LibraryKey();
  ASSERT_EQ(key.size(), 16u);
  for (std::size_t i = 0; i < 16; ++i) EXPECT_EQ(key[i], stored[i] ^ KeyFileMask[i]) << i;

  // An existing key file is kept unless --force says otherwise.
  EXPECT_NE(Mstore("keyfile init --path '" + path + "'"), 0);
  EXPECT_EQ(ReadAll(path), stored);
  ASSERT_EQ(Mstore("keyfile init --force --path '" + path + "'"), 0);
  EXPECT_NE(ReadAll(path), stored);
  EXPECT_NE(LibraryKey(), key);
}

TEST(MstoreKeyFile, CheckRefusesShortAndMissingFiles) {
  xk::test::Sandbox sandbox;
  sandbox.WriteKeyFile(std::vector<unsigned char>(15, 7));
  EXPECT_NE(Mstore("keyfile check --path '" + sandbox.KeyFilePath() + "'"), 0);
  sandbox.WriteKeyFile(std::vector<unsigned char>(17, 7));
  EXPECT_EQ(Mstore("keyfile check --path '" + sandbox.KeyFilePath() + "'"), 0);
  EXPECT_NE(Mstore("keyfile check --path '" + sandbox.Dir() + "'"), 0);  // a folder
  // A file where a folder should be.
  EXPECT_NE(Mstore("keyfile init --force --path '" + sandbox.KeyFilePath() + "/k.key'"), 0);
}
