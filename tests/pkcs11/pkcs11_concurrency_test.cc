// Two clients of the module in one process: one finalises (again and again)
// while the other signs, and the signer never notices.

#include <atomic>
#include <thread>

#include "pkcs11_test_support.h"

namespace {

using namespace p11test;

TEST(PKCS11Concurrency, AClientFinalisingWhileAnotherSigns) {
  World world;
  CK_FUNCTION_LIST* f = Ours();
  ASSERT_EQ(f->C_Initialize(nullptr), CKR_OK);
  const CK_SESSION_HANDLE signer = Open(f);
  ASSERT_EQ(Login(f, signer, "1234"), CKR_OK);
  const CK_OBJECT_HANDLE key = GenerateKey(f, signer, false);
  std::atomic<bool> done{false};
  std::atomic<int> failures{0};
  std::thread other([&] {
    for (int i = 0; i < 50; ++i) {
      failures += f->C_Initialize(nullptr) != CKR_OK;
      const CK_SESSION_HANDLE s = Open(f);
      failures += Login(f, s, i % 2 ? nullptr : "1234") != CKR_OK;  // logged in already: checked
      failures += f->C_CloseSession(s) != CKR_OK;
      failures += f->C_Finalize(nullptr) != CKR_OK;
    }
    done = true;
  });
  int signatures = 0;
  while (!done || signatures < 50) {
    EXPECT_EQ(Sign(f, signer, key), CKR_OK);
    ++signatures;
  }
  other.join();
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(f->C_Finalize(nullptr), CKR_OK);
}

}  // namespace
