#ifndef MERROWSTORE_TESTS_TOOLS_MSTORE_TEST_SUPPORT_H
#define MERROWSTORE_TESTS_TOOLS_MSTORE_TEST_SUPPORT_H

// Runs the mstore binary as a user would, on a sandbox's registry.

#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <string>

#include "xk/testsupport.h"

namespace mstoretest {

struct Result {
  int status;
  std::string out;
};

// Runs `binary` with `args` (shell words); stdout and stderr together.
inline Result RunMstore(const xk::test::Sandbox& sandbox, const std::string& args,
                        const std::string& binary = MSTORE_BINARY) {
  FILE* p = popen((binary + " --registry '" + sandbox.RegistryPath() + "' " + args + " 2>&1").c_str(), "r");
  Result r{-1, ""};
  if (!p) return r;
  std::array<char, 4096> buf;
  for (std::size_t n; (n = fread(buf.data(), 1, buf.size(), p)) > 0;) r.out.append(buf.data(), n);
  const int raw = pclose(p);
  r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  return r;
}

inline std::string WriteScript(const xk::test::Sandbox& sandbox, const std::string& text) {
  const std::string path = sandbox.Dir() + "/script.mstore";
  std::ofstream(path) << text;
  return path;
}

inline bool Has(const std::string& out, const std::string& line) { return out.find(line) != std::string::npos; }

}  // namespace mstoretest

#endif
