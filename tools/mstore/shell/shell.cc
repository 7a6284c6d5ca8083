#include "shell.h"

#include <iostream>
#include <string>

#include "commands.h"
#include "tokenizer.h"

namespace mstore {

int RunShell(Session& session, std::istream& in, const ShellOptions& options) {
  std::size_t lineNumber = 0, commands = 0, failed = 0;
  std::string line;
  while (!session.quit) {
    if (options.interactive) session.out << "mstore> " << std::flush;
    if (!std::getline(in, line)) {
      if (options.interactive) session.out << "\n";
      break;
    }
    ++lineNumber;
    Words words;
    std::string error;
    const bool tokenized = Tokenize(line, words, error);
    if (options.echo) session.out << (tokenized && words.empty() ? "" : "mstore> ") << line << "\n";
    if (tokenized && words.empty()) continue;
    ++commands;
    const bool ran = tokenized && RunCommand(session, words, error);
    for (const std::string& record : session.log.Take()) session.out << "  log " << record << "\n";
    session.out.flush();
    if (ran) continue;
    ++failed;
    std::cerr << "mstore: ";
    if (!options.interactive) std::cerr << "line " << lineNumber << ": ";
    std::cerr << error << std::endl;
    if (options.stopOnError) break;
  }
  session.out.flush();
  if (failed != 0 && !options.interactive)
    std::cerr << "mstore: " << failed << " of " << commands << " commands could not be run" << std::endl;
  return failed == 0 ? 0 : 1;
}

}  // namespace mstore
