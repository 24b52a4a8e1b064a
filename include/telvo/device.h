// What the library reports about the device it runs on.
//
// Thread safety: every member function may be called from any thread.
#pragma once

#include "telvo/export.h"

#include <memory>
#include <optional>
#include <string>

namespace telvo {

class UserDefaults;

class TELVO_API Device {
 public:
  // The process-wide device (replaceable before clients are created).
  static std::shared_ptr<Device> currentDevice();
  static void setCurrentDevice(std::shared_ptr<Device> device);

  virtual ~Device() = default;
  // Operating-system version as dotted text, e.g. "12" or "6.1.0".
  virtual std::string systemVersion() const = 0;
  // Hardware model code: the `machine` field of uname, e.g. "x86_64".
  virtual std::string machine() const = 0;
  // Generic model name, e.g. "Linux device".
  virtual std::string model() const = 0;
  // Stable per device: 36 characters, upper-case hex, hyphenated 8-4-4-4-12.
  virtual std::string identifierForVendor() const = 0;
};

// The running system, with host overrides. Version from /etc/os-release
// VERSION_ID, else the leading numbers of the kernel release; machine from
// uname; model "Linux" unless set; vendor identifier made once at random and
// kept in a user-defaults store under "telvoDeviceIdentifier" (read, and
// made if missing, on the first call to identifierForVendor).
class TELVO_API SystemDevice : public Device {
 public:
  // Keeps the vendor identifier in the standard user defaults as they are now.
  SystemDevice();
  // Keeps the vendor identifier in `defaults` (in memory only when null).
  explicit SystemDevice(std::shared_ptr<UserDefaults> defaults);
  ~SystemDevice() override;

  std::string systemVersion() const override;
  std::string machine() const override;
  std::string model() const override;
  std::string identifierForVendor() const override;

  // Host overrides; an empty optional goes back to the system's value. An
  // overriding vendor identifier is reported as given and is not stored.
  void setSystemVersion(std::optional<std::string> value);
  void setMachine(std::optional<std::string> value);
  void setModel(std::optional<std::string> value);
  void setIdentifierForVendor(std::optional<std::string> value);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace telvo
