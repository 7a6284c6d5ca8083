#ifndef MSTORE_AGENT_MODULE_H
#define MSTORE_AGENT_MODULE_H

#include <p11-kit/pkcs11.h>

#include <string>

namespace mstore {

// The PKCS#11 module the agent serves, loaded once with dlopen and
// initialised once for the agent's whole life, so that its state (the tokens
// it has seen, the PINs it cached) outlives every client. The Merrowstore
// module also reports its tokens and wipes its PINs; for a module without
// those exports Status() says so and Wipe() does nothing.
class AgentModule {
 public:
  AgentModule() = default;
  AgentModule(const AgentModule&) = delete;
  AgentModule& operator=(const AgentModule&) = delete;

  bool Load(const std::string& path, std::string& error);
  CK_FUNCTION_LIST* Functions() const { return functions_; }
  std::string Status() const;
  void Wipe() const;
  // Removes the cached PINs, then finalises the module.
  void Stop();

 private:
  using StatusFunction = size_t (*)(char*, size_t);
  using WipeFunction = void (*)();

  std::string path_;
  void* handle_ = nullptr;
  CK_FUNCTION_LIST* functions_ = nullptr;
  StatusFunction status_ = nullptr;
  WipeFunction wipe_ = nullptr;
  bool initialised_ = false;
};

}  // namespace mstore

#endif
