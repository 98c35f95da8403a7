// Redis on loopback without persistence: the configuration as a hash, the change log as a
// sorted set scored by version, the table version as a string key.
#include <arpa/inet.h>
#include <fcntl.h>
#include <hiredis/hiredis.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include <fmt/format.h>

#include "Peer.h"

namespace VeskPeers {

namespace {

// redis-server on PATH, else the Debian location; empty when neither exists.
std::string findRedisServer() {
  if (const char* path = std::getenv("PATH")) {
    std::string dirs = path;
    for (size_t start = 0; start <= dirs.size();) {
      size_t end = dirs.find(':', start);
      if (end == std::string::npos) end = dirs.size();
      std::string candidate = dirs.substr(start, end - start) + "/redis-server";
      if (end > start && ::access(candidate.c_str(), X_OK) == 0) return candidate;
      start = end + 1;
    }
  }
  return ::access("/usr/bin/redis-server", X_OK) == 0 ? "/usr/bin/redis-server" : "";
}

// A loopback port nobody listens on right now.
int freePort() {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) throw std::runtime_error("redis: socket() failed");
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof(addr);
  int rc = ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
  if (rc == 0) rc = ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  ::close(fd);
  if (rc != 0) throw std::runtime_error("redis: no free loopback port");
  return ntohs(addr.sin_port);
}

// A redis-server child on a free loopback port, without snapshots or append-only file; it
// answers PING once constructed and is stopped (SIGTERM, waitpid) on destruction, so also
// when a run fails, or when the harness dies. Owns the child process; one thread.
class RedisServer {
 public:
  RedisServer(const std::string& binary, const std::string& dir) : port_(freePort()) {
    std::string port = std::to_string(port_);
    std::string log = dir + "/redis.log";
    pid_t parent = ::getpid();
    pid_ = ::fork();
    if (pid_ < 0) throw std::runtime_error("redis: fork() failed");
    if (pid_ == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGTERM);
      if (::getppid() != parent) ::_exit(127);
      int fd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      if (fd >= 0) {
        ::dup2(fd, STDOUT_FILENO);
        ::dup2(fd, STDERR_FILENO);
        ::close(fd);
      }
      // clang-format off
      const char* argv[] = {binary.c_str(), "--port", port.c_str(), "--bind", "127.0.0.1",
                            "--save", "", "--appendonly", "no", "--daemonize", "no",
                            "--dir", dir.c_str(), nullptr};
      // clang-format on
      ::execv(binary.c_str(), const_cast<char* const*>(argv));
      ::_exit(127);
    }
    waitReady(log);
  }
  ~RedisServer() { stop(); }
  RedisServer(const RedisServer&) = delete;
  RedisServer& operator=(const RedisServer&) = delete;

  int port() const noexcept { return port_; }

