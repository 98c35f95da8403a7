#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "Workload.h"

namespace VeskPeers {

// What a store holds once a run is over: live configuration entries, change-log records
// and the stored table version. Lets the harness check that every store did the same work.
struct Tally {
  uint64_t liveKeys = 0;
  uint64_t logRecords = 0;
  uint64_t version = 0;
};

// One store under the change workload, used one way (e.g. one transaction per change).
// The harness owns each peer, opens it, feeds it every change in order, asks it every
// 1,000 changes to trim its log, and closes it. Single-threaded.
class Peer {
 public:
  virtual ~Peer() = default;

  // "lmdb/change": the store, then the way it is used.
  virtual std::string name() const = 0;
  // Creates an empty store in `dir`, a fresh directory the harness removes afterwards.
  virtual void open(const std::string& dir) = 0;
  // Applies one change: the configuration write or delete, its change-log record and the
  // stored table version.
  virtual void change(const Change& c) = 0;
  // Drops the change-log records older than `oldestKept`. Called after every 1,000 changes
  // (and after the last one); a batching peer commits its batch here.
  virtual void trimTo(uint64_t oldestKept) = 0;
  // What the store holds now; called after the last trimTo.
  virtual Tally tally() = 0;
  virtual void close() = 0;
};

// A change-log record's payload as the byte stores keep it, next to its version: the kind
// (0 write, 1 delete) then the key's 72 bytes.
using LogPayload = std::array<unsigned char, 1 + sizeof(Key)>;
inline LogPayload logPayloadOf(const Change& c) noexcept {
  LogPayload p;
  p[0] = uint8_t(c.kind);
  std::memcpy(p.data() + 1, c.key, sizeof(Key));
  return p;
}

using PeerList = std::vector<std::unique_ptr<Peer>>;

// The peers of each store, both ways. A store that cannot run here (e.g. no redis-server)
// adds nothing and says why in `skipped`.
void addLmdbPeers(PeerList& peers);
void addSqlitePeers(PeerList& peers);
void addRedisPeers(PeerList& peers, std::vector<std::string>& skipped);
void addBarePeers(PeerList& peers);
void addEntryLogPeers(PeerList& peers);

}  // namespace VeskPeers
