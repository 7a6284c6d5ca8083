#include "algorithm_parameters.h"

#include "exception.h"

namespace QX {
namespace Framework {

IAlgorithmParameters::~IAlgorithmParameters() = default;

IAlgorithmParameters* IAlgorithmParameters::Create() {
  static constexpr const char* kOperation = "IAlgorithmParameters::Create";
  if (xk::crypto::EnterFactory(kOperation)) return nullptr;
  return xk::crypto::Guarded(kOperation, [] { return new xk::crypto::AlgorithmParameters; });
}

}  // namespace Framework
}  // namespace QX
