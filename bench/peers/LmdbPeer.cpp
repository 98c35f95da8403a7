// LMDB on tmpfs: the configuration and the change log as two named databases, the table
// version under a key of the main database.
#include <lmdb.h>

#include <stdexcept>

#include <fmt/format.h>

#include "Peer.h"

namespace VeskPeers {

namespace {

void check(int rc, const char* what) {
  if (rc != MDB_SUCCESS)
    throw std::runtime_error(fmt::format("lmdb {}: {}", what, mdb_strerror(rc)));
}

constexpr char kVersionKey[] = "tableVersion";

// One LMDB environment in a fresh directory, mapped with MDB_WRITEMAP | MDB_NOSYNC (no
// fsync, as tmpfs needs none). Either one write transaction per change, or one per batch
// of changes committed at each trim. Owns the environment; single-threaded.
class LmdbPeer final : public Peer {
 public:
  explicit LmdbPeer(bool batched) : batched_(batched) {}
  ~LmdbPeer() override { close(); }

  std::string name() const override { return batched_ ? "lmdb/batch" : "lmdb/change"; }

  void open(const std::string& dir) override {
    check(mdb_env_create(&env_), "env_create");
    check(mdb_env_set_maxdbs(env_, 4), "set_maxdbs");
    check(mdb_env_set_mapsize(env_, size_t(1) << 30), "set_mapsize");
    check(mdb_env_open(env_, dir.c_str(), MDB_WRITEMAP | MDB_NOSYNC, 0600), "env_open");
    begin();
    check(mdb_dbi_open(txn_, "config", MDB_CREATE, &config_), "dbi_open config");
    check(mdb_dbi_open(txn_, "log", MDB_CREATE | MDB_INTEGERKEY, &log_), "dbi_open log");
    check(mdb_dbi_open(txn_, nullptr, 0, &main_), "dbi_open main");
    commit();
  }

  void change(const Change& c) override {
    if (!txn_) begin();
    MDB_val key{sizeof(Key), const_cast<Key*>(c.key)};
    if (c.kind == Kind::write) {
      MDB_val entry{sizeof(Entry), const_cast<Entry*>(c.entry)};
      check(mdb_put(txn_, config_, &key, &entry, 0), "put config");
    } else {
      check(mdb_del(txn_, config_, &key, nullptr), "del config");
    }
    size_t version = c.version;
    LogPayload payload = logPayloadOf(c);
    MDB_val logKey{sizeof(version), &version};
    MDB_val logValue{payload.size(), payload.data()};
    check(mdb_put(txn_, log_, &logKey, &logValue, MDB_APPEND), "put log");
    MDB_val metaKey{sizeof(kVersionKey) - 1, const_cast<char*>(kVersionKey)};
    MDB_val metaValue{sizeof(version), &version};
    check(mdb_put(txn_, main_, &metaKey, &metaValue, 0), "put version");
    if (!batched_) commit();
  }

  void trimTo(uint64_t oldestKept) override {
    if (!txn_) begin();
    MDB_cursor* cursor = nullptr;
    check(mdb_cursor_open(txn_, log_, &cursor), "cursor_open");
    MDB_val key, value;
    int rc;
    while ((rc = mdb_cursor_get(cursor, &key, &value, MDB_FIRST)) == MDB_SUCCESS) {
      size_t version;
      std::memcpy(&version, key.mv_data, sizeof(version));
      if (version >= oldestKept) break;
      rc = mdb_cursor_del(cursor, 0);
      if (rc != MDB_SUCCESS) break;
    }
    mdb_cursor_close(cursor);
    if (rc != MDB_NOTFOUND) check(rc, "trim log");
    commit();
  }

  Tally tally() override {
    MDB_txn* txn = nullptr;
    check(mdb_txn_begin(env_, nullptr, MDB_RDONLY, &txn), "txn_begin");
    Tally t;
    MDB_stat stat;
    check(mdb_stat(txn, config_, &stat), "stat config");
    t.liveKeys = stat.ms_entries;
    check(mdb_stat(txn, log_, &stat), "stat log");
    t.logRecords = stat.ms_entries;
    MDB_val metaKey{sizeof(kVersionKey) - 1, const_cast<char*>(kVersionKey)}, metaValue;
    if (mdb_get(txn, main_, &metaKey, &metaValue) == MDB_SUCCESS &&
        metaValue.mv_size == sizeof(uint64_t)) {
      std::memcpy(&t.version, metaValue.mv_data, sizeof(uint64_t));
    }
    mdb_txn_abort(txn);
    return t;
  }

  void close() override {
    if (txn_) mdb_txn_abort(txn_);
    txn_ = nullptr;
    if (env_) mdb_env_close(env_);
    env_ = nullptr;
  }

 private:
  void begin() { check(mdb_txn_begin(env_, nullptr, 0, &txn_), "txn_begin"); }
  void commit() {
    int rc = mdb_txn_commit(txn_);
    txn_ = nullptr;
    check(rc, "txn_commit");
  }

  bool batched_;
  MDB_env* env_ = nullptr;
  MDB_txn* txn_ = nullptr;
  MDB_dbi config_ = 0;
  MDB_dbi log_ = 0;
  MDB_dbi main_ = 0;
};

}  // namespace

void addLmdbPeers(PeerList& peers) {
  peers.push_back(std::make_unique<LmdbPeer>(false));
  peers.push_back(std::make_unique<LmdbPeer>(true));
}

}  // namespace VeskPeers
