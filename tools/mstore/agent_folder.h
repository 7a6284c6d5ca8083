#ifndef MSTORE_AGENT_FOLDER_H
#define MSTORE_AGENT_FOLDER_H

#include <string>

namespace mstore {

// The agent's socket folder: mode 0700 and owned by the agent's user, so that
// no other user can reach the sockets in it. A folder that is already there
// is used if it is a folder of ours (its mode is brought back to 0700);
// anything else is refused. Remove() takes away only a folder this object
// made, once it is empty.
class AgentFolder {
 public:
  bool Make(const std::string& path, std::string& error);
  void Remove();
  const std::string& Path() const { return path_; }

 private:
  std::string path_;
  bool made_ = false;
};

}  // namespace mstore

#endif
