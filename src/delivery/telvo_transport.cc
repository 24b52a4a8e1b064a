#include "telvo/telvo_transport.h"

#include <mutex>
#include <string_view>

#include "delivery/curl_transport.h"
#include "delivery/response_reader.h"
#include "encoding/utf8.h"
#include "platform/process_default.h"

namespace telvo {

namespace {

std::mutex& optionsMutex() {
  static auto* mutex = new std::mutex();
  return *mutex;
}
TelvoTransport::Options& optionsSlot() {  // guarded by optionsMutex()
  static auto* options = new TelvoTransport::Options();
  return *options;
}

// The shared transport lives as long as the process: its thread is stopped
// at exit by the libcurl layer itself.
platform::ProcessDefault<TelvoTransport>& shared() {
  static auto& h = platform::leakedDefault<TelvoTransport>(
      []() { return TelvoTransport::makeCurlTransport(TelvoTransport::options()); });
  return h;
}

}  // namespace

void TelvoTransport::setOptions(Options options) {
  std::lock_guard<std::mutex> lock(optionsMutex());
  optionsSlot() = std::move(options);
}

TelvoTransport::Options TelvoTransport::options() {
  std::lock_guard<std::mutex> lock(optionsMutex());
  return optionsSlot();
}

// Guarded, unlike a plain test of the reference: two first calls on
// different threads must not start two transports and leak one.
std::shared_ptr<TelvoTransport> TelvoTransport::sharedTransport() { return shared().get(); }

// The previous transport may be the last reference; its destructor stops a
// thread, so it is released outside the lock.
void TelvoTransport::setSharedTransport(std::shared_ptr<TelvoTransport> transport) {
  shared().set(std::move(transport));
}

std::shared_ptr<TelvoTransport> TelvoTransport::makeCurlTransport(
    Options options, std::shared_ptr<UserDefaults> cookieStore) {
  return CurlTransport::create(std::move(options), std::move(cookieStore));
}

Bytes TelvoTransport::dataWithStrippedJSONCallback(const Bytes& body) const {
  const std::string_view text(reinterpret_cast<const char*>(body.data()), body.size());
  // Bytes that are not UTF-8 make no text, and no text makes no bytes.
  if (!utf8::isValid(text)) return {};
  const std::string_view stripped = delivery::strippedJSONCallback(text);
  return Bytes(stripped.begin(), stripped.end());
}

}  // namespace telvo
