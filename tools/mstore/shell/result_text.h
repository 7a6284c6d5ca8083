#ifndef MSTORE_SHELL_RESULT_TEXT_H
#define MSTORE_SHELL_RESULT_TEXT_H

#include <string>

#include "xk/hresult.h"

namespace mstore {

// A result code by name: "S_OK" for success, and a failure by name and hex,
// such as "E_FAIL 0x80004005"; a code without a name is its hex alone.
std::string ResultText(HRESULT hr);

}  // namespace mstore

#endif
