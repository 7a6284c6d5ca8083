#ifndef MERROWSTORE_TESTS_SUPPORT_VALUE_SUPPORT_H
#define MERROWSTORE_TESTS_SUPPORT_VALUE_SUPPORT_H

// Shared by the library's tests: values in and out of SAFEARRAYs, BSTRs and
// identifiers, items and keys of a tree, version counters, a scope whose lost
// allocations are not leaks, and a forked child that reports back.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "trees/VersionHistory.h"
#include "xk/oleauto.h"
#include "xk/secure_types.h"
#include "xk/testsupport.h"
#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace mtest {

using xk::test::FaultInjector;
using xk::test::LogCapture;
using xk::test::Sandbox;
typedef std::vector<std::string> Strings;  // "<null>" stands for an empty slot
typedef std::vector<unsigned char> Bytes;
typedef std::vector<unsigned long> Shape;
typedef std::pair<unsigned long, unsigned long> V;  // {compartment, content}

inline SecureString S(const std::string& s) { return SecureString(s.data(), s.size()); }

// A BSTR that frees itself; converts to the char* the client takes.
class Bstr {
 public:
  explicit Bstr(const std::string& s) : m_b(SysAllocStringByteLen(s.data(), static_cast<unsigned>(s.size()))) {}
  ~Bstr() { SysFreeString(m_b); }
  Bstr(const Bstr&) = delete;
  operator char*() const { return m_b; }

 private:
  BSTR m_b;
};

struct Destroy {
  void operator()(SAFEARRAY* p) const { SafeArrayDestroy(p); }
};
using Array = std::unique_ptr<SAFEARRAY, Destroy>;

// A VT_BSTR vector of `items`, owned by the caller.
inline SAFEARRAY* MakeValue(const Strings& items) {
  SAFEARRAY* psa = SafeArrayCreateVector(VT_BSTR, 0, items.size());
  for (int i = 0; i < static_cast<int>(items.size()); ++i) {
    if (items[i] != "<null>") {
      EXPECT_EQ(SafeArrayPutElement(psa, &i, static_cast<char*>(Bstr(items[i]))), S_OK);
    }
  }
  return psa;
}

inline Shape ShapeOf(SAFEARRAY* psa) {
  Shape shape;
  for (unsigned i = 0; i < psa->cDims; ++i) shape.push_back(psa->rgsabound[i].cElements);
  return shape;
}

inline Bytes Data(SAFEARRAY* psa) {
  std::size_t n = psa->cbElements;
  for (unsigned long d : ShapeOf(psa)) n *= d;
  void* pv = nullptr;
  EXPECT_EQ(SafeArrayAccessData(psa, &pv), S_OK);
  Bytes bytes(static_cast<unsigned char*>(pv), static_cast<unsigned char*>(pv) + n);
  SafeArrayUnaccessData(psa);
  return bytes;
}

// An array of `dims` (as SafeArrayCreate takes them) holding `bytes`, then a
// pattern; the caller destroys it.
inline SAFEARRAY* Make(VARTYPE vt, const Shape& dims, Bytes bytes = {}) {
  std::vector<SAFEARRAYBOUND> bounds;
  for (unsigned long d : dims) bounds.push_back({d, 0});
  SAFEARRAY* psa = SafeArrayCreate(vt, static_cast<unsigned>(bounds.size()), bounds.data());
  std::size_t n = psa->cbElements;
  for (unsigned long d : dims) n *= d;
  for (std::size_t i = bytes.size(); i < n; ++i) bytes.push_back(static_cast<unsigned char>(13 * i + 1));
  void* pv = nullptr;
  SafeArrayAccessData(psa, &pv);
  if (n > 0) std::memcpy(pv, bytes.data(), n);
  SafeArrayUnaccessData(psa);
  return psa;
}

// The strings of a VT_BSTR vector.
inline Strings Read(SAFEARRAY* psa) {
  Strings out;
  for (int i = 0; i < static_cast<int>(psa->rgsabound->cElements); ++i) {
    BSTR b = nullptr;
    EXPECT_EQ(SafeArrayGetElement(psa, &i, &b), S_OK);
    out.push_back(b == nullptr ? "<null>" : std::string(b, SysStringByteLen(b)));
    SysFreeString(b);
  }
  return out;
}

