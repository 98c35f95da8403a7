#pragma once

namespace VeskTool {

// One agent per shared-memory root: held for the life of the agent process as an exclusive
// lock on <root>/agent.pid, which holds the holder's pid. A second agent is refused before
// it mounts anything, with one line naming the holder and what to do; the kernel drops the
// lock when the holder exits or is killed. Owned by the agent's loop; one thread.
class AgentLock {
 public:
  AgentLock();  // throws std::runtime_error when another agent holds the root
  ~AgentLock();
  AgentLock(const AgentLock&) = delete;
  AgentLock& operator=(const AgentLock&) = delete;

 private:
  int fd_ = -1;
};

}  // namespace VeskTool
