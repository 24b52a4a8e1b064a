// What the library reports about the device it runs on.
//
// Thread safety: every member function may be called from any thread.
#pragma once

#include <memory>
#include <optional>
#include <string>

namespace telvo {

class UserDefaults;

class Device {
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
// kept in the standard user defaults under "telvoDeviceIdentifier" (read, and
// made if missing, on the first call to identifierForVendor).
class SystemDevice : public Device {
 public:
  SystemDevice();
  // Keeps the vendor identifier in `defaults` instead of the standard store.
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

// A test double with fixed values.
class FixedDevice : public Device {
 public:
  FixedDevice(std::string systemVersion = "12", std::string machine = "x86_64",
              std::string model = "Linux",
              std::string identifierForVendor = "00000000-0000-4000-8000-000000000000")
      : systemVersion_(std::move(systemVersion)),
        machine_(std::move(machine)),
        model_(std::move(model)),
        identifierForVendor_(std::move(identifierForVendor)) {}
  std::string systemVersion() const override { return systemVersion_; }
  std::string machine() const override { return machine_; }
  std::string model() const override { return model_; }
  std::string identifierForVendor() const override { return identifierForVendor_; }

 private:
  std::string systemVersion_, machine_, model_, identifierForVendor_;
};

}  // namespace telvo
