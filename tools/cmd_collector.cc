// `telvo collector [--host ADDR] [--port N] [--data DIR] [--cert FILE --key FILE]
//   [--config-dir DIR] [--throttle] [--clock-skew MS] [--callback NAME]
//   [--set-cookie TEXT] [--max-body BYTES] [--keep-body BYTES] [--keep-stray-body BYTES]
//   [--max-inflated BYTES] [--max-depth N]
//   [--max-members N] [--max-problems N] [--max-session-id BYTES] [--header-timeout S]
//   [--body-timeout S] [--idle-timeout S] [--write-timeout S] [--max-header-bytes BYTES]
//   [--max-headers N] [--max-connections-per-address N] [--max-connections N]
//   [--allow-host NAME]... [--quiet]`:
// a local stand-in for the analytics service and the configuration location,
// over HTTPS on 127.0.0.1, storing everything it receives in
// <data>/collector.db, with an inspector page at https://127.0.0.1:<port>/
// to watch it arrive. Runs until SIGINT or SIGTERM, then exits 0 within two
// seconds whatever its connections do.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "collector/collector_paths.h"
#include "collector/collector_server.h"
#include "collector/collector_store.h"
#include "command.h"
#include "common/certificate.h"
#include "telvo/envelope.h"

namespace telvo::tool {
namespace {

struct CollectorCommandOptions {
  std::string host = "127.0.0.1";
  int port = 8443;
  std::string dataDir;
  std::string certFile;
  std::string keyFile;
  std::string configDir;
  bool throttle = false;
  std::int64_t clockSkewMs = 0;
  std::string callback;
  std::string setCookie;
  std::size_t maxBody = 8 * 1024 * 1024;
  std::size_t keepBody = 64 * 1024;
  std::size_t keepStrayBody = 4096;
  CheckLimits check;
  double headerTimeout = 10, bodyTimeout = 10, idleTimeout = 2, writeTimeout = 10;
  ConnectionLimits connections;
  std::int64_t queryTimeMs = 1000;
  std::int64_t searchSliceMs = 50;
  std::size_t readers = 4;
  std::size_t searchBytes = CollectorStore::kDefaultSearchBytes;
  std::vector<std::string> allowedHosts;
  bool quiet = false;
};

// How long a stop waits for the requests being handled.
constexpr std::chrono::milliseconds kStopWithin{1500};

// Written by the signal handler (and by the serving thread when it ends on
// its own); the main thread waits on the read end.
int wakePipe[2] = {-1, -1};

extern "C" void onStopSignal(int) {
  int saved = errno;
  char byte = 1;
  [[maybe_unused]] ssize_t n = write(wakePipe[1], &byte, 1);
  errno = saved;
}

bool installStopSignals(std::string* error) {
  if (pipe2(wakePipe, O_CLOEXEC | O_NONBLOCK) != 0) {
    *error = "cannot create the stop pipe";
    return false;
  }
  struct sigaction action {};
  action.sa_handler = onStopSignal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  if (sigaction(SIGINT, &action, nullptr) != 0 || sigaction(SIGTERM, &action, nullptr) != 0) {
    *error = "cannot install the SIGINT/SIGTERM handlers";
    return false;
  }
  // A client that goes away mid-answer must not end the collector.
  signal(SIGPIPE, SIG_IGN);
  return true;
}

void waitForStop() {
  pollfd fd{wakePipe[0], POLLIN, 0};
  while (poll(&fd, 1, -1) < 0 && errno == EINTR) {
  }
}

// The kept certificate is valid for 30 days from its making; it is replaced a
// few days before that, so a long-lived data folder keeps working.
bool certificateUsable(const std::filesystem::path& cert, const std::filesystem::path& key) {
  std::error_code ec;
  if (!std::filesystem::exists(cert, ec) || !std::filesystem::exists(key, ec)) return false;
  auto written = std::filesystem::last_write_time(cert, ec);
  if (ec) return false;
  return std::filesystem::file_time_type::clock::now() - written < std::chrono::hours(24 * 25);
}

// Each connection holds a descriptor: allow as many as the system lets us.
void raiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
  }
}

