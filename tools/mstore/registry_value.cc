#include "registry_value.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "xk/registry.h"

namespace mstore {
namespace {

const char* const kHives[] = {"HKEY_LOCAL_MACHINE", "HKEY_CURRENT_USER", "HKEY_CLASSES_ROOT", "HKEY_USERS",
                              "HKEY_CURRENT_CONFIG"};

const struct {
  const char* name;
  unsigned int type;
} kTypes[] = {{"none", REG_NONE},   {"sz", REG_SZ},       {"expand_sz", REG_EXPAND_SZ}, {"binary", REG_BINARY},
              {"dword", REG_DWORD}, {"multi_sz", REG_MULTI_SZ}, {"qword", REG_QWORD}};

bool ParseNumber(const std::string& text, unsigned long long max, unsigned long long& out) {
  if (text.empty() || text[0] == '-') {
    // Negative numbers are stored in two's complement of the value's width.
    if (text.size() < 2) return false;
    errno = 0;
    char* end = nullptr;
    long long v = std::strtoll(text.c_str(), &end, 0);
    if (errno || *end) return false;
    long long min = max == 0xFFFFFFFFull ? INT32_MIN : INT64_MIN;
    if (v < min) return false;
    out = static_cast<unsigned long long>(v) & max;
    return true;
  }
  errno = 0;
  char* end = nullptr;
  unsigned long long v = std::strtoull(text.c_str(), &end, 0);
  if (errno || *end || v > max) return false;
  out = v;
  return true;
}

}  // namespace

bool ParseKeyName(const std::string& full, KeyName& out) {
  std::size_t slash = full.find('\\');
  std::string hive = full.substr(0, slash);
  for (const char* h : kHives) {
    if (hive == h) {
      out.hive = hive;
      out.path = slash == std::string::npos ? "" : full.substr(slash + 1);
      return true;
    }
  }
  return false;
}

const char* TypeName(unsigned int type) {
  for (const auto& t : kTypes)
    if (t.type == type) return t.name;
  return "unknown";
}

bool ParseTypeName(const std::string& name, unsigned int& type) {
  for (const auto& t : kTypes) {
    if (name == t.name) {
      type = t.type;
      return true;
    }
  }
  return false;
}

bool EncodeValue(unsigned int type, const std::vector<std::string>& texts, std::vector<unsigned char>& bytes,
                 std::string& error) {
  bytes.clear();
  switch (type) {
    case REG_SZ:
    case REG_EXPAND_SZ:
      if (texts.size() != 1) {
        error = "a string value takes exactly one text";
        return false;
      }
      bytes.assign(texts[0].begin(), texts[0].end());
      return true;
    case REG_MULTI_SZ:
      for (const std::string& t : texts) {
        bytes.insert(bytes.end(), t.begin(), t.end());
        bytes.push_back(0);
      }
      bytes.push_back(0);
      return true;
    case REG_DWORD:
    case REG_QWORD: {
      std::size_t width = type == REG_DWORD ? 4 : 8;
      if (texts.empty()) {
        error = "a number value takes at least one number";
        return false;
      }
      for (const std::string& t : texts) {
        unsigned long long v;
        if (!ParseNumber(t, width == 4 ? 0xFFFFFFFFull : ~0ull, v)) {
          error = "not a " + std::string(width == 4 ? "32" : "64") + "-bit number: " + t;
          return false;
        }
        for (std::size_t i = 0; i < width; ++i) bytes.push_back(static_cast<unsigned char>(v >> (8 * i)));
      }
      return true;
    }
    case REG_BINARY:
    case REG_NONE: {
      std::string digits;
      for (const std::string& t : texts)
        for (char c : t)
          if (!std::isspace(static_cast<unsigned char>(c))) digits += c;
      if (digits.size() % 2 != 0) {
        error = "hex bytes need an even number of digits";
        return false;
      }
      for (std::size_t i = 0; i < digits.size(); i += 2) {
        if (!std::isxdigit(static_cast<unsigned char>(digits[i])) ||
            !std::isxdigit(static_cast<unsigned char>(digits[i + 1]))) {
          error = "not a hex byte: " + digits.substr(i, 2);
          return false;
        }
        bytes.push_back(static_cast<unsigned char>(std::stoul(digits.substr(i, 2), nullptr, 16)));
      }
      return true;
    }
    default:
      error = "unsupported value type";
      return false;
  }
}

std::string RenderValue(unsigned int type, const std::vector<unsigned char>& bytes) {
  std::string out;
  char buf[64];
  switch (type) {
    case REG_SZ:
    case REG_EXPAND_SZ:
      out = "\"";
      for (unsigned char c : bytes) {
        if (c >= 0x20 && c < 0x7F && c != '"' && c != '\\') {
          out += static_cast<char>(c);
        } else {
          std::snprintf(buf, sizeof buf, "\\x%02x", c);
          out += buf;
        }
      }
      return out + "\"";
    case REG_MULTI_SZ: {
      out = "[";
      std::size_t start = 0;
      bool first = true;
      for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (bytes[i] != 0) continue;
        if (i == start && i + 1 == bytes.size()) break;  // the list's final NUL
        out += first ? "" : ", ";
        first = false;
        out += RenderValue(REG_SZ, std::vector<unsigned char>(bytes.begin() + start, bytes.begin() + i));
        start = i + 1;
      }
      return out + "]";
    }
    case REG_DWORD:
    case REG_QWORD: {
      std::size_t width = type == REG_DWORD ? 4 : 8;
      if (bytes.size() % width == 0 && !bytes.empty()) {
        for (std::size_t i = 0; i < bytes.size(); i += width) {
          unsigned long long v = 0;
          for (std::size_t k = 0; k < width; ++k) v |= static_cast<unsigned long long>(bytes[i + k]) << (8 * k);
          std::snprintf(buf, sizeof buf, "%s0x%0*llx (%llu)", i ? ", " : "", static_cast<int>(width * 2), v, v);
          out += buf;
        }
        return out;
      }
      break;  // an odd size: show the bytes
    }
    default:
      break;
  }
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    std::snprintf(buf, sizeof buf, "%s%02x", i ? " " : "", bytes[i]);
    out += buf;
  }
  return out.empty() ? "(empty)" : out;
}

