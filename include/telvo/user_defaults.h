// A persistent key-value store with JSON values (the library keeps one item
// in it: the service's cookie, "telvoUUIDCookie"; the device keeps its vendor
// identifier there too).
//
// Thread safety: every member function may be called from any thread.
#pragma once

#include "telvo/export.h"

#include <memory>
#include <optional>
#include <string>

#include "telvo/types.h"

namespace telvo {

class TELVO_API UserDefaults {
 public:
  // The process-wide store. Default: a FileUserDefaults at defaultPath(),
  // created on first use. Replaceable before clients are created.
  static std::shared_ptr<UserDefaults> standardUserDefaults();
  static void setStandardUserDefaults(std::shared_ptr<UserDefaults> defaults);

  virtual ~UserDefaults() = default;
  virtual std::optional<Json> objectForKey(const std::string& key) const = 0;
  virtual void setObject(const Json& value, const std::string& key) = 0;
  virtual void removeObjectForKey(const std::string& key) = 0;
  // Writes pending changes to storage. False when they could not be written
  // (the values stay in memory).
  virtual bool synchronize() = 0;
};

// Values in memory only. Public because hosts need it: a device without
// writable storage (a read-only root file system) keeps the cookie for the
// life of the process this way; tests use it too.
class TELVO_API MemoryUserDefaults : public UserDefaults {
 public:
  MemoryUserDefaults();
  ~MemoryUserDefaults() override;
  std::optional<Json> objectForKey(const std::string& key) const override;
  void setObject(const Json& value, const std::string& key) override;
  void removeObjectForKey(const std::string& key) override;
  bool synchronize() override;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// One JSON file. Loaded when opened (a corrupt or unreadable file starts empty,
// with one log line); `synchronize` writes atomically (temporary file in the
// same folder, fsync, rename), so a crash leaves the old or the new content.
// An unwritable folder keeps values in memory, with one log line.
class TELVO_API FileUserDefaults : public UserDefaults {
 public:
  explicit FileUserDefaults(std::string path);
  ~FileUserDefaults() override;

  // $TELVO_HOME/defaults.json, else $XDG_CONFIG_HOME/telvo/defaults.json,
  // else ~/.config/telvo/defaults.json.
  static std::string defaultPath();

  const std::string& path() const;
  std::optional<Json> objectForKey(const std::string& key) const override;
  void setObject(const Json& value, const std::string& key) override;
  void removeObjectForKey(const std::string& key) override;
  bool synchronize() override;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace telvo
