// A platform for clients that talk to a real HTTPS server on 127.0.0.1: the
// library's own queues and clock, libcurl trusting the server's certificate,
// a notification centre and in-memory user defaults of its own (shared with
// the transport, which keeps its cookie there), and a fixed device.
#pragma once

#include <memory>
#include <string>

#include "support/test_platform.h"
#include "telvo/notification_center.h"
#include "telvo/platform.h"
#include "telvo/telvo_transport.h"
#include "telvo/user_defaults.h"

namespace telvo::test {

inline Platform curlPlatform(const std::string& caFile) {
  TelvoTransport::Options options;
  options.caFile = caFile;
  auto defaults = std::make_shared<MemoryUserDefaults>();
  Platform platform;
  platform.transport = TelvoTransport::makeCurlTransport(options, defaults);
  platform.notificationCenter = std::make_shared<NotificationCenter>();
  platform.userDefaults = defaults;
  platform.device = std::make_shared<FixedDevice>();
  return platform;
}

}  // namespace telvo::test
