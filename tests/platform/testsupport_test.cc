#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

#include "xk/testsupport.h"

// The first byte of what opens at the fixed key file path; -1 if nothing does.
static int FirstKeyFileByte() {
  FILE* f = std::fopen(xk::test::kFixedKeyFilePath, "rb");
  if (f == nullptr) return -1;
  const int byte = std::fgetc(f);
  std::fclose(f);
  return byte;
}

TEST(Sandbox, RedirectsTheFixedKeyFileAndInjectsShortReads) {
  std::string dir;
  {
    xk::test::Sandbox sandbox;
    dir = sandbox.Dir();
    sandbox.WriteKeyFile({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17});
    EXPECT_EQ(FirstKeyFileByte(), 1);
    // An armed short read is for the key file: another file does not consume it.
    xk::test::FaultInjector faults;
    faults.FailWithShortRead("fread", 5);
    std::vector<std::size_t> reads;
    for (const std::string& path : {sandbox.KeyFilePath(), std::string(xk::test::kFixedKeyFilePath)}) {
      unsigned char buf[32] = {};
      FILE* f = std::fopen(path.c_str(), "rb");
      ASSERT_NE(f, nullptr);
      reads.push_back(std::fread(buf, 1, 16, f));
      std::fclose(f);
    }
    EXPECT_EQ(reads, (std::vector<std::size_t>{16, 5}));
    // A sandbox within a sandbox puts the outer redirect back when it goes.
    {
      xk::test::Sandbox inner;
      inner.WriteKeyFile({42});
      EXPECT_EQ(FirstKeyFileByte(), 42);
    }
    EXPECT_EQ(FirstKeyFileByte(), 1);
  }
  // The sandbox is gone, and with it the redirect: the fixed path opens
  // whatever this machine has there, a key file or nothing.
  EXPECT_EQ(std::fopen((dir + "/remanentstore.key").c_str(), "rb"), nullptr);
  FILE* f = std::fopen(xk::test::kFixedKeyFilePath, "rb");
  EXPECT_EQ(f != nullptr, access(xk::test::kFixedKeyFilePath, R_OK) == 0);
  if (f != nullptr) std::fclose(f);
}

// The timer tests run on a TestClock; once it goes, time() is the real one again.
TEST(TestClock, TheRealTimeIsBackOnceItGoes) {
  {
    xk::test::TestClock clock(5);
    EXPECT_EQ(std::time(nullptr), 5);
  }
  EXPECT_GT(std::time(nullptr), 1'600'000'000);
}
