// Test helpers for the `telvo` tool: a temporary folder, the collector as a
// child process on a free loopback port, and one-shot runs of other commands.
// Every wait is bounded; a child still running at destruction is killed.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/launcher.h"

extern char** environ;

namespace telvo::testing {

class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "telvo-tool-XXXXXX").string();
    path_ = mkdtemp(pattern.data()) ? pattern : std::string();
  }
  ~TempDir() {
    std::error_code ec;
    if (!path_.empty()) std::filesystem::remove_all(path_, ec);
  }
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

inline std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// Waits up to `timeout` for `pid`; its exit status, 128 + signal, or nothing
// (after which the caller should kill it).
inline std::optional<int> waitForExit(pid_t pid, std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (true) {
    int status = 0;
    pid_t done = waitpid(pid, &status, WNOHANG);
    if (done == pid) {
      if (WIFEXITED(status)) return WEXITSTATUS(status);
      if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
      return -1;
    }
    if (done < 0) return -1;
    if (std::chrono::steady_clock::now() > deadline) return std::nullopt;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

// Starts `program args...` with standard output and error on the given
// descriptors and `extraEnv` ("NAME=value") added to this process's
// environment (replacing entries of the same name).
inline pid_t spawnProgram(const std::string& program, const std::vector<std::string>& args,
                          int stdoutFd, int stderrFd,
                          const std::vector<std::string>& extraEnv = {}) {
  // Programs of this build run as the tests do (under a cross build's
  // emulator); others, such as Chromium, as they are.
  const bool built =
      program == TELVO_TOOL_PATH || program == TELVO_EXAMPLE_PATH || program == TELVO_EXAMPLE_C_PATH;
  std::vector<std::string> argv =
      built ? test::launchCommand(program) : std::vector<std::string>{program};
  argv.insert(argv.end(), args.begin(), args.end());
  std::vector<char*> rawArgs;
  for (auto& a : argv) rawArgs.push_back(a.data());
  rawArgs.push_back(nullptr);
  std::vector<std::string> env = extraEnv;
  for (char** e = environ; *e; ++e) {
    std::string entry = *e;
    std::string name = entry.substr(0, entry.find('='));
    bool replaced = false;
    for (const auto& extra : extraEnv) replaced = replaced || extra.rfind(name + "=", 0) == 0;
    if (!replaced) env.push_back(entry);
  }
  std::vector<char*> rawEnv;
  for (auto& e : env) rawEnv.push_back(e.data());
  rawEnv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, stdoutFd, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, stderrFd, STDERR_FILENO);
  pid_t pid = -1;
  if (posix_spawn(&pid, rawArgs[0], &actions, nullptr, rawArgs.data(), rawEnv.data()) != 0) {
    pid = -1;
  }
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

struct ToolResult {
  int status = -1;  // exit status; -1 when it did not finish in time
  std::string out;
  std::string err;
};

// Runs `program args...` to completion (killed after `timeout`).
inline ToolResult runProgram(const std::string& program, const std::vector<std::string>& args,
                             const std::vector<std::string>& extraEnv = {},
                             std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
  TempDir scratch;
  std::string outPath = scratch.file("out"), errPath = scratch.file("err");
  int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  ToolResult result;
  pid_t pid = spawnProgram(program, args, out, err, extraEnv);
  close(out);
  close(err);
  if (pid > 0) {
    auto status = waitForExit(pid, timeout);
    if (!status) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
    result.status = status.value_or(-1);
  }
  result.out = readFile(outPath);
  result.err = readFile(errPath);
  return result;
}

// Runs `telvo <args>` to completion.
inline ToolResult runTool(const std::vector<std::string>& args,
                          const std::vector<std::string>& extraEnv = {},
                          std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
  return runProgram(TELVO_TOOL_PATH, args, extraEnv, timeout);
}

// `telvo collector --port 0 --quiet --data <dir> <extra>` as a child.
class CollectorProcess {
 public:
  CollectorProcess() = default;
  CollectorProcess(const CollectorProcess&) = delete;
  CollectorProcess& operator=(const CollectorProcess&) = delete;
  ~CollectorProcess() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    if (stdout_ >= 0) close(stdout_);
  }

  // Starts it and waits (bounded) for its start line, which names the port.
  // `port` 0 takes a free one.
  bool start(const std::string& dataDir, const std::vector<std::string>& extra = {}, int port = 0) {
    dataDir_ = dataDir;
    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) return false;
    int devNull = open("/dev/null", O_WRONLY | O_CLOEXEC);
    std::vector<std::string> args{"collector", "--port", std::to_string(port), "--quiet",
                                  "--data",    dataDir};
    args.insert(args.end(), extra.begin(), extra.end());
    pid_ = spawnProgram(TELVO_TOOL_PATH, args, pipeFds[1], devNull);
    close(pipeFds[1]);
    close(devNull);
    stdout_ = pipeFds[0];
    if (pid_ <= 0) return false;
    std::string line;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
    while (line.find('\n') == std::string::npos) {
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      pollfd fd{stdout_, POLLIN, 0};
      if (left.count() <= 0 || poll(&fd, 1, static_cast<int>(left.count())) <= 0) return false;
      char buffer[512];
      ssize_t n = read(stdout_, buffer, sizeof buffer);
      if (n <= 0) return false;
      line.append(buffer, static_cast<std::size_t>(n));
    }
    startLine_ = line.substr(0, line.find('\n'));
    auto at = startLine_.find("127.0.0.1:");
    if (at == std::string::npos) return false;
    port_ = std::atoi(startLine_.c_str() + at + 10);
    return port_ > 0;
  }

  // Sends `sig` and waits (bounded) for the exit status; SIGKILL after that.
  int stop(int sig = SIGTERM) {
    if (pid_ <= 0) return -1;
    kill(pid_, sig);
    auto status = waitForExit(pid_, std::chrono::seconds(10));
    if (!status) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    pid_ = -1;
    return status.value_or(-1);
  }

  int port() const { return port_; }
  pid_t pid() const { return pid_; }
  // A field of /proc/<pid>/status in KiB (VmHWM: the peak resident memory);
  // -1 when it cannot be read.
  long statusKiB(const std::string& field) const {
    std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
    std::string line;
    while (std::getline(status, line)) {
      if (line.rfind(field + ":", 0) == 0) return std::atol(line.c_str() + field.size() + 1);
    }
    return -1;
  }
  std::string baseUrl() const { return "https://127.0.0.1:" + std::to_string(port_); }
  std::string certificatePath() const { return dataDir_ + "/collector-cert.pem"; }
  const std::string& startLine() const { return startLine_; }

 private:
  pid_t pid_ = -1;
  int stdout_ = -1;
  int port_ = 0;
  std::string dataDir_;
  std::string startLine_;
};

}  // namespace telvo::testing
