// pkcs11-tool in front of SoftHSM2 through the module, in its own process: what
// a user types, and that every answer comes through.

#include <array>
#include <cstdio>

#include "pkcs11_test_support.h"

namespace {

using namespace p11test;

// Runs pkcs11-tool on the module with `args`; its output and exit status.
std::pair<std::string, int> Tool(const std::string& args) {
  const std::string command = std::string(MSTORE_TOOL_ENV) + " pkcs11-tool --module " MSTORE_PKCS11_LIBRARY " " +
                              args + " 2>&1 </dev/null";
  FILE* pipe = popen(command.c_str(), "r");
  std::string out;
  std::array<char, 512> buffer;
  while (std::fgets(buffer.data(), buffer.size(), pipe) != nullptr) out += buffer.data();
  return {out, pclose(pipe)};
}

TEST(PKCS11Tool, LogsInListsSignsAndTestsThroughTheModule) {
  World world;
  setenv("MERROWSTORE_PKCS11_MODULE", SOFTHSM2_LIBRARY, 1);
  const std::string data = world.sandbox.Dir() + "/data";
  std::ofstream(data) << "to be signed";
  const std::string login = "--login --pin 1234 ";
  for (const char* step : {"--keypairgen --key-type EC:prime256v1 --id 01 --label plain",
                           "--keypairgen --key-type EC:prime256v1 --id 02 --label always --always-auth"}) {
    const auto [out, status] = Tool(login + step);
    EXPECT_EQ(status, 0) << out;
  }
  const auto [objects, listed] = Tool(login + "--list-objects");
  EXPECT_EQ(listed, 0);
  EXPECT_NE(objects.find("label:      always"), std::string::npos) << objects;
  EXPECT_NE(objects.find("Access:     always authenticate"), std::string::npos) << objects;
  for (const char* id : {"01", "02"}) {  // the always-authenticate key gets the typed PIN again
    const auto [out, status] = Tool(login + "--sign -m ECDSA --id " + id + " -i " + data + " -o " + data + ".sig" + id);
    EXPECT_EQ(status, 0) << out;
    EXPECT_EQ(std::ifstream(data + ".sig" + id, std::ios::binary | std::ios::ate).tellg(), 64) << out;
  }
  const auto [tested, status] = Tool(login + "--test");
  EXPECT_EQ(status, 0) << tested;
  EXPECT_NE(tested.find("No errors"), std::string::npos) << tested;
  // A wrong PIN comes back as the token's answer.
  const auto [wrong, refused] = Tool("--login --pin 9999 --list-objects");
  EXPECT_NE(refused, 0);
  EXPECT_NE(wrong.find("CKR_PIN_INCORRECT"), std::string::npos) << wrong;
}

}  // namespace
