#include "tokenizer.h"

namespace mstore {
namespace {

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

}  // namespace

bool Tokenize(const std::string& line, std::vector<std::string>& words, std::string& error) {
  words.clear();
  std::size_t i = 0;
  while (i < line.size()) {
    if (IsBlank(line[i])) {
      ++i;
      continue;
    }
    if (line[i] == '#') break;
    std::string word;
    while (i < line.size() && !IsBlank(line[i])) {
      if (line[i] != '"') {
        word += line[i++];
        continue;
      }
      const std::size_t open = i++;
      while (i < line.size() && line[i] != '"') {
        if (line[i] == '\\' && i + 1 < line.size() && (line[i + 1] == '"' || line[i + 1] == '\\')) ++i;
        word += line[i++];
      }
      if (i == line.size()) {
        error = "unterminated quote at column " + std::to_string(open + 1);
        return false;
      }
      ++i;  // the closing quote
    }
    words.push_back(word);
  }
  return true;
}

}  // namespace mstore
