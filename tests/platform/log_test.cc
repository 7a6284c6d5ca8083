#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <string>
#include <vector>

#include "xk/log.h"
#include "xk/testsupport.h"

using xk::log::Bit;
using xk::test::LogCapture;

// %n stores the count of characters formatted so far: it is untouched only if
// the call never reached the formatter.
TEST(Log, RecordsCarryModuleLevelAndTextFormattedOnlyForALevelThatIsOnAndASink) {
  int written = -1;
  const std::uint64_t saved = xk::log::GetLevelMask();
  xk::log::SetLevelMask(xk::log::kAllLevels);
  xklogLog("SRVTEST", 1, "abc%n", &written);  // no sink yet, whatever the mask
  xk::log::SetLevelMask(saved);

  LogCapture capture;
  xk::log::SetLevelMask(Bit(1) | Bit(16));
  xklogLog("SRVTEST", 2, "abc%n", &written);
  (xklogLog)("SRVTEST", 8, "abc%n", &written);  // the function, past the inline test
  xklogLog("SRVTEST", -1, "negative");
  xklogLog("SRVTEST", 64, "too high");
  EXPECT_EQ(written, -1);
  xklogLog("SRVTEST", 16, "CThing::Do hr = 0x%x%n", 0x80004005u, &written);
  EXPECT_EQ(written, 26);
  const std::string big(3000, 'q');
  xklogLog("SRVTEST", 1, "%s|end", big.c_str());  // longer than the formatting buffer on the stack
  const auto entries = capture.Entries();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].module + "|" + std::to_string(entries[0].level) + "|" + entries[0].text,
            "SRVTEST|16|CThing::Do hr = 0x80004005");
  EXPECT_EQ(entries[1].text, big + "|end");
}

TEST(Log, ParseLevelsAcceptsNumbersNamesAllAndNone) {
  const std::vector<std::pair<const char*, std::uint64_t>> good = {
      {"0,1, 2,8,16", Bit(0) | Bit(1) | Bit(2) | Bit(8) | Bit(16)},
      {"trace,failure,detail,entry,exit", Bit(0) | Bit(1) | Bit(2) | Bit(8) | Bit(16)},
      {"all", xk::log::kAllLevels},
      {"none", 0}};
  for (const auto& [text, expected] : good) {
    std::uint64_t mask = 12345;
    EXPECT_TRUE(xk::log::ParseLevels(text, &mask)) << text;
    EXPECT_EQ(mask, expected) << text;
  }
  for (const char* bad : {"", "1,,2", "64", "-1", "errors", "1;2", "8x"}) {
    std::uint64_t mask = 77;
    EXPECT_FALSE(xk::log::ParseLevels(bad, &mask)) << bad;
    EXPECT_EQ(mask, 77u) << bad;
  }
}

// (One line a record, " MODULE [level] text", is how the registration load
// test reads its child's log file.)
TEST(Log, FileSinkIsPrivateAndClosedOnRequest) {
  xk::test::Sandbox sandbox;
  const std::string path = sandbox.Dir() + "/log.txt";
  const std::uint64_t saved = xk::log::GetLevelMask();
  xk::log::SetLevelMask(Bit(1));
  ASSERT_TRUE(xk::log::SetFileSink(path.c_str()));
  xklogLog("SRVMOD", 1, "kept");
  ASSERT_TRUE(xk::log::SetFileSink(nullptr));
  xklogLog("SRVMOD", 1, "after close");
  xk::log::SetLevelMask(saved);
  std::ifstream in(path);
  std::string line, rest;
  std::getline(in, line);
  EXPECT_NE(line.find("kept"), std::string::npos) << line;
  EXPECT_FALSE(std::getline(in, rest)) << rest;
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_FALSE(xk::log::SetFileSink((sandbox.Dir() + "/no/such/dir/log").c_str()));
}
