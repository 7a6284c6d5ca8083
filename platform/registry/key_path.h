#ifndef XK_REGISTRY_KEY_PATH_H
#define XK_REGISTRY_KEY_PATH_H

// Key paths as the registry stores them: the hive text followed by the key's
// components, each after one backslash ("HKEY_LOCAL_MACHINE\Software\a").

#include <cstddef>
#include <string>
#include <string_view>

namespace xk {
namespace registry {

// Longest key name component and value name, in bytes, without the NUL.
inline constexpr std::size_t kMaxKeyNameBytes = 254;
inline constexpr std::size_t kMaxValueNameBytes = 255;

// True if `text` is exactly one of the five hive texts.
bool IsHive(const char* text);

// Checks a relative key path: NULL or "" names the key itself; an empty
// component gives ERROR_BAD_PATHNAME and a component of more than
// kMaxKeyNameBytes gives ERROR_FILENAME_EXCED_RANGE.
long CheckSubKey(const char* subKey);

// Appends a relative key path already accepted by CheckSubKey to `path`.
void AppendSubKey(std::string* path, const char* subKey);

// Checks a value name (NULL or "" is the default value) and sets `name` to it.
long CheckValueName(const char* valueName, std::string_view* name);

// The last component of a full key path (the hive text for a hive root).
std::string_view LastComponent(std::string_view path);

// Bounds of the paths strictly below `path`: each descendant d has
// low <= d < high in byte order, and nothing else lies between them.
void SubtreeBounds(std::string_view path, std::string* low, std::string* high);

}  // namespace registry
}  // namespace xk

#endif
