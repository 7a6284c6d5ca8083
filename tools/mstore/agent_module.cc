#include "agent_module.h"

#include <dlfcn.h>

#include <cstdio>
#include <vector>

namespace mstore {

bool AgentModule::Load(const std::string& path, std::string& error) {
  path_ = path;
  handle_ = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle_ == nullptr) {
    error = "cannot load the module: " + std::string(dlerror());
    return false;
  }
  auto getList = reinterpret_cast<CK_C_GetFunctionList>(dlsym(handle_, "C_GetFunctionList"));
  if (getList == nullptr || getList(&functions_) != CKR_OK || functions_ == nullptr) {
    error = path + " gives no PKCS#11 function list";
    return false;
  }
  status_ = reinterpret_cast<StatusFunction>(dlsym(handle_, "MerrowstorePKCS11Status"));
  wipe_ = reinterpret_cast<WipeFunction>(dlsym(handle_, "MerrowstorePKCS11Wipe"));
  CK_C_INITIALIZE_ARGS args{};
  args.flags = CKF_OS_LOCKING_OK;
  const CK_RV rv = functions_->C_Initialize(&args);
  if (rv != CKR_OK) {
    char code[32];
    std::snprintf(code, sizeof code, "0x%08lx", static_cast<unsigned long>(rv));
    error = path + ": C_Initialize failed with " + code;
    return false;
  }
  initialised_ = true;
  return true;
}

std::string AgentModule::Status() const {
  if (status_ == nullptr) return "the module " + path_ + " keeps no PIN cache and gives no report\n";
  std::vector<char> buffer(4096);
  for (;;) {
    const size_t need = status_(buffer.data(), buffer.size());
    if (need < buffer.size()) return std::string(buffer.data(), need);
    buffer.resize(need + 1);
  }
}

void AgentModule::Wipe() const {
  if (wipe_ != nullptr) wipe_();
}

void AgentModule::Stop() {
  if (!initialised_) return;
  Wipe();
  functions_->C_Finalize(nullptr);
  initialised_ = false;
}

}  // namespace mstore
