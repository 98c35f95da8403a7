// The bare limit: a hash table and a ring of change-log records in a shared-memory mapping,
// written in place with no crash protocol at all. Nothing any store can do for the same
// changes should be much faster.
#include <boost/interprocess/managed_mapped_file.hpp>

#include <algorithm>
#include <stdexcept>

#include "Peer.h"

namespace VeskPeers {

namespace {

namespace bip = boost::interprocess;

constexpr uint32_t kSlots = 65536 * 2;  // open addressing at most half full
constexpr uint32_t kRing = 2048;        // the newest 1,000 records plus a batch of 1,000

// Everything the store keeps, placed in the mapping as one object.
struct Table {
  struct Slot {
    uint32_t tag;  // 0: empty; else the key's hash with the top bit set
    Key key;
    Entry entry;
  };
  struct LogRecord {
    uint64_t version;
    uint32_t kind;
    Key key;
  };

  uint64_t version;  // the table version
  uint64_t oldest;   // the ring holds versions [oldest, newest]
  uint64_t newest;
  uint64_t live;
  Slot slots[kSlots];
  LogRecord ring[kRing];
};

// An open-addressing table (linear probing, deletion by backward shift, so no tombstones)
// of 131,072 slots and a ring of 2,048 log records, in a Boost.Interprocess mapped file on
// tmpfs. Owns the mapping; single-threaded.
class BarePeer final : public Peer {
 public:
  std::string name() const override { return "bare/shm"; }

  void open(const std::string& dir) override {
    path_ = dir + "/bare.map";
    segment_ = std::make_unique<bip::managed_mapped_file>(bip::create_only, path_.c_str(),
                                                          sizeof(Table) + (1 << 20));
    table_ = segment_->construct<Table>("table")();
  }

  void change(const Change& c) override {
    Table& t = *table_;
    uint32_t tag = c.key->hash(0x9747b28c) | 0x80000000u;
    uint32_t i = tag & (kSlots - 1);
    while (t.slots[i].tag != 0 && !(t.slots[i].tag == tag && t.slots[i].key == *c.key)) {
      i = (i + 1) & (kSlots - 1);
    }
    if (c.kind == Kind::write) {
      if (t.slots[i].tag == 0) {
        t.slots[i].tag = tag;
        t.slots[i].key = *c.key;
        ++t.live;
      }
      t.slots[i].entry = *c.entry;
    } else {
      if (t.slots[i].tag == 0) throw std::runtime_error("bare: delete of an absent key");
      erase(i);
      --t.live;
    }
    if (t.newest - t.oldest + 1 >= kRing && t.newest != 0) {
      throw std::runtime_error("bare: change-log ring full");
    }
    Table::LogRecord& r = t.ring[c.version & (kRing - 1)];
    r.version = c.version;
    r.kind = uint32_t(c.kind);
    r.key = *c.key;
    if (t.newest == 0) t.oldest = c.version;
    t.newest = c.version;
    t.version = c.version;
  }

  void trimTo(uint64_t oldestKept) override {
    table_->oldest = std::max(table_->oldest, std::min(oldestKept, table_->newest + 1));
  }

  Tally tally() override {
    const Table& t = *table_;
    return Tally{t.live, t.newest == 0 ? 0 : t.newest + 1 - t.oldest, t.version};
  }

  void close() override {
    table_ = nullptr;
    segment_.reset();
    if (!path_.empty()) bip::file_mapping::remove(path_.c_str());
    path_.clear();
  }
  ~BarePeer() override { close(); }

 private:
  // Empties slot `hole`, moving later entries of its probe run back into it.
  void erase(uint32_t hole) {
    Table::Slot* s = table_->slots;
    for (uint32_t j = (hole + 1) & (kSlots - 1); s[j].tag != 0; j = (j + 1) & (kSlots - 1)) {
      uint32_t home = s[j].tag & (kSlots - 1);
      if (((j - home) & (kSlots - 1)) >= ((j - hole) & (kSlots - 1))) {
        s[hole] = s[j];
        hole = j;
      }
    }
    s[hole].tag = 0;
  }

  std::string path_;
  std::unique_ptr<bip::managed_mapped_file> segment_;
  Table* table_ = nullptr;
};

}  // namespace

void addBarePeers(PeerList& peers) { peers.push_back(std::make_unique<BarePeer>()); }

}  // namespace VeskPeers
