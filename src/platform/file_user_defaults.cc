#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "encoding/json_text.h"
#include "platform/defaults_file.h"
#include "telvo/log.h"
#include "telvo/user_defaults.h"

namespace telvo {
namespace {

constexpr const char* kFileName = "defaults.json";

std::string errorText(int error) { return std::strerror(error); }

std::string parentFolder(const std::string& path) {
  auto slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

std::string baseName(const std::string& path) {
  auto slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// mkdir -p with owner-only permissions for the folders it creates.
bool makeFolders(const std::string& folder, int* error) {
  struct stat st {};
  if (::stat(folder.c_str(), &st) == 0) {
    if (S_ISDIR(st.st_mode)) return true;
    *error = ENOTDIR;
    return false;
  }
  std::string parent = parentFolder(folder);
  if (parent != folder && !makeFolders(parent, error)) return false;
  if (::mkdir(folder.c_str(), 0700) == 0 || errno == EEXIST) return true;
  *error = errno;
  return false;
}

bool writeAll(int fd, const std::string& text) {
  const char* p = text.data();
  std::size_t left = text.size();
  while (left > 0) {
    ssize_t n = ::write(fd, p, left);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    p += n;
    left -= static_cast<std::size_t>(n);
  }
  return true;
}

// Reads a regular file of at most kMaxDefaultsFileBytes; anything else (a
// folder, a pipe, a device, a huge file) is refused with EFBIG or EINVAL.
bool readAll(const std::string& path, std::string* out, int* error) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) {
    *error = errno;
    return false;
  }
  struct stat info {};
  if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    *error = EINVAL;
    ::close(fd);
    return false;
  }
  char buffer[8192];
  for (;;) {
    if (out->size() > platform::kMaxDefaultsFileBytes) {
      *error = EFBIG;
      ::close(fd);
      return false;
    }
    ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0) {
      if (errno == EINTR) continue;
      *error = errno;
      ::close(fd);
      return false;
    }
    if (n == 0) break;
    out->append(buffer, static_cast<std::size_t>(n));
  }
  ::close(fd);
  return true;
}

// Temporary files are named "<file>.<pid>.<n>.tmp", so that two stores (in
// one process or several) never write the same temporary file, and one left
// behind by a process that died mid-write can be recognised and removed.
std::string temporaryPrefix(const std::string& path) { return baseName(path) + "."; }

void removeStaleTemporaries(const std::string& path) {
  std::string folder = parentFolder(path);
  std::string prefix = temporaryPrefix(path);
  DIR* dir = ::opendir(folder.c_str());
  if (!dir) return;
  std::vector<std::string> stale;
  while (dirent* entry = ::readdir(dir)) {
    std::string name = entry->d_name;
    if (name.size() <= prefix.size() + 4 || name.compare(0, prefix.size(), prefix) != 0 ||
        name.compare(name.size() - 4, 4, ".tmp") != 0) {
      continue;
    }
    long pid = std::strtol(name.c_str() + prefix.size(), nullptr, 10);
    bool alive =
        pid > 0 && (pid == ::getpid() || ::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM);
    // Our own pid: a temporary of this process is only ever present while a
    // write is under way, so leave it alone.
    if (!alive) stale.push_back(folder + "/" + name);
  }
  ::closedir(dir);
  for (const auto& name : stale) ::unlink(name.c_str());
}

std::atomic<unsigned> temporaryCounter{0};

// Writes `text` to `path` so that a crash at any point leaves either the old
// or the new content: a temporary file in the same folder, flushed to disk,
// renamed over the target, then the folder flushed so the rename is durable.
bool writeAtomically(const std::string& path, const std::string& text, std::string* failure) {
  std::string folder = parentFolder(path);
  int error = 0;
  if (!makeFolders(folder, &error)) {
    *failure = "cannot create folder " + folder + ": " + errorText(error);
    return false;
  }
  std::string temporary = folder + "/" + temporaryPrefix(path) + std::to_string(::getpid()) + "." +
                          std::to_string(temporaryCounter.fetch_add(1)) + ".tmp";
  int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) {
    *failure = "cannot write " + temporary + ": " + errorText(errno);
    return false;
  }
  bool ok = writeAll(fd, text) && ::fsync(fd) == 0;
  error = errno;
  if (::close(fd) != 0 && ok) {
    ok = false;
    error = errno;
  }
  if (ok && ::rename(temporary.c_str(), path.c_str()) != 0) {
    ok = false;
    error = errno;
  }
  if (!ok) {
    ::unlink(temporary.c_str());
    *failure = "cannot write " + path + ": " + errorText(error);
    return false;
  }
  int dirFd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dirFd >= 0) {
    ::fsync(dirFd);  // best effort: some file systems refuse fsync on folders
    ::close(dirFd);
  }
  return true;
}

