// vesktap-gnmi: the read-only gNMI target of a switch's shared-memory root, for collectors
// (gNMIc, Telegraf's gnmi input, fleet pipelines). TLS unless --insecure is given, and then
// on localhost unless --listen says otherwise. A usage error exits 2, any other failure 1,
// each with one line on stderr; stopped by SIGINT or SIGTERM, 130 or 143.

#include <signal.h>

#include <chrono>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>

#include <fmt/ostream.h>
#include <grpcpp/grpcpp.h>
#include <CLI/CLI.hpp>

#include "tools/core/ServiceNotify.h"
#include "tools/gnmi/GnmiTarget.h"

namespace {

constexpr const char* kDefaultPort = "9339";  // the IANA port of gNMI

// The command line asks for something that cannot be done: exit code 2.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Options {
  std::string listen;
  bool insecure = false;
  std::string certificate;
  std::string key;
  std::string clientCa;
  size_t maxStreams = 128;
  VeskTool::GnmiFeed::Options feed;
};

std::string fileText(const std::string& path, const char* what) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  if (!in || text.str().empty()) {
    throw UsageError(fmt::format("cannot read {} {}: give a readable PEM file", what, path));
  }
  return text.str();
}

// The credentials the options ask for; throws UsageError for a combination that leaves the
// target open or half-secured.
std::shared_ptr<grpc::ServerCredentials> credentials(const Options& options) {
  if (options.insecure) {
    if (!options.certificate.empty() || !options.key.empty() || !options.clientCa.empty()) {
      throw UsageError(
          "--insecure serves plaintext: leave out --tls-cert, --tls-key and --tls-client-ca");
    }
    return grpc::InsecureServerCredentials();
  }
  if (options.certificate.empty() || options.key.empty()) {
    throw UsageError(
        "give --tls-cert and --tls-key (the target's certificate and key), or --insecure for "
        "plaintext on localhost");
  }
  grpc::SslServerCredentialsOptions ssl(
      options.clientCa.empty() ? GRPC_SSL_DONT_REQUEST_CLIENT_CERTIFICATE
                               : GRPC_SSL_REQUEST_AND_REQUIRE_CLIENT_CERTIFICATE_AND_VERIFY);
  ssl.pem_key_cert_pairs.push_back(
      {fileText(options.key, "the key"), fileText(options.certificate, "the certificate")});
  if (!options.clientCa.empty()) {
    ssl.pem_root_certs = fileText(options.clientCa, "the client CA certificates");
  }
  return grpc::SslServerCredentials(ssl);
}

bool loopback(const std::string& address) {
  return address.starts_with("localhost:") || address.starts_with("127.") ||
         address.starts_with("[::1]:") || address.starts_with("unix:");
}

int serve(const Options& options) {
  const auto creds = credentials(options);
  const std::string address = !options.listen.empty() ? options.listen
                              : options.insecure      ? fmt::format("localhost:{}", kDefaultPort)
                                                      : fmt::format("[::]:{}", kDefaultPort);
  if (options.insecure && !loopback(address)) {
    fmt::print(std::cerr,
               "vesktap-gnmi: warning: plaintext on {}, reachable beyond this host; use TLS "
               "(--tls-cert, --tls-key) outside a lab\n",
               address);
  }
  // SIGINT and SIGTERM are taken by this thread alone (sigwait below): blocked before gRPC
  // starts its threads, which inherit the mask.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  VeskTool::GnmiFeed feed(options.feed);
  VeskTool::GnmiTarget target(feed, options.maxStreams);
  grpc::ServerBuilder builder;
  int port = 0;
  builder.AddListeningPort(address, creds, &port);
  builder.RegisterService(&target);
  std::unique_ptr<grpc::Server> server = builder.BuildAndStart();
  if (!server || port == 0) {
    fmt::print(std::cerr,
               "vesktap-gnmi: cannot listen on {}: give a free host:port with --listen\n", address);
    return 1;
  }
  fmt::print(std::cerr, "vesktap-gnmi: serving gNMI on {} (port {}, {})\n", address, port,
             options.insecure           ? "plaintext"
             : options.clientCa.empty() ? "TLS"
                                        : "mutual TLS");
  VeskTool::notifyServiceReady(std::cerr);
  int signal = 0;
  sigwait(&stopSignals, &signal);
  server->Shutdown(std::chrono::system_clock::now() + std::chrono::seconds(1));
  return 128 + signal;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"vesktap-gnmi: a read-only gNMI target of the tables in shared memory"};
  app.set_version_flag("--version", VESK_VERSION);
  Options options;
  app.add_option("--listen", options.listen,
                 fmt::format("host:port to listen on (default [::]:{} with TLS, localhost:{} with "
                             "--insecure; port 0 picks a free one)",
                             kDefaultPort, kDefaultPort));
  app.add_flag("--insecure", options.insecure,
               "serve plaintext, without TLS (on localhost unless --listen says otherwise)");
  app.add_option("--tls-cert", options.certificate, "the target's certificate (PEM)");
  app.add_option("--tls-key", options.key, "the target's private key (PEM)");
  app.add_option("--tls-client-ca", options.clientCa,
                 "CA certificates (PEM) that clients' certificates must chain to: mutual TLS");
  app.add_option("--max-streams", options.maxStreams,
                 "Subscribe RPCs served at once; more are refused with RESOURCE_EXHAUSTED")
      ->capture_default_str()
      ->check(CLI::Range(size_t(1), size_t(100000)));
  app.add_option("--queue-limit", options.feed.queueLimit,
                 "changes that may wait for a slow collector; then its stream is closed with "
                 "RESOURCE_EXHAUSTED, naming the versions to resume from")
      ->capture_default_str()
      ->check(CLI::Range(size_t(16), size_t(100000000)));
  app.add_option("--history", options.feed.history,
                 "changes kept per table for collectors that resume with table[since=V]")
      ->capture_default_str()
      ->check(CLI::Range(size_t(0), size_t(100000000)));
  app.footer(
      "Serves Capabilities, Get and Subscribe (ONCE, POLL, STREAM) over the tree in "
      "docs/gnmi.md;\nSet is not served (UNIMPLEMENTED): the target only reads.\n\n"
      "Environment:\n"
      "  VESK_SHM_ROOT    the shared-memory root (default /dev/shm/vesk)\n"
      "  NOTIFY_SOCKET    set by systemd for a Type=notify unit: READY=1 is sent once listening\n"
      "Exit status: 0 done, 1 failed, 2 usage error, 130 and 143 stopped by SIGINT and SIGTERM.\n"
      "Example:\n"
      "  vesktap-gnmi --tls-cert target.pem --tls-key target.key --tls-client-ca collectors.pem\n"
      "  gnmic -a switch:9339 --tls-ca ca.pem subscribe --path "
      "'/tables/table[name=DefaultFwdTcamEntry]'");
  try {
    app.parse(argc, argv);
    return serve(options);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);
    fmt::print(std::cerr, "vesktap-gnmi: {}; see vesktap-gnmi --help\n", e.what());
    return 2;
  } catch (const UsageError& e) {
    fmt::print(std::cerr, "vesktap-gnmi: {}\n", e.what());
    return 2;
  } catch (const std::exception& e) {
    fmt::print(std::cerr, "vesktap-gnmi: {}\n", e.what());
    return 1;
  }
}
