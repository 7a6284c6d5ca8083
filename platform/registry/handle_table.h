#ifndef XK_REGISTRY_HANDLE_TABLE_H
#define XK_REGISTRY_HANDLE_TABLE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>

namespace xk {
namespace registry {

// The open key handles of the process. A handle is an address inside a range
// reserved with no access rights, so it can never be mistaken for the address
// of a hive text, is never dereferenced, and is not handed out again until all
// other addresses of the range have been used: a closed handle stays
// recognisably stale instead of aliasing a newer one.
//
// Not synchronised: the registry service guards it with its own mutex.
class HandleTable {
 public:
  enum class Kind {
    kForeign,  // not a handle address: the caller may read it as a hive text
    kLive,     // an open handle
    kStale,    // a handle address that is not open (closed, or never issued)
  };

  HandleTable();
  HandleTable(const HandleTable&) = delete;
  HandleTable& operator=(const HandleTable&) = delete;

  // A new handle for the full key path `path`; nullptr when no address is
  // free (or none could be reserved).
  const void* Add(std::string path);
  // What `handle` is; for a live handle, `path` receives a copy of its key path.
  Kind Find(const void* handle, std::string* path) const;
  // Closes a live handle; false if `handle` is not one.
  bool Remove(const void* handle);
  std::size_t LiveCount() const { return m_Live.size(); }

 private:
  bool InRange(std::uintptr_t address) const { return address - m_Base < m_Span; }

  std::uintptr_t m_Base = 0;
  std::size_t m_Span = 0;
  std::size_t m_Next = 0;  // offset of the last handle issued
  std::unordered_map<std::uintptr_t, std::string> m_Live;
};

}  // namespace registry
}  // namespace xk

#endif
