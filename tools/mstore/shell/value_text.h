#ifndef MSTORE_SHELL_VALUE_TEXT_H
#define MSTORE_SHELL_VALUE_TEXT_H

#include <string>
#include <vector>

#include "xk/oleauto.h"

namespace mstore {

// Values as the shell writes them: a kind, then the elements of a vector.
//   text    VT_BSTR, one word an element          text "a b" c
//   bytes   VT_UI1, hex digits (blanks allowed)   bytes 00ff10
//   uint    VT_UINT; uint16 uint32 uint64 are VT_UI2 VT_UI4 VT_UI8
//   int     VT_INT;  int8 int16 int32 int64 are VT_I1 VT_I2 VT_I4 VT_I8
// Numbers are decimal, or hex after 0x, and must fit their kind.

// The kind names, blank-separated, for help texts.
std::string ValueKinds();

// A new vector of `kind` holding `words`, owned by the caller, in *out. False,
// with `error` set and nothing made, on an unknown kind or a bad element.
bool ParseValue(const std::string& kind, const std::vector<std::string>& words, SAFEARRAY** out,
                std::string& error);

// A value the way ParseValue reads it ("text \"a b\" \"c\"", "bytes 00ff10",
// "uint 1 2 3"); other vartypes as "vt N" and the hex of their data.
std::string RenderValue(SAFEARRAY* value);

// The elements of a VT_BSTR vector, quoted and blank-separated; "(none)" for
// NULL or an empty vector.
std::string RenderIdList(SAFEARRAY* list);

// The ids of a VT_BSTR vector (empty for NULL).
std::vector<std::string> IdsOf(SAFEARRAY* list);

// A text in double quotes; quotes and backslashes are escaped, control bytes
// written as \xNN.
std::string Quote(const std::string& text);

}  // namespace mstore

#endif
