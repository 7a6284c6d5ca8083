#include <gtest/gtest.h>

#include <cstring>

#include "xk/registry.h"
#include "xk/settings.h"
#include "xk/testsupport.h"

using QX::Framework::XKData;
using xk::settings::Source;

namespace {

const SecureString kAllowPerProcess("Merrowstore.Authentication.AllowPerProcess");
const SecureString kTimeout("Merrowstore.Authentication.Timeout");
const SecureString kPinAlways("Merrowstore.Authentication.EnablePINCacheForPINAlwaysPrivateKeys");

void PutRaw(const char* name, unsigned int type, const void* data, unsigned int size) {
  HKEY key = nullptr;
  ASSERT_EQ(xkRegCreateKeyEx("HKEY_LOCAL_MACHINE", xk::settings::RegistryKey(), 0, nullptr, 0, 3, nullptr, &key,
                             nullptr),
            ERROR_SUCCESS);
  ASSERT_EQ(xkRegSetValueEx(key, name, 0, type, static_cast<const unsigned char*>(data), size), ERROR_SUCCESS);
  xkRegCloseKey(key);
}

std::int64_t Read(const SecureString& name, HRESULT expected = S_OK) {
  XKData value;
  EXPECT_EQ(GetSettingValue(name, value, nullptr), expected);
  return value.Int();
}

}  // namespace

TEST(Settings, DefaultsApplyUntilTheRegistryHoldsAValue) {
  xk::test::Sandbox sandbox;
  EXPECT_EQ(Read(kAllowPerProcess), 0);
  EXPECT_EQ(Read(kTimeout), 15);
  EXPECT_EQ(Read(kPinAlways), 0);
  EXPECT_EQ(xk::settings::GetSettingSource(kTimeout), Source::kDefault);

  ASSERT_EQ(xk::settings::SetSettingValue(kTimeout, XKData(std::int64_t{45})), S_OK);
  EXPECT_EQ(Read(kTimeout), 45);
  EXPECT_EQ(xk::settings::GetSettingSource(kTimeout), Source::kRegistry);
  EXPECT_EQ(Read(kAllowPerProcess), 0);  // the others keep their defaults

  ASSERT_EQ(xk::settings::ResetSettingValue(kTimeout), S_OK);
  EXPECT_EQ(Read(kTimeout), 15);
  EXPECT_EQ(xk::settings::ResetSettingValue(kTimeout), S_OK);  // nothing left to remove
}

TEST(Settings, RegistryTypesAreReadAsNumbersOrText) {
  xk::test::Sandbox sandbox;
  std::uint32_t dword = 0x80000000u;  // the "never expires" timeout as a DWORD
  PutRaw(kTimeout.c_str(), REG_DWORD, &dword, 4);
  EXPECT_EQ(static_cast<std::int32_t>(Read(kTimeout)), INT32_MIN);

  std::int64_t qword = -7;
  PutRaw(kAllowPerProcess.c_str(), REG_QWORD, &qword, 8);
  EXPECT_EQ(Read(kAllowPerProcess), -7);

  PutRaw(kPinAlways.c_str(), REG_SZ, "1", 1);
  XKData value;
  ASSERT_EQ(GetSettingValue(kPinAlways, value, nullptr), S_OK);
  EXPECT_EQ(value.GetKind(), XKData::Kind::kString);
  EXPECT_EQ(value.Int(), 1);

  // A value of a type no setting has gives the default, reported as a failure.
  PutRaw(kTimeout.c_str(), REG_BINARY, "\x01\x02", 2);
  EXPECT_EQ(Read(kTimeout, E_FAIL), 15);
  std::uint16_t shortDword = 3;
  PutRaw(kTimeout.c_str(), REG_DWORD, &shortDword, 2);
  EXPECT_EQ(Read(kTimeout, E_FAIL), 15);
}

TEST(Settings, UnknownNamesAndBadArguments) {
  xk::test::Sandbox sandbox;
  XKData value(std::int64_t{99});
  EXPECT_EQ(GetSettingValue(SecureString("No.Such.Setting"), value, nullptr), static_cast<HRESULT>(0x80070002u));
  EXPECT_EQ(value.Int(), 99);  // left as it was
  EXPECT_EQ(xk::settings::GetSettingSource(SecureString("No.Such.Setting")), Source::kNone);
  EXPECT_EQ(GetSettingValue(SecureString(), value, nullptr), E_INVALIDARG);
  int reserved = 0;
  EXPECT_EQ(GetSettingValue(kTimeout, value, &reserved), E_INVALIDARG);
  EXPECT_EQ(xk::settings::SetSettingValue(kTimeout, XKData()), E_INVALIDARG);

  // Names are exact: a differently cased name is another setting.
  EXPECT_EQ(xk::settings::GetSettingSource(SecureString("merrowstore.authentication.timeout")), Source::kNone);
}

TEST(Settings, XKDataConversions) {
  EXPECT_EQ(XKData().Int(), 0);
  EXPECT_EQ(XKData().String(), "");
  EXPECT_EQ(XKData(SecureString("0x10")).Int(), 16);
  EXPECT_EQ(XKData(SecureString("-5")).Int(), -5);
  EXPECT_EQ(XKData(SecureString("12abc")).Int(), 0);
  EXPECT_EQ(XKData(std::int64_t{-42}).String(), "-42");
}

TEST(Settings, InjectedFaultsReachTheCaller) {
  xk::test::Sandbox sandbox;
  xk::test::FaultInjector faults;
  XKData value(std::int64_t{5});
  faults.FailWithCode("GetSettingValue", E_OUTOFMEMORY);
  EXPECT_EQ(GetSettingValue(kTimeout, value, nullptr), E_OUTOFMEMORY);
  EXPECT_EQ(value.Int(), 5);
  EXPECT_EQ(faults.Fired("GetSettingValue"), 1u);

  // A registry that fails to read still yields the default, with a failure code.
  faults.FailWithCode("qxRegReadValueEx", ERROR_REGISTRY_IO_FAILED);
  EXPECT_EQ(GetSettingValue(kTimeout, value, nullptr), E_FAIL);
  EXPECT_EQ(value.Int(), 15);
  EXPECT_EQ(Read(kTimeout), 15);
}