// The collector's files are made private (an earlier collector left them
// readable by others, and the certificate is written readable), and so is
// the folder when it is the collector's own (it holds them).
void keepPrivate(const std::filesystem::path& dataDir) {
  namespace fs = std::filesystem;
  bool ours = false;
  for (const char* name : {"collector.db", "collector.db-wal", "collector.db-shm",
                           "collector-cert.pem", "collector-key.pem"}) {
    std::error_code ec;
    const fs::path file = dataDir / name;
    if (!fs::is_regular_file(fs::symlink_status(file, ec))) continue;
    ours = true;
    fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write, ec);
  }
  std::error_code ec;
  if (ours || fs::is_empty(dataDir, ec)) fs::permissions(dataDir, fs::perms::owner_all, ec);
  auto mode = fs::status(dataDir, ec).permissions();
  if (!ec && (mode & (fs::perms::group_all | fs::perms::others_all)) != fs::perms::none) {
    std::cerr << "telvo collector: " << dataDir.string()
              << " can be read by other users; what devices send is stored in it\n";
  }
}

int runCollector(const CollectorCommandOptions& options) {
  raiseDescriptorLimit();
  if (options.port < 0 || options.port > 65535) {
    std::cerr << "telvo collector: --port must be 0 (any free port) to 65535\n";
    return kExitUsage;
  }
  if (options.certFile.empty() != options.keyFile.empty()) {
    std::cerr << "telvo collector: --cert and --key go together\n";
    return kExitUsage;
  }
  if (!options.configDir.empty() && !std::filesystem::is_directory(options.configDir)) {
    std::cerr << "telvo collector: --config-dir " << options.configDir << " is not a folder\n";
    return kExitUsage;
  }
  std::filesystem::path dataDir =
      options.dataDir.empty() ? defaultCollectorDataDir() : std::filesystem::path(options.dataDir);
  // What the collector stores (what devices sent, its private key) is for
  // its user alone: folders it makes are 0700, files 0600.
  umask(077);
  std::error_code ec;
  std::filesystem::create_directories(dataDir, ec);
  if (ec) {
    std::cerr << "telvo collector: cannot create " << dataDir.string() << ": " << ec.message()
              << "\n";
    return 1;
  }

  CollectorOptions server;
  server.host = options.host;
  server.port = options.port;
  server.throttle = options.throttle;
  server.clockSkewMs = options.clockSkewMs;
  server.maxBodyBytes = options.maxBody;
  server.keepBodyBytes = options.keepBody;
  server.keepStrayBodyBytes = options.keepStrayBody;
  server.check = options.check;
  server.logRequests = !options.quiet;
  server.allowedHosts = options.allowedHosts;
  auto milliseconds = [](double seconds) {
    return std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000));
  };
  server.connections = options.connections;
  server.connections.headerTimeout = milliseconds(options.headerTimeout);
  server.connections.bodyTimeout = milliseconds(options.bodyTimeout);
  server.connections.idleTimeout = milliseconds(options.idleTimeout);
  server.connections.writeTimeout = milliseconds(options.writeTimeout);
  if (!options.callback.empty()) server.callback = options.callback;
  if (!options.setCookie.empty()) server.setCookie = options.setCookie;
  if (!options.configDir.empty()) server.configDir = options.configDir;
  if (!options.certFile.empty()) {
    server.certFile = options.certFile;
    server.keyFile = options.keyFile;
  } else {
    // Made once and kept, so that a client trusting it keeps working across
    // restarts.
    server.certFile = dataDir / "collector-cert.pem";
    server.keyFile = dataDir / "collector-key.pem";
    if (!certificateUsable(server.certFile, server.keyFile)) {
      std::string error;
      if (!writeSelfSignedCertificate(server.certFile.string(), server.keyFile.string(),
                                      "127.0.0.1", &error)) {
        std::cerr << "telvo collector: cannot make a certificate: " << error << "\n";
        return 1;
      }
    }
  }

  std::string error;
  auto store = CollectorStore::open(collectorDatabasePath(dataDir).string(),
                                    CollectorStore::Mode::kReadWrite, &error, options.searchBytes);
  if (!store) {
    std::cerr << "telvo collector: " << error << "\n";
    return 1;
  }
  keepPrivate(dataDir);
  // The inspector's own connections: its queries run beside the writes, and
  // beside each other.
  std::vector<std::unique_ptr<CollectorStore>> readers;
  for (std::size_t i = 0; i < options.readers; ++i) {
    auto reader = CollectorStore::open(collectorDatabasePath(dataDir).string(),
                                       CollectorStore::Mode::kReadOnly, &error);
    if (!reader) {
      std::cerr << "telvo collector: " << error << "\n";
      return 1;
    }
    readers.push_back(std::move(reader));
  }
  ReaderPool readerPool(std::move(readers), std::chrono::milliseconds(options.queryTimeMs),
                        std::chrono::milliseconds(options.searchSliceMs));
  if (!installStopSignals(&error)) {
    std::cerr << "telvo collector: " << error << "\n";
    return 1;
  }
  CollectorServer collector(server, *store, readerPool);
  if (!collector.bind(&error)) {
    std::cerr << "telvo collector: " << error << "\n";
    return 1;
  }

  bool served = true;
  std::atomic<bool> finished{false};
  std::thread serving([&] {
    served = collector.serve();
    finished = true;
    onStopSignal(0);
  });
  std::cout << "telvo collector listening on " << collector.baseUrl() << " (config base "
            << collector.baseUrl() << "/mdrv/telvo/config/, certificate "
            << server.certFile.string() << ", data " << dataDir.string() << ")\n"
            << "telvo collector inspector at " << collector.baseUrl() << "/" << std::endl;
  if (options.host != "127.0.0.1" && options.host != "::1" && options.host != "localhost") {
    std::cerr << "telvo collector: listening on " << options.host
              << ": anyone who can reach it can post and read what was stored\n";
  }
  waitForStop();
  // A stop that lands before the server has started listening is lost, so
  // it is repeated until the serving thread has returned. Every connection
  // ends at once; a request still being handled gets until the deadline to
  // finish, after which the process ends without it (what is committed to
  // the database stays: SQLite's write-ahead log survives that).
  const auto deadline = std::chrono::steady_clock::now() + kStopWithin;
  while (!finished) {
    collector.stop();
    if (std::chrono::steady_clock::now() > deadline) {
      std::cerr << "telvo collector: requests still running after "
                << std::chrono::duration_cast<std::chrono::milliseconds>(kStopWithin).count()
                << " ms; stopping without them\n";
      std::_Exit(0);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  serving.join();
  store.reset();
  if (!served) {
    std::cerr << "telvo collector: the server stopped unexpectedly\n";
    return 1;
  }
  if (!options.quiet) std::cerr << "collector: stopped\n";
  return 0;
}

const bool registered = registerCommand(50, [](CLI::App& app) {
  auto* cmd = app.add_subcommand(
      "collector", "Run a local HTTPS stand-in for the analytics service and configuration");
  auto o = std::make_shared<CollectorCommandOptions>();
  cmd->add_option("--host", o->host,
                  "Address to listen on (default loopback only; the inspector and what it shows "
                  "are open to anyone who can reach it)")
      ->capture_default_str();
  cmd->add_option("--port", o->port, "Port on 127.0.0.1 (0 picks a free one)")
      ->capture_default_str();
  cmd->add_option("--data", o->dataDir,
                  "Data folder for collector.db and the certificate "
                  "(default $TELVO_HOME/collector or ./.telvo/collector)");
  cmd->add_option("--cert", o->certFile, "PEM certificate to serve (with --key)");
  cmd->add_option("--key", o->keyFile, "PEM private key of --cert");
  cmd->add_option("--config-dir", o->configDir,
                  "Serve <DIR>/<app>/<site>/telvoanalytics.json instead of the built-in document");
  cmd->add_flag("--throttle", o->throttle, "Answer every hello with \"throttled\": true");
  cmd->add_option("--clock-skew", o->clockSkewMs,
                  "Milliseconds added to the clock the hello answer carries");
  cmd->add_option("--callback", o->callback, "Wrap the hello answer as NAME( ... );");
  cmd->add_option("--set-cookie", o->setCookie, "Set-Cookie header sent with the hello answer");
  cmd->add_option("--max-body", o->maxBody, "Largest request body accepted, in bytes")
      ->capture_default_str()
      ->check(CLI::Range(std::size_t{1}, std::size_t{1} << 30));
  cmd->add_option("--keep-body", o->keepBody,
                  "Most bytes of a post's body kept with its problems")
      ->capture_default_str()
      ->check(CLI::Range(std::size_t{0}, std::size_t{1} << 30));
  cmd->add_option("--keep-stray-body", o->keepStrayBody,
                  "Most bytes kept of a body the collector does not read (unknown path, too "
                  "large, cut short)")
      ->capture_default_str()
      ->check(CLI::Range(std::size_t{0}, std::size_t{1} << 20));
  cmd->add_option("--max-inflated", o->check.envelope.maxInflatedBytes,
                  "Largest text a request body may inflate to, in bytes (beyond it the post "
                  "is refused as a problem)")
      ->capture_default_str()
      ->check(CLI::Range(std::size_t{1}, std::size_t{1} << 30));
  cmd->add_option("--max-depth", o->check.envelope.json.maxDepth,
                  "Deepest nesting of arrays and objects a posted document may have")
      ->capture_default_str()
      ->check(CLI::Range(std::size_t{1}, std::size_t{100000}));
  cmd->add_option("--max-members", o->check.envelope.json.maxMembers,
                  "Most elements of one array, or members of one object, in a posted document")
      ->capture_default_str()
      ->check(CLI::Range(std::size_t{1}, std::size_t{1} << 30));
  cmd->add_option("--max-problems", o->check.maxProblems,
                  "Problem lines kept for one post (one more line counts the rest)")
      ->capture_default_str()
      ->check(CLI::Range(std::size_t{1}, std::size_t{100000}));
  cmd->add_option("--max-session-id", o->check.maxSessionIdLength,
                  "Longest session id stored with a post's events, in bytes (a longer one, "
                  "never handed out, is stored cut)")
      ->capture_default_str()
      ->check(CLI::Range(std::size_t{36}, std::size_t{1} << 20));
  auto seconds = CLI::Range(0.1, 3600.0);
  cmd->add_option("--header-timeout", o->headerTimeout,
                  "Seconds a request has for its headers (408 and closed beyond)")
      ->capture_default_str()
      ->check(seconds);
  cmd->add_option("--body-timeout", o->bodyTimeout,
                  "Seconds a request has for its body once its headers are in (408 and closed "
                  "beyond)")
      ->capture_default_str()
      ->check(seconds);
  cmd->add_option("--idle-timeout", o->idleTimeout,
                  "Seconds a connection may stay silent before its first byte or between "
                  "requests")
      ->capture_default_str()
      ->check(seconds);
  cmd->add_option("--write-timeout", o->writeTimeout,
                  "Seconds an answer may make no progress before its connection is closed")
      ->capture_default_str()
      ->check(seconds);
  cmd->add_option("--max-header-bytes", o->connections.maxHeaderBytes,
                  "Most bytes of a request's line and headers (431 and closed beyond)")
      ->capture_default_str()
      ->check(CLI::Range(std::size_t{1024}, std::size_t{1} << 24));
  cmd->add_option("--max-headers", o->connections.maxHeaders,
                  "Most headers of one request (431 beyond)")
      ->capture_default_str()
      ->check(CLI::Range(std::size_t{8}, std::size_t{100000}));
  cmd->add_option("--max-connections-per-address", o->connections.maxConnectionsPerAddress,
                  "Most connections open from one client address (a newer one closes the "
                  "oldest waiting for its request)")
      ->capture_default_str()
      ->check(CLI::Range(std::size_t{1}, std::size_t{100000}));
  cmd->add_option("--max-connections", o->connections.maxConnections,
                  "Most connections open in all (a newer one closes the oldest waiting for its "
                  "request)")
      ->capture_default_str()
      ->check(CLI::Range(std::size_t{1}, std::size_t{100000}));
  cmd->add_option("--query-time-ms", o->queryTimeMs,
                  "Longest an inspector query may take, in milliseconds (503 \"took too long\" "
                  "beyond)")
      ->capture_default_str()
      ->check(CLI::Range(std::int64_t{10}, std::int64_t{600000}));
  cmd->add_option("--search-slice-ms", o->searchSliceMs,
                  "A text search answers with what it found after this many milliseconds of "
                  "searching, and says where the next request goes on")
      ->capture_default_str()
      ->check(CLI::Range(std::int64_t{1}, std::int64_t{600000}));
  cmd->add_option("--readers", o->readers,
                  "Database connections the inspector's queries run on side by side")
      ->capture_default_str()
      ->check(CLI::Range(std::size_t{1}, std::size_t{64}));
  cmd->add_option("--search-bytes", o->searchBytes,
                  "Of each event stored, the start of its data kept for lists and searched "
                  "(with as many characters of its type and session id); a text past it is "
                  "not found")
      ->capture_default_str()
      ->check(CLI::Range(CollectorStore::kDefaultSearchBytes, std::size_t{16384}));
  cmd->add_option("--allow-host", o->allowedHosts,
                  "A name requests may give as their Host besides localhost and IP addresses "
                  "(repeatable; other names are refused, which stops DNS rebinding)");
  cmd->add_flag("--quiet", o->quiet, "No line per request on standard error");
  return Command{cmd, [o] { return runCollector(*o); }};
});

}  // namespace
}  // namespace telvo::tool
