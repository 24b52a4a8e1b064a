// Platform: everything a client takes from its surroundings, in one record
// (main queue, background queue, clock, transport, notification centre,
// user defaults, device).
//
// A client receives one record when it is created and uses only that record
// from then on: nothing inside the library reads a process-wide default after
// creation. Members left null are filled from the process-wide defaults as
// they are at that moment (mainQueue(), backgroundQueue(),
// Clock::defaultClock(), TelvoTransport::sharedTransport(),
// NotificationCenter::defaultCenter(), UserDefaults::standardUserDefaults(),
// Device::currentDevice()), so a host that sets nothing gets the design's
// singletons, and two clients in one process may sit on two different
// platforms. The service's cookie is saved into and read from `userDefaults`.
//
// A plain value: copy it freely; it holds shared references only.
#pragma once

#include "telvo/export.h"

#include <memory>

namespace telvo {

class Clock;
class Device;
class Executor;
class NotificationCenter;
class TelvoTransport;
class UserDefaults;

struct TELVO_API Platform {
  // Capture, the queue, the flush and the batch timer run here.
  std::shared_ptr<Executor> mainQueue;
  // Error reports are built here.
  std::shared_ptr<Executor> backgroundQueue;
  // The device's clock, for service-clock stamps.
  std::shared_ptr<Clock> clock;
  // Every request of the client goes through it.
  std::shared_ptr<TelvoTransport> transport;
  // The application notifications are observed, and "TelvoSessionIDReceived"
  // posted, here.
  std::shared_ptr<NotificationCenter> notificationCenter;
  // Holds the service's cookie.
  std::shared_ptr<UserDefaults> userDefaults;
  // What the hello reports about the device.
  std::shared_ptr<Device> device;

  // This record with every null member taken from the process defaults as
  // they are now.
  Platform withDefaults() const;
};

}  // namespace telvo
