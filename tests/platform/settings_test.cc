#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "../support/registry_support.h"
#include "xk/settings.h"

using QX::Framework::XKData;
using xk::settings::Source;

namespace {

const SecureString kAllowPerProcess("Merrowstore.Authentication.AllowPerProcess");
const SecureString kTimeout("Merrowstore.Authentication.Timeout");
const SecureString kPinAlways("Merrowstore.Authentication.EnablePINCacheForPINAlwaysPrivateKeys");

void PutRaw(const SecureString& name, unsigned int type, const std::string& bytes) {
  regtest::Put(xk::settings::RegistryKey(), name.c_str(), bytes, type);
}

std::int64_t Read(const SecureString& name, HRESULT expected = S_OK) {
  XKData value;
  EXPECT_EQ(GetSettingValue(name, value, nullptr), expected) << name.c_str();
  return value.Int();
}

using Settings = regtest::RegistryTest;

TEST_F(Settings, RegistryTypesAreReadAsNumbersOrText) {
  // Numbers (a DWORD unsigned: the "never expires" timeout has the lowest
  // int32 as its low 32 bits); texts read as numbers (decimal or 0x hex, else
  // 0); a type no setting has, or a number too short, gives the default with
  // a failure.
  const struct { unsigned int type; std::string bytes; HRESULT status; std::int64_t number; } kCases[] = {
      {REG_DWORD, std::string("\x2A\0\0\0", 4), S_OK, 42},
      {REG_DWORD, std::string("\0\0\0\x80", 4), S_OK, 0x80000000},
      {REG_QWORD, std::string("\xF9\xFF\xFF\xFF\xFF\xFF\xFF\xFF", 8), S_OK, -7},
      {REG_SZ, "0x10", S_OK, 16},
      {REG_EXPAND_SZ, "-5", S_OK, -5},
      {REG_SZ, "12abc", S_OK, 0},
      {REG_SZ, "", S_OK, 0},
      {REG_BINARY, "\x01\x02", E_FAIL, 15},
      {REG_DWORD, std::string("\x03\0", 2), E_FAIL, 15},
      {REG_QWORD, std::string("\x03\0\0\0", 4), E_FAIL, 15},
  };
  for (const auto& c : kCases) {
    PutRaw(kTimeout, c.type, c.bytes);
    EXPECT_EQ(Read(kTimeout, c.status), c.number) << "type " << c.type << " " << c.bytes;
  }
  ASSERT_EQ(xk::settings::SetSettingValue(kPinAlways, XKData(SecureString("1"))), S_OK);  // kept as text
  XKData value;
  ASSERT_EQ(GetSettingValue(kPinAlways, value, nullptr), S_OK);
  EXPECT_EQ(value.GetKind(), XKData::Kind::kString);
  EXPECT_EQ(XKData(std::int64_t{-42}).String(), "-42");
}

TEST_F(Settings, UnknownNamesBadArgumentsAndInjectedFaults) {
  XKData value(std::int64_t{99});
  EXPECT_EQ(GetSettingValue(SecureString("No.Such.Setting"), value, nullptr), static_cast<HRESULT>(0x80070002u));
  EXPECT_EQ(value.Int(), 99);  // left as it was
  // Names are exact: a differently cased name is another setting.
  EXPECT_EQ(xk::settings::GetSettingSource(SecureString("merrowstore.authentication.timeout")), Source::kNone);
  EXPECT_EQ(GetSettingValue(SecureString(), value, nullptr), E_INVALIDARG);
  int reserved = 0;
  EXPECT_EQ(GetSettingValue(kTimeout, value, &reserved), E_INVALIDARG);
  EXPECT_EQ(xk::settings::SetSettingValue(kTimeout, XKData()), E_INVALIDARG);
  EXPECT_EQ(value.Int(), 99);

  EXPECT_EQ(Read(kTimeout), 15);  // kept, yet the faults below reach the next reads
  m_Faults.FailWithCode("GetSettingValue", E_OUTOFMEMORY);
  EXPECT_EQ(GetSettingValue(kTimeout, value, nullptr), E_OUTOFMEMORY);
  EXPECT_EQ(value.Int(), 99);
  // A registry that fails to read still yields the default, with a failure code.
  m_Faults.FailWithCode("qxRegReadValueEx", ERROR_REGISTRY_IO_FAILED);
  EXPECT_EQ(Read(kTimeout, E_FAIL), 15);
  EXPECT_EQ(Read(kTimeout), 15);
}

// Defaults until the registry holds a value. Answers are kept between reads,
// yet every change reaches the next read: another process's, this process's
// through the registry calls, a batch's own, a switch of file, a reset.
TEST_F(Settings, DefaultsUntilTheRegistryHoldsAValueAndEveryChangeReachesTheNextRead) {
  int go[2];
  ASSERT_EQ(pipe(go), 0);
  pid_t child = fork();  // another process, through the settings calls, once this one has kept its answer
  if (child == 0) {
    char c;
    _exit(read(go[0], &c, 1) == 1 && xk::settings::SetSettingValue(kTimeout, XKData(std::int64_t{30})) == S_OK ? 0 : 1);
  }
  EXPECT_EQ(Read(kAllowPerProcess) + Read(kPinAlways), 0);
  EXPECT_EQ(Read(kTimeout), 15);
  EXPECT_EQ(Read(kTimeout), 15);
  EXPECT_EQ(xk::settings::GetSettingSource(kTimeout), Source::kDefault);
  ASSERT_EQ(write(go[1], "g", 1), 1);
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_EQ(status, 0);
  EXPECT_EQ(Read(kTimeout), 30);
  EXPECT_EQ(xk::settings::GetSettingSource(kTimeout), Source::kRegistry);
  EXPECT_EQ(Read(kAllowPerProcess), 0);  // the others keep their defaults
  ASSERT_EQ(xk::settings::SetSettingValue(kAllowPerProcess, XKData(SecureString("7"))), S_OK);
  EXPECT_EQ(Read(kAllowPerProcess), 7);
  PutRaw(kTimeout, REG_DWORD, std::string("\x2D\0\0\0", 4));  // this process, through the registry calls
  EXPECT_EQ(Read(kTimeout), 45);
  {
    xk::registry::Batch batch(XK_REG_BATCH_WRITE);  // a batch reads its own writes
    ASSERT_EQ(xk::settings::SetSettingValue(kTimeout, XKData(std::int64_t{60})), S_OK);
    EXPECT_EQ(Read(kTimeout), 60);
  }
  EXPECT_EQ(Read(kTimeout), 60);
  const std::string other = m_Sandbox.Dir() + "/other.db";  // another database file
  ASSERT_EQ(xkRegSetDatabasePath(other.c_str()), ERROR_SUCCESS);
  EXPECT_EQ(Read(kTimeout), 15);
  ASSERT_EQ(xkRegSetDatabasePath(m_Sandbox.RegistryPath().c_str()), ERROR_SUCCESS);
  EXPECT_EQ(Read(kTimeout), 60);
  ASSERT_EQ(xk::settings::ResetSettingValue(kTimeout), S_OK);
  EXPECT_EQ(Read(kTimeout), 15);
  EXPECT_EQ(xk::settings::ResetSettingValue(kTimeout), S_OK);  // nothing left to remove
}

}  // namespace
