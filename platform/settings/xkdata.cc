#include <cerrno>
#include <cstdlib>
#include <string>

#include "xk/settings.h"

namespace QX {
namespace Framework {

XKData::XKData(std::int64_t value) : m_enKind(Kind::kInt), m_nValue(value) {}

XKData::XKData(const SecureString& value) : m_enKind(Kind::kString), m_sValue(value) {}

std::int64_t XKData::Int() const {
  switch (m_enKind) {
    case Kind::kInt:
      return m_nValue;
    case Kind::kString: {
      if (m_sValue.empty()) return 0;
      errno = 0;
      char* end = nullptr;
      long long v = std::strtoll(m_sValue.c_str(), &end, 0);
      if (errno != 0 || *end != '\0') return 0;
      return v;
    }
    case Kind::kEmpty:
      break;
  }
  return 0;
}

SecureString XKData::String() const {
  switch (m_enKind) {
    case Kind::kInt: {
      std::string s = std::to_string(m_nValue);
      return SecureString(s.begin(), s.end());
    }
    case Kind::kString:
      return m_sValue;
    case Kind::kEmpty:
      break;
  }
  return SecureString();
}

}  // namespace Framework
}  // namespace QX