std::string RenderStoredArray(unsigned int type, const std::vector<unsigned char>& bytes) {
  auto count = [](std::size_t n) { return std::to_string(n) + (n == 1 ? " element" : " elements"); };
  switch (type) {
    case REG_SZ:
      return "VT_BSTR vector of 1 element";
    case REG_MULTI_SZ: {
      // Strings up to the first empty one; nothing comes back without a NUL.
      std::size_t n = 0, start = 0;
      bool any = false;
      for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (bytes[i] != 0) continue;
        any = true;
        if (i == start && n > 0) break;
        ++n;
        start = i + 1;
        if (i + 1 < bytes.size() && bytes[i + 1] == 0) break;
      }
      return any ? "VT_BSTR vector of " + count(n) : "";
    }
    case REG_DWORD:
      return "VT_UINT vector of " + count(bytes.size() / 4);
    case REG_QWORD:
      return "VT_UI8 vector of " + count(bytes.size() / 8);
    case REG_NONE:
      return "VT_UNKNOWN vector of 0 elements";
    case REG_BINARY: {
      if (bytes.empty()) return "";
      std::size_t payload = bytes.size() >= 2 ? bytes.size() - 2 : 0;
      if (bytes[0] == 0xBA) return "VT_UI1 vector of " + count(payload) + " (record 0xBA)";
      if (bytes[0] == 0x0B) return "VT_I1 vector of " + count(payload) + " (record 0x0B)";
      if (bytes[0] == 0xBB) {
        std::size_t rows = 0, width = 1;
        for (std::size_t i = 0; i + 1 < bytes.size(); i += 2 + bytes[i + 1]) {
          ++rows;
          width = std::max<std::size_t>(width, bytes[i + 1]);
        }
        if (bytes.size() == 2) rows = 0;
        return "VT_UI1 array of " + std::to_string(rows) + " rows of " + std::to_string(width + 1) +
               " bytes (records 0xBB)";
      }
      return "";
    }
    default:
      return "";
  }
}

bool IsRemanentStoreKey(const KeyName& key) {
  static const std::string kBase = "Software\\Norvane Co\\Merrowstore\\RemanentDataStore\\";
  return key.hive == "HKEY_LOCAL_MACHINE" && key.path.compare(0, kBase.size(), kBase) == 0;
}

}  // namespace mstore
