#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "xk/log.h"
#include "xk/testsupport.h"

using xk::test::LogCapture;

TEST(Log, ConcurrentCallersProduceWholeRecords) {
  LogCapture capture;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([t] {
      for (int i = 0; i < 500; ++i) xklogLog("SRVTEST", 2, "thread %d record %d", t, i);
    });
  for (auto& th : threads) th.join();
  auto entries = capture.Entries();
  ASSERT_EQ(entries.size(), 2000u);
  for (int t = 0; t < 4; ++t) EXPECT_EQ(capture.Count("thread " + std::to_string(t) + " record 499"), 1u);
}
