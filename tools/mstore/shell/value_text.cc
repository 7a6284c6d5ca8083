#include "value_text.h"

#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "registry_value.h"
#include "scoped_values.h"
#include "xk/registry.h"

namespace mstore {
namespace {

struct NumberKind {
  const char* name;
  VARTYPE vt;
  unsigned int size;
  bool isSigned;
};

const NumberKind kNumbers[] = {
    {"uint", VT_UINT, 4, false},  {"uint16", VT_UI2, 2, false}, {"uint32", VT_UI4, 4, false},
    {"uint64", VT_UI8, 8, false}, {"int", VT_INT, 4, true},     {"int8", VT_I1, 1, true},
    {"int16", VT_I2, 2, true},    {"int32", VT_I4, 4, true},    {"int64", VT_I8, 8, true},
};

const NumberKind* FindNumber(const std::string& name) {
  for (const NumberKind& k : kNumbers)
    if (name == k.name) return &k;
  return nullptr;
}

const NumberKind* FindNumber(VARTYPE vt) {
  for (const NumberKind& k : kNumbers)
    if (vt == k.vt) return &k;
  return nullptr;
}

// Decimal, or hex after 0x; a leading '-' only for signed kinds. The result is
// the value's bit pattern in 64 bits.
bool ParseNumber(const std::string& text, const NumberKind& kind, std::uint64_t& bits) {
  const bool negative = !text.empty() && text[0] == '-';
  const std::string digits = negative ? text.substr(1) : text;
  const bool hex = digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X');
  if (digits.empty() || (negative && !kind.isSigned)) return false;
  const unsigned char first = static_cast<unsigned char>(digits[hex ? 2 : 0]);
  if (!(hex ? std::isxdigit(first) : std::isdigit(first))) return false;
  errno = 0;
  char* end = nullptr;
  const unsigned long long magnitude = std::strtoull(digits.c_str() + (hex ? 2 : 0), &end, hex ? 16 : 10);
  if (errno != 0 || *end != '\0') return false;
  const unsigned int bitsInKind = kind.size * 8;
  const std::uint64_t unsignedMax = bitsInKind == 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << bitsInKind) - 1;
  const std::uint64_t positiveMax = kind.isSigned ? unsignedMax >> 1 : unsignedMax;
  if (negative ? magnitude > positiveMax + 1 : magnitude > positiveMax) return false;
  bits = negative ? ~std::uint64_t{magnitude} + 1 : std::uint64_t{magnitude};
  return true;
}

void StoreElement(unsigned char* data, const NumberKind& kind, std::uint64_t bits) {
  switch (kind.size) {
    case 1: { const auto v = static_cast<std::uint8_t>(bits); std::memcpy(data, &v, 1); break; }
    case 2: { const auto v = static_cast<std::uint16_t>(bits); std::memcpy(data, &v, 2); break; }
    case 4: { const auto v = static_cast<std::uint32_t>(bits); std::memcpy(data, &v, 4); break; }
    default: std::memcpy(data, &bits, 8); break;
  }
}

std::string ElementText(const unsigned char* data, const NumberKind& kind) {
  std::int64_t s = 0;
  std::uint64_t u = 0;
  switch (kind.size) {
    case 1: { std::uint8_t v; std::memcpy(&v, data, 1); u = v; s = static_cast<std::int8_t>(v); break; }
    case 2: { std::uint16_t v; std::memcpy(&v, data, 2); u = v; s = static_cast<std::int16_t>(v); break; }
    case 4: { std::uint32_t v; std::memcpy(&v, data, 4); u = v; s = static_cast<std::int32_t>(v); break; }
    default: std::memcpy(&u, data, 8); s = static_cast<std::int64_t>(u); break;
  }
  return kind.isSigned ? std::to_string(s) : std::to_string(u);
}

// Fills a new vector of vt with `size`-byte elements from `bytes`.
bool MakeVector(VARTYPE vt, const std::vector<unsigned char>& bytes, unsigned int size, SAFEARRAY** out,
                std::string& error) {
  SAFEARRAY* psa = SafeArrayCreateVector(vt, 0, bytes.size() / size);
  void* data = nullptr;
  if (psa == nullptr || FAILED(SafeArrayAccessData(psa, &data))) {
    qxSafeArrayDestroy(psa, 0);
    error = "cannot make the value";
    return false;
  }
  if (!bytes.empty()) std::memcpy(data, bytes.data(), bytes.size());
  SafeArrayUnaccessData(psa);
  *out = psa;
  return true;
}

bool ParseText(const std::vector<std::string>& words, SAFEARRAY** out, std::string& error) {
  SAFEARRAY* psa = SafeArrayCreateVector(VT_BSTR, 0, words.size());
  bool ok = psa != nullptr;
  for (int i = 0; ok && i < static_cast<int>(words.size()); ++i) {
    ScopedBstr element(words[static_cast<std::size_t>(i)]);
    ok = SUCCEEDED(SafeArrayPutElement(psa, &i, element.get()));
  }
  if (!ok) {
    qxSafeArrayDestroy(psa, 0);
    error = "cannot make the value";
    return false;
  }
  *out = psa;
  return true;
}

// Element count of a vector, or -1 for anything that is not one.
long CountOf(SAFEARRAY* psa, long& lower) {
  long upper = 0;
  if (SafeArrayGetDim(psa) != 1 || FAILED(SafeArrayGetLBound(psa, 1, &lower)) ||
      FAILED(SafeArrayGetUBound(psa, 1, &upper)))
    return -1;
  return upper - lower + 1;
}

// The raw bytes of a vector's elements.
std::vector<unsigned char> DataOf(SAFEARRAY* psa, long count) {
  std::vector<unsigned char> bytes(static_cast<std::size_t>(count) * SafeArrayGetElemsize(psa));
  void* data = nullptr;
  if (SUCCEEDED(SafeArrayAccessData(psa, &data))) {
    if (!bytes.empty()) std::memcpy(bytes.data(), data, bytes.size());
    SafeArrayUnaccessData(psa);
  }
  return bytes;
}

std::string Hex(const std::vector<unsigned char>& bytes) {
  std::string out;
  char buf[4];
  for (unsigned char b : bytes) {
    std::snprintf(buf, sizeof buf, "%02x", b);
    out += buf;
  }
  return out;
}

}  // namespace

