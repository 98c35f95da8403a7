// SQLite on tmpfs: the configuration, the change log and the table version as three tables
// of one database file, written through prepared statements.
#include <sqlite3.h>

#include <stdexcept>

#include <fmt/format.h>

#include "Peer.h"

namespace VeskPeers {

namespace {

// One database file in WAL mode with synchronous=OFF. Either one transaction per change, or
// one per batch of changes committed at each trim. Owns the connection and its statements;
// single-threaded.
class SqlitePeer final : public Peer {
 public:
  explicit SqlitePeer(bool batched) : batched_(batched) {}
  ~SqlitePeer() override { close(); }

  std::string name() const override { return batched_ ? "sqlite/batch" : "sqlite/change"; }

  void open(const std::string& dir) override {
    std::string path = dir + "/peers.sqlite";
    check(sqlite3_open(path.c_str(), &db_), "open");
    exec("PRAGMA journal_mode=WAL");
    exec("PRAGMA synchronous=OFF");
    exec("PRAGMA cache_size=-65536");  // 64 MiB: the whole database stays in the page cache
    exec("CREATE TABLE config(key BLOB PRIMARY KEY, entry BLOB) WITHOUT ROWID");
    exec("CREATE TABLE log(version INTEGER PRIMARY KEY, kind INTEGER, key BLOB)");
    exec("CREATE TABLE meta(id INTEGER PRIMARY KEY, version INTEGER)");
    exec("INSERT INTO meta(id, version) VALUES(0, 0)");
    begin_ = prepare("BEGIN");
    commit_ = prepare("COMMIT");
    put_ = prepare("INSERT OR REPLACE INTO config(key, entry) VALUES(?1, ?2)");
    del_ = prepare("DELETE FROM config WHERE key = ?1");
    append_ = prepare("INSERT INTO log(version, kind, key) VALUES(?1, ?2, ?3)");
    version_ = prepare("UPDATE meta SET version = ?1 WHERE id = 0");
    trim_ = prepare("DELETE FROM log WHERE version < ?1");
  }

  void change(const Change& c) override {
    if (!inTxn_) begin();
    if (c.kind == Kind::write) {
      sqlite3_bind_blob(put_, 1, c.key, sizeof(Key), SQLITE_STATIC);
      sqlite3_bind_blob(put_, 2, c.entry, sizeof(Entry), SQLITE_STATIC);
      step(put_, "put config");
    } else {
      sqlite3_bind_blob(del_, 1, c.key, sizeof(Key), SQLITE_STATIC);
      step(del_, "del config");
      if (sqlite3_changes(db_) != 1) throw std::runtime_error("sqlite del config: no such key");
    }
    sqlite3_bind_int64(append_, 1, sqlite3_int64(c.version));
    sqlite3_bind_int(append_, 2, int(c.kind));
    sqlite3_bind_blob(append_, 3, c.key, sizeof(Key), SQLITE_STATIC);
    step(append_, "append log");
    sqlite3_bind_int64(version_, 1, sqlite3_int64(c.version));
    step(version_, "put version");
    if (!batched_) commit();
  }

  void trimTo(uint64_t oldestKept) override {
    if (!inTxn_) begin();
    sqlite3_bind_int64(trim_, 1, sqlite3_int64(oldestKept));
    step(trim_, "trim log");
    commit();
  }

  Tally tally() override {
    return Tally{count("SELECT count(*) FROM config"), count("SELECT count(*) FROM log"),
                 count("SELECT version FROM meta WHERE id = 0")};
  }

  void close() override {
    for (sqlite3_stmt** s : {&begin_, &commit_, &put_, &del_, &append_, &version_, &trim_}) {
      sqlite3_finalize(*s);
      *s = nullptr;
    }
    if (db_) sqlite3_close(db_);
    db_ = nullptr;
  }

 private:
  void check(int rc, const char* what) {
    if (rc != SQLITE_OK && rc != SQLITE_DONE && rc != SQLITE_ROW) {
      throw std::runtime_error(
          fmt::format("sqlite {}: {}", what, db_ ? sqlite3_errmsg(db_) : sqlite3_errstr(rc)));
    }
  }
  void exec(const char* sql) { check(sqlite3_exec(db_, sql, nullptr, nullptr, nullptr), sql); }
  sqlite3_stmt* prepare(const char* sql) {
    sqlite3_stmt* s = nullptr;
    check(sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, &s, nullptr), sql);
    return s;
  }
  void step(sqlite3_stmt* s, const char* what) {
    int rc = sqlite3_step(s);
    sqlite3_reset(s);
    if (rc != SQLITE_DONE) check(rc == SQLITE_ROW ? SQLITE_MISUSE : rc, what);
  }
  uint64_t count(const char* sql) {
    sqlite3_stmt* s = prepare(sql);
    uint64_t n = sqlite3_step(s) == SQLITE_ROW ? uint64_t(sqlite3_column_int64(s, 0)) : 0;
    sqlite3_finalize(s);
    return n;
  }
  void begin() {
    step(begin_, "begin");
    inTxn_ = true;
  }
  void commit() {
    inTxn_ = false;
    step(commit_, "commit");
  }

  bool batched_;
  bool inTxn_ = false;
  sqlite3* db_ = nullptr;
  sqlite3_stmt* begin_ = nullptr;
  sqlite3_stmt* commit_ = nullptr;
  sqlite3_stmt* put_ = nullptr;
  sqlite3_stmt* del_ = nullptr;
  sqlite3_stmt* append_ = nullptr;
  sqlite3_stmt* version_ = nullptr;
  sqlite3_stmt* trim_ = nullptr;
};

}  // namespace

void addSqlitePeers(PeerList& peers) {
  peers.push_back(std::make_unique<SqlitePeer>(false));
  peers.push_back(std::make_unique<SqlitePeer>(true));
}

}  // namespace VeskPeers
