#ifndef MSTORE_SHELL_TOKENIZER_H
#define MSTORE_SHELL_TOKENIZER_H

#include <string>
#include <vector>

namespace mstore {

// Splits a shell line into words. Blanks separate words; double quotes group
// blanks into a word ("a b"), and "" is an empty word; inside quotes \" and
// \\ stand for a quote and a backslash, while outside quotes a backslash is an
// ordinary character. A '#' that starts a word begins a comment that runs to
// the end of the line. False, with `error` set, for an unterminated quote.
bool Tokenize(const std::string& line, std::vector<std::string>& words, std::string& error);

}  // namespace mstore

#endif