// Reads and destroys a VT_BSTR vector; no array reads "<no array>".
inline Strings Take(SAFEARRAY* psa) {
  if (psa == nullptr) return {"<no array>"};
  const Strings out = Read(psa);
  EXPECT_EQ(SafeArrayDestroy(psa), S_OK);
  return out;
}

// The bytes of a VT_UI1 vector, which is destroyed.
inline std::string TakeBytes(SAFEARRAY* psa) {
  if (psa == nullptr) return "<no array>";
  EXPECT_EQ(psa->vt, VT_UI1);
  const Bytes bytes = Data(psa);
  SafeArrayDestroy(psa);
  return std::string(bytes.begin(), bytes.end());
}

// "vt[stored bounds]:content", content as hex bytes or '|'-separated strings.
inline std::string Describe(SAFEARRAY* psa) {
  if (psa == nullptr) return "null";
  std::string out = std::to_string(psa->vt) + "[", sep;
  for (unsigned long d : ShapeOf(psa)) out += (out.back() == '[' ? "" : ",") + std::to_string(d);
  out += "]:";
  if (psa->vt == VT_BSTR) {
    for (const std::string& s : Read(psa)) out += std::exchange(sep, "|") + s;
    return out;
  }
  char hex[4];
  for (unsigned char c : Data(psa)) {
    std::snprintf(hex, sizeof hex, "%s%02x", std::exchange(sep, " ").c_str(), c);
    out += hex;
  }
  return out;
}

inline std::string TakeDescribed(SAFEARRAY* psa) {
  const std::string d = Describe(psa);
  SafeArrayDestroy(psa);
  return d;
}

// Writes one item, a one-string vector, into a tree.
inline void Put(CAbstractTree& tree, const std::string& compartment, const std::string& id,
                const std::string& text = "v") {
  SAFEARRAY* v = MakeValue({text});
  EXPECT_EQ(tree.SetData(S(compartment), S(id), v, 0, 0), S_OK);
  SafeArrayDestroy(v);
}

// The stored value, empty when GetData fails.
inline Strings Stored(CAbstractTree& tree, const std::string& compartment, const std::string& id) {
  SAFEARRAY* psa = nullptr;
  return tree.GetData(S(compartment), S(id), psa, 0) == S_OK ? Take(psa) : Strings();
}

// Every key of a tree.
inline Strings AllKeys(CAbstractTree& tree) {
  SAFEARRAY* psa = nullptr;
  EXPECT_EQ(tree.ListAllCompartmentIds(&psa), S_OK);
  return Take(psa);
}

// Both counters of a history path.
inline V Versions(const std::string& global) {
  V v(99, 99);
  EXPECT_EQ(GetVersion(S(global), &v.first, &v.second), S_OK);
  return v;
}

// Allocations made while it lives are not reported as leaks.
struct LeakAllowedScope {
#if defined(__SANITIZE_ADDRESS__)
  __lsan::ScopedDisabler disabler;
#endif
  LeakAllowedScope() {}
};

// Runs `body` in a forked child (no gtest there: its report is the verdict)
// while this process runs `meanwhile`; returns the report, marked when the
// child did not end well.
inline std::string InChild(const std::function<std::string()>& body, const std::function<void()>& meanwhile = {}) {
  int fds[2];
  if (pipe(fds) != 0) return "<no pipe>";
  const pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    const std::string report = body();
    for (std::size_t at = 0; at < report.size();) {
      const ssize_t n = write(fds[1], report.data() + at, report.size() - at);
      if (n <= 0) _exit(2);
      at += static_cast<std::size_t>(n);
    }
    _exit(0);  // leaves the sandbox to the parent
  }
  close(fds[1]);
  if (meanwhile) meanwhile();
  std::string report;
  char buffer[256];
  for (ssize_t n; (n = read(fds[0], buffer, sizeof buffer)) > 0;) report.append(buffer, n);
  close(fds[0]);
  int status = -1;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? report : "<child failed> " + report;
}

}  // namespace mtest

#endif
