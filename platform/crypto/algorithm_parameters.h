#ifndef XK_CRYPTO_ALGORITHM_PARAMETERS_H
#define XK_CRYPTO_ALGORITHM_PARAMETERS_H

#include "xk/crypto.h"

namespace xk {
namespace crypto {

// The parameters of an algorithm. AES takes none, so the object carries
// nothing; it exists because algorithms are made from one.
class AlgorithmParameters final : public QX::Framework::IAlgorithmParameters {};

}  // namespace crypto
}  // namespace xk

#endif
