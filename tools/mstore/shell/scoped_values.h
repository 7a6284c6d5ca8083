#ifndef MSTORE_SHELL_SCOPED_VALUES_H
#define MSTORE_SHELL_SCOPED_VALUES_H

#include <string>

#include "xk/oleauto.h"

namespace mstore {

// A BSTR made with SysAllocString from a text and freed with qxSysFreeString
// when it goes out of scope. An empty text gives an empty BSTR, not NULL.
class ScopedBstr {
 public:
  explicit ScopedBstr(const std::string& text) : m_Bstr(SysAllocString(text.c_str())) {}
  ScopedBstr() = default;
  ~ScopedBstr() { qxSysFreeString(m_Bstr, 0); }
  ScopedBstr(const ScopedBstr&) = delete;
  ScopedBstr& operator=(const ScopedBstr&) = delete;

  char* get() const { return m_Bstr; }
  // For an output parameter; what it held is freed first.
  char** out() {
    qxSysFreeString(m_Bstr, 0);
    m_Bstr = nullptr;
    return &m_Bstr;
  }

 private:
  char* m_Bstr = nullptr;
};

// A SAFEARRAY destroyed with qxSafeArrayDestroy when it goes out of scope.
class ScopedArray {
 public:
  ScopedArray() = default;
  ~ScopedArray() { qxSafeArrayDestroy(m_Array, 0); }
  ScopedArray(const ScopedArray&) = delete;
  ScopedArray& operator=(const ScopedArray&) = delete;

  SAFEARRAY* get() const { return m_Array; }
  // For an output parameter; what it held is destroyed first.
  SAFEARRAY** out() {
    qxSafeArrayDestroy(m_Array, 0);
    m_Array = nullptr;
    return &m_Array;
  }

 private:
  SAFEARRAY* m_Array = nullptr;
};

}  // namespace mstore

#endif
