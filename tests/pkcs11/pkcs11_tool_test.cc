// pkcs11-tool in front of SoftHSM2 through the module, in its own process: what
// a user types, and that every answer comes through.

#include "pkcs11_test_support.h"

namespace {

using namespace p11test;

TEST(PKCS11Tool, LogsInListsSignsAndTestsThroughTheModule) {
  World world;
  const std::string data = world.sandbox.Dir() + "/data";
  std::ofstream(data) << "to be signed";
  const std::string tool = MSTORE_TOOL_ENV " pkcs11-tool --module " MSTORE_PKCS11_LIBRARY " --login --pin ";
  const std::string keypairgen = "--keypairgen --key-type EC:prime256v1 --id ";
  const std::string sign = "--sign -m ECDSA -i " + data + " -o " + data + ".sig --id ";
  std::string said;
  for (const std::string& step : {keypairgen + "01", keypairgen + "02 --always-auth", std::string("--list-objects"),
                                  sign + "01", sign + "02", std::string("--test")}) {
    const auto [out, status] = Shell(tool + "1234 " + step);
    EXPECT_EQ(status, 0) << step << "\n" << out;
    said += out;
  }
  // The always-authenticate key is listed, and gets the typed PIN again.
  EXPECT_NE(said.find("Access:     always authenticate"), std::string::npos) << said;
  EXPECT_NE(said.find("No errors"), std::string::npos) << said;
  // A wrong PIN comes back as the token's answer.
  const std::string wrong = Shell(tool + "9999 --list-objects").first;
  EXPECT_NE(wrong.find("CKR_PIN_INCORRECT"), std::string::npos) << wrong;
}

}  // namespace
