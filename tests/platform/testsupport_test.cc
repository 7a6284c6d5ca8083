#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <ctime>
#include <vector>

#include "xk/fault_point.h"
#include "xk/testsupport.h"
#include "xk/timer.h"

using xk::fault::Kind;

TEST(FaultInjector, CountsDownToTheNthCallOnceOrPersistently) {
  xk::test::FaultInjector faults;
  EXPECT_EQ(xk::fault::Check("Op").kind, Kind::kNone);  // nothing armed

  faults.FailWithCode("Op", 42, 3);
  std::vector<long> seen;
  for (int i = 0; i < 5; ++i) {
    xk::fault::Outcome o = xk::fault::Check("Op");
    seen.push_back(o.kind == Kind::kCode ? o.code : 0);
  }
  EXPECT_EQ(seen, (std::vector<long>{0, 0, 42, 0, 0}));
  EXPECT_EQ(faults.Fired("Op"), 1u);
  EXPECT_EQ(xk::fault::Check("Other").kind, Kind::kNone);

  faults.FailWithNull("Op", 2, /*persistent=*/true);
  std::vector<Kind> kinds;
  for (int i = 0; i < 4; ++i) kinds.push_back(xk::fault::Check("Op").kind);
  EXPECT_EQ(kinds, (std::vector<Kind>{Kind::kNone, Kind::kNull, Kind::kNull, Kind::kNull}));
  EXPECT_EQ(faults.Fired("Op"), 3u);

  faults.Reset();
  EXPECT_EQ(xk::fault::Check("Op").kind, Kind::kNone);
  EXPECT_EQ(faults.Fired("Op"), 0u);
}

TEST(Sandbox, RedirectsTheFixedKeyFileAndInjectsShortReads) {
  std::string dir;
  {
    xk::test::Sandbox sandbox;
    dir = sandbox.Dir();
    sandbox.WriteKeyFile({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17});
    unsigned char buf[32] = {};
    FILE* f = std::fopen(xk::test::kFixedKeyFilePath, "rb");
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(std::fread(buf, 1, 16, f), 16u);
    EXPECT_EQ(buf[0], 1);
    EXPECT_EQ(buf[15], 16);
    std::fclose(f);

    xk::test::FaultInjector faults;
    faults.FailWithShortRead("fread", 5);
    // Another file does not consume the armed fault.
    FILE* other = std::fopen(sandbox.KeyFilePath().c_str(), "rb");
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(std::fread(buf, 1, 16, other), 16u);
    std::fclose(other);
    f = std::fopen(xk::test::kFixedKeyFilePath, "rb");
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(std::fread(buf, 1, 16, f), 5u);
    std::fclose(f);

    faults.FailWithNull("fopen");
    EXPECT_EQ(std::fopen(xk::test::kFixedKeyFilePath, "rb"), nullptr);
    EXPECT_EQ(faults.Fired("fopen"), 1u);

    // A sandbox within a sandbox puts the outer redirect back when it goes.
    {
      xk::test::Sandbox inner;
      inner.WriteKeyFile({42});
      f = std::fopen(xk::test::kFixedKeyFilePath, "rb");
      ASSERT_NE(f, nullptr);
      EXPECT_EQ(std::fgetc(f), 42);
      std::fclose(f);
    }
    f = std::fopen(xk::test::kFixedKeyFilePath, "rb");
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(std::fgetc(f), 1);
    std::fclose(f);
  }
  // The sandbox is gone, and with it the redirect: the fixed path opens
  // whatever this machine has there, a key file or nothing.
  EXPECT_EQ(std::fopen((dir + "/remanentstore.key").c_str(), "rb"), nullptr);
  FILE* f = std::fopen(xk::test::kFixedKeyFilePath, "rb");
  EXPECT_EQ(f != nullptr, access(xk::test::kFixedKeyFilePath, R_OK) == 0);
  if (f != nullptr) std::fclose(f);
}

namespace {
class Counter : public QX::Framework::ITimerCallbackFunction {
 public:
  explicit Counter(std::atomic<int>& n) : m_N(n) {}
  bool InvokeFunction() override {
    ++m_N;
    return true;
  }

 private:
  std::atomic<int>& m_N;
};
}  // namespace

TEST(TestClock, DrivesTimeAndTimersTogether) {
  std::time_t before = std::time(nullptr);
  std::atomic<int> fired{0};
  {
    xk::test::TestClock clock(1'000'000);
    EXPECT_EQ(std::time(nullptr), 1'000'000);
    QX::Framework::ITimer* timer = QX::Framework::ITimer::CreateNewTimer(10, new Counter(fired));
    ASSERT_NE(timer, nullptr);
    clock.Advance(9);
    clock.AdvanceMilliseconds(999);
    EXPECT_EQ(fired.load(), 0);
    EXPECT_EQ(std::time(nullptr), 1'000'009);
    clock.AdvanceMilliseconds(1);
    EXPECT_EQ(fired.load(), 1);
    EXPECT_EQ(std::time(nullptr), 1'000'010);
    // The wall clock jumping back does not bring the timer back.
    clock.SetWallClock(5);
    EXPECT_EQ(std::time(nullptr), 5);
    clock.Advance(100);
    EXPECT_EQ(fired.load(), 1);
    delete timer;
  }
  EXPECT_GE(std::time(nullptr), before);  // the real clock is back
}
