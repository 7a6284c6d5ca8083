// Threads reading a setting while another thread changes it.

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "xk/settings.h"
#include "xk/testsupport.h"

// Answers are kept per thread: a read that starts after a write has returned
// sees that write or a later one, whichever thread wrote it.
TEST(SettingsConcurrencyTest, KeptAnswersNeverOutliveAWrite) {
  xk::test::Sandbox sandbox;
  const SecureString timeout("Merrowstore.Authentication.Timeout");
  std::atomic<std::int64_t> written{0};
  std::atomic<bool> done{false};
  std::atomic<int> stale{0};
  std::vector<std::thread> readers;
  for (int t = 0; t < 2; ++t) {
    readers.emplace_back([&] {
      for (bool last = false; !last;) {
        last = done.load();
        const std::int64_t before = written.load();
        QX::Framework::XKData value;
        if (GetSettingValue(timeout, value, nullptr) != S_OK || value.Int() < before) ++stale;
      }
    });
  }
  for (std::int64_t i = 101; i <= 140; ++i) {
    EXPECT_EQ(xk::settings::SetSettingValue(timeout, QX::Framework::XKData(i)), S_OK);
    written.store(i);
  }
  done.store(true);
  for (std::thread& reader : readers) reader.join();
  EXPECT_EQ(stale.load(), 0);
}
