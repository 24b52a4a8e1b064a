#include "telvo/platform.h"

#include "telvo/clock.h"
#include "telvo/device.h"
#include "telvo/executor.h"
#include "telvo/notification_center.h"
#include "telvo/telvo_transport.h"
#include "telvo/user_defaults.h"

namespace telvo {

Platform Platform::withDefaults() const {
  Platform filled = *this;
  if (!filled.mainQueue) filled.mainQueue = telvo::mainQueue();
  if (!filled.backgroundQueue) filled.backgroundQueue = telvo::backgroundQueue();
  if (!filled.clock) filled.clock = Clock::defaultClock();
  if (!filled.userDefaults) filled.userDefaults = UserDefaults::standardUserDefaults();
  if (!filled.transport) filled.transport = TelvoTransport::sharedTransport();
  if (!filled.notificationCenter) filled.notificationCenter = NotificationCenter::defaultCenter();
  if (!filled.device) filled.device = Device::currentDevice();
  return filled;
}

}  // namespace telvo