 private:
  void waitReady(const std::string& log) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline) {
      int status;
      if (::waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        throw std::runtime_error("redis: redis-server exited at start; see " + log);
      }
      timeval timeout{0, 200000};
      if (redisContext* c = redisConnectWithTimeout("127.0.0.1", port_, timeout)) {
        bool ready = false;
        if (!c->err) {
          auto* reply = static_cast<redisReply*>(redisCommand(c, "PING"));
          ready = reply && reply->type == REDIS_REPLY_STATUS && std::string(reply->str) == "PONG";
          if (reply) freeReplyObject(reply);
        }
        redisFree(c);
        if (ready) return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    stop();
    throw std::runtime_error("redis: redis-server did not answer PING within 10 s");
  }

  void stop() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    int status;
    for (int i = 0; i < 500; ++i) {  // 5 s, then SIGKILL
      if (::waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
  }

  int port_;
  pid_t pid_ = -1;
};

// Redis over one hiredis connection to a server of its own: HSET/HDEL, ZADD (score = version,
// member = version, kind, key), SET; one round trip per command, or a batch's commands
// pipelined and their replies read at the trim. Owns server and connection; single-threaded.
class RedisPeer final : public Peer {
 public:
  RedisPeer(std::string binary, bool pipelined)
      : binary_(std::move(binary)), pipelined_(pipelined) {}
  ~RedisPeer() override { close(); }

  std::string name() const override { return pipelined_ ? "redis/pipeline" : "redis/change"; }

  void open(const std::string& dir) override {
    server_ = std::make_unique<RedisServer>(binary_, dir);
    ctx_ = redisConnect("127.0.0.1", server_->port());
    if (!ctx_ || ctx_->err) {
      throw std::runtime_error(
          fmt::format("redis connect: {}", ctx_ ? ctx_->errstr : "out of memory"));
    }
  }

  void change(const Change& c) override {
    if (c.kind == Kind::write) {
      command({"HSET", "config", bytes(c.key), bytes(c.entry)}, REDIS_REPLY_INTEGER);
    } else {
      command({"HDEL", "config", bytes(c.key)}, REDIS_REPLY_INTEGER, 1);
    }
    char score[24];
    auto scoreEnd = fmt::format_to(score, "{}", c.version);
    unsigned char member[8 + sizeof(LogPayload)];
    std::memcpy(member, &c.version, 8);
    LogPayload payload = logPayloadOf(c);
    std::memcpy(member + 8, payload.data(), payload.size());
    command({"ZADD", "log", {score, size_t(scoreEnd - score)}, {member, sizeof(member)}},
            REDIS_REPLY_INTEGER, 1);
    command({"SET", "tableVersion", {score, size_t(scoreEnd - score)}}, REDIS_REPLY_STATUS);
  }

  void trimTo(uint64_t oldestKept) override {
    std::string max = fmt::format("({}", oldestKept);
    command({"ZREMRANGEBYSCORE", "log", "-inf", max}, REDIS_REPLY_INTEGER);
    drain();
  }

  Tally tally() override {
    Tally t;
    t.liveKeys = integer({"HLEN", "config"});
    t.logRecords = integer({"ZCARD", "log"});
    auto* reply = static_cast<redisReply*>(redisCommand(ctx_, "GET tableVersion"));
    if (reply && reply->type == REDIS_REPLY_STRING)
      t.version = std::strtoull(reply->str, nullptr, 10);
    if (reply) freeReplyObject(reply);
    return t;
  }

  void close() override {
    if (ctx_) redisFree(ctx_);
    ctx_ = nullptr;
    server_.reset();
  }

 private:
  struct Arg {
    Arg(const char* s) : data(s), size(std::strlen(s)) {}
    Arg(const std::string& s) : data(s.data()), size(s.size()) {}
    Arg(const void* d, size_t n) : data(static_cast<const char*>(d)), size(n) {}
    const char* data;
    size_t size;
  };
  template <class T>
  static Arg bytes(const T* record) {
    return Arg(record, sizeof(T));
  }

  // Sends one command; unpipelined, waits for its reply and checks it, else queues the
  // check for drain(). `expect` is the reply type; `expectInt`, if not -1, its value.
  void command(std::initializer_list<Arg> args, int expect, long long expectInt = -1) {
    const char* argv[8];
    size_t argvlen[8];
    int argc = 0;
    for (const Arg& a : args) {
      argv[argc] = a.data;
      argvlen[argc++] = a.size;
    }
    if (pipelined_) {
      if (redisAppendCommandArgv(ctx_, argc, argv, argvlen) != REDIS_OK) fail("append");
      expected_.push_back({expect, expectInt});
      return;
    }
    auto* reply = static_cast<redisReply*>(redisCommandArgv(ctx_, argc, argv, argvlen));
    checkReply(reply, {expect, expectInt});
  }

  // Reads and checks the replies of every pipelined command.
  void drain() {
    for (const Expect& e : expected_) {
      void* reply = nullptr;
      if (redisGetReply(ctx_, &reply) != REDIS_OK) fail("read reply");
      checkReply(static_cast<redisReply*>(reply), e);
    }
    expected_.clear();
  }

  struct Expect {
    int type;
    long long integer;
  };
  void checkReply(redisReply* reply, Expect e) {
    if (!reply) fail("no reply");
    bool ok = reply->type == e.type && (e.integer < 0 || reply->integer == e.integer);
    std::string what = ok ? ""
                          : fmt::format("unexpected reply (type {}, integer {}, '{}')", reply->type,
                                        reply->integer, reply->str ? reply->str : "");
    freeReplyObject(reply);
    if (!ok) throw std::runtime_error("redis: " + what);
  }

  uint64_t integer(std::initializer_list<Arg> args) {
    const char* argv[4];
    size_t argvlen[4];
    int argc = 0;
    for (const Arg& a : args) {
      argv[argc] = a.data;
      argvlen[argc++] = a.size;
    }
    auto* reply = static_cast<redisReply*>(redisCommandArgv(ctx_, argc, argv, argvlen));
    uint64_t n = reply && reply->type == REDIS_REPLY_INTEGER ? uint64_t(reply->integer) : 0;
    if (reply) freeReplyObject(reply);
    return n;
  }

  [[noreturn]] void fail(const char* what) {
    throw std::runtime_error(fmt::format("redis {}: {}", what, ctx_->errstr));
  }

  std::string binary_;
  bool pipelined_;
  std::unique_ptr<RedisServer> server_;
  redisContext* ctx_ = nullptr;
  std::vector<Expect> expected_;
};

}  // namespace

void addRedisPeers(PeerList& peers, std::vector<std::string>& skipped) {
  std::string binary = findRedisServer();
  if (binary.empty()) {
    skipped.push_back("redis: redis-server is not installed (not on PATH nor /usr/bin)");
    return;
  }
  peers.push_back(std::make_unique<RedisPeer>(binary, false));
  peers.push_back(std::make_unique<RedisPeer>(binary, true));
}

}  // namespace VeskPeers