std::string homeFolder() {
  if (const char* home = std::getenv("HOME"); home && *home) return home;
  long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 16384);
  passwd entry{};
  passwd* result = nullptr;
  if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &result) == 0 && result &&
      result->pw_dir && *result->pw_dir) {
    return result->pw_dir;
  }
  return {};
}

}  // namespace

namespace platform {

std::optional<Json> parseDefaultsFile(std::string_view text) {
  if (text.size() > kMaxDefaultsFileBytes) return std::nullopt;
  Json parsed = encoding::parseJson(text);
  if (!parsed.is_object()) return std::nullopt;
  return parsed;
}

}  // namespace platform

struct TELVO_LOCAL FileUserDefaults::State {
  std::string path;
  mutable std::mutex mutex;  // guards everything below
  Json values = Json::object();
  bool dirty = false;
  std::uint64_t generation = 0;       // bumped by every change
  bool reportedWriteFailure = false;  // so an unwritable folder logs once, not per write
  // Serialises writers, so an older snapshot never lands after a newer one.
  std::mutex writeMutex;
};

std::string FileUserDefaults::defaultPath() {
  if (const char* home = std::getenv("TELVO_HOME"); home && *home) {
    return std::string(home) + "/" + kFileName;
  }
  if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg && *xdg) {
    return std::string(xdg) + "/telvo/" + kFileName;
  }
  std::string home = homeFolder();
  if (home.empty()) return {};
  return home + "/.config/telvo/" + kFileName;
}

FileUserDefaults::FileUserDefaults(std::string path) : state_(std::make_unique<State>()) {
  state_->path = std::move(path);
  if (state_->path.empty()) {
    log("telvo: no folder for user defaults (HOME is not set); values are kept in memory only");
    state_->reportedWriteFailure = true;
    return;
  }
  removeStaleTemporaries(state_->path);
  std::string text;
  int error = 0;
  if (!readAll(state_->path, &text, &error)) {
    if (error != ENOENT && error != ENOTDIR) {  // absent: nothing stored yet
      log("telvo: cannot read user defaults " + state_->path + " (" + errorText(error) +
          "); starting empty");
    }
    return;
  }
  auto parsed = platform::parseDefaultsFile(text);
  if (!parsed) {
    log("telvo: user defaults " + state_->path + " are not a JSON object; starting empty");
    return;
  }
  state_->values = std::move(*parsed);
}

FileUserDefaults::~FileUserDefaults() { synchronize(); }

const std::string& FileUserDefaults::path() const { return state_->path; }

std::optional<Json> FileUserDefaults::objectForKey(const std::string& key) const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  auto it = state_->values.find(key);
  if (it == state_->values.end()) return std::nullopt;
  return *it;
}

void FileUserDefaults::setObject(const Json& value, const std::string& key) {
  Json copy = value;
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->values[key] = std::move(copy);
  state_->dirty = true;
  ++state_->generation;
}

void FileUserDefaults::removeObjectForKey(const std::string& key) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  if (state_->values.erase(key) == 0) return;
  state_->dirty = true;
  ++state_->generation;
}

bool FileUserDefaults::synchronize() {
  std::string message;
  bool ok = true;
  {
    std::lock_guard<std::mutex> writeLock(state_->writeMutex);
    std::string text;
    std::uint64_t generation;
    {
      std::lock_guard<std::mutex> lock(state_->mutex);
      if (!state_->dirty) return true;
      if (state_->path.empty()) return false;
      // Invalid UTF-8 in a string value is replaced rather than thrown.
      text = encoding::dumpJson(state_->values);
      generation = state_->generation;
    }
    std::string failure;
    ok = writeAtomically(state_->path, text, &failure);
    std::lock_guard<std::mutex> lock(state_->mutex);
    if (ok) {
      if (state_->generation == generation) state_->dirty = false;
      state_->reportedWriteFailure = false;
    } else if (!state_->reportedWriteFailure) {
      state_->reportedWriteFailure = true;
      message = "telvo: " + failure + "; user defaults are kept in memory only";
    }
  }
  if (!message.empty()) log(message);  // after every lock is released
  return ok;
}

}  // namespace telvo
