#include "key_path.h"

#include <cstring>

#include "xk/registry.h"

namespace xk {
namespace registry {

namespace {

constexpr const char* kHives[] = {"HKEY_LOCAL_MACHINE", "HKEY_CURRENT_USER", "HKEY_CLASSES_ROOT", "HKEY_USERS",
                                  "HKEY_CURRENT_CONFIG"};

}  // namespace

bool IsHive(const char* text) {
  if (text == nullptr) return false;
  for (const char* hive : kHives) {
    if (std::strcmp(text, hive) == 0) return true;
  }
  return false;
}

long CheckSubKey(const char* subKey) {
  if (subKey == nullptr || *subKey == '\0') return ERROR_SUCCESS;
  std::string_view rest(subKey);
  while (true) {
    std::size_t end = rest.find('\\');
    std::size_t length = end == std::string_view::npos ? rest.size() : end;
    if (length == 0) return ERROR_BAD_PATHNAME;
    if (length > kMaxKeyNameBytes) return ERROR_FILENAME_EXCED_RANGE;
    if (end == std::string_view::npos) return ERROR_SUCCESS;
    rest.remove_prefix(end + 1);
  }
}

void AppendSubKey(std::string* path, const char* subKey) {
  if (subKey == nullptr || *subKey == '\0') return;
  path->push_back('\\');
  path->append(subKey);
}

long CheckValueName(const char* valueName, std::string_view* name) {
  *name = valueName == nullptr ? std::string_view() : std::string_view(valueName);
  return name->size() > kMaxValueNameBytes ? ERROR_FILENAME_EXCED_RANGE : ERROR_SUCCESS;
}

std::string_view LastComponent(std::string_view path) {
  std::size_t slash = path.rfind('\\');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

void SubtreeBounds(std::string_view path, std::string* low, std::string* high) {
  // '\' is 0x5C and ']' 0x5D: the descendants are exactly the texts that
  // begin with path + '\', which sort from that prefix up to path + ']'.
  low->assign(path).push_back('\\');
  high->assign(path).push_back(']');
}

}  // namespace registry
}  // namespace xk