std::string ValueKinds() {
  std::string kinds = "text bytes";
  for (const NumberKind& k : kNumbers) kinds += std::string(" ") + k.name;
  return kinds;
}

bool ParseValue(const std::string& kind, const std::vector<std::string>& words, SAFEARRAY** out,
                std::string& error) {
  if (kind == "text") return ParseText(words, out, error);
  if (kind == "bytes") {
    std::vector<unsigned char> bytes;
    return EncodeValue(REG_BINARY, words, bytes, error) && MakeVector(VT_UI1, bytes, 1, out, error);
  }
  const NumberKind* number = FindNumber(kind);
  if (number == nullptr) {
    error = "unknown value kind \"" + kind + "\" (kinds: " + ValueKinds() + ")";
    return false;
  }
  std::vector<unsigned char> bytes(words.size() * number->size);
  for (std::size_t i = 0; i < words.size(); ++i) {
    std::uint64_t bits;
    if (!ParseNumber(words[i], *number, bits)) {
      error = "not a " + kind + " number: " + words[i];
      return false;
    }
    StoreElement(bytes.data() + i * number->size, *number, bits);
  }
  return MakeVector(number->vt, bytes, number->size, out, error);
}

std::string RenderValue(SAFEARRAY* value) {
  VARTYPE vt = VT_EMPTY;
  long lower = 0;
  const long count = value == nullptr ? -1 : CountOf(value, lower);
  if (value == nullptr || FAILED(SafeArrayGetVartype(value, &vt))) return "(no value)";
  if (count < 0) return "vt " + std::to_string(vt) + " of " + std::to_string(SafeArrayGetDim(value)) + " dimensions";
  if (vt == VT_BSTR) {
    std::string out = "text";
    for (long i = 0; i < count; ++i) {
      int index = static_cast<int>(lower + i);
      ScopedBstr element;
      if (FAILED(SafeArrayGetElement(value, &index, element.out()))) return out + " (unreadable element)";
      out += " " + Quote(std::string(element.get() ? element.get() : "", SysStringByteLen(element.get())));
    }
    return out;
  }
  const std::vector<unsigned char> bytes = DataOf(value, count);
  if (vt == VT_UI1) return "bytes " + (bytes.empty() ? std::string("\"\"") : Hex(bytes));
  const NumberKind* number = FindNumber(vt);
  if (number == nullptr) return "vt " + std::to_string(vt) + " " + Hex(bytes);
  std::string out = number->name;
  for (std::size_t at = 0; at + number->size <= bytes.size(); at += number->size)
    out += " " + ElementText(bytes.data() + at, *number);
  return out;
}

std::vector<std::string> IdsOf(SAFEARRAY* list) {
  std::vector<std::string> ids;
  long lower = 0;
  const long count = list == nullptr ? 0 : CountOf(list, lower);
  for (long i = 0; i < count; ++i) {
    int index = static_cast<int>(lower + i);
    ScopedBstr element;
    if (SUCCEEDED(SafeArrayGetElement(list, &index, element.out())) && element.get() != nullptr)
      ids.emplace_back(element.get(), SysStringByteLen(element.get()));
  }
  return ids;
}

std::string RenderIdList(SAFEARRAY* list) {
  std::string out;
  for (const std::string& id : IdsOf(list)) out += (out.empty() ? "" : " ") + Quote(id);
  return out.empty() ? "(none)" : out;
}

std::string Quote(const std::string& text) {
  std::string out = "\"";
  char buf[8];
  for (unsigned char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20 || c == 0x7F) {
      std::snprintf(buf, sizeof buf, "\\x%02x", c);
      out += buf;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

}  // namespace mstore
