#include "support/recording_transport.h"

#include <stdexcept>
#include <string_view>

#include "delivery/response_reader.h"
#include "telvo/envelope.h"
#include "telvo/user_defaults.h"

namespace telvo {

void RecordingTransport::setSendHook(SendHook hook) {
  std::lock_guard<std::mutex> lock(mutex_);
  hook_ = std::move(hook);
}

void RecordingTransport::sendRequest(URLRequest request, std::int32_t context,
                                     std::shared_ptr<TelvoTransportDelegate> delegate) {
  std::size_t index;
  SendHook hook;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.push_back(Entry{Sent{std::move(request), context}, std::move(delegate), true});
    index = entries_.size() - 1;
    hook = hook_;
  }
  if (hook) hook(*this, index);
}

bool RecordingTransport::waitUntilIdle(double) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& entry : entries_) {
    if (entry.open) return false;
  }
  return true;
}

std::size_t RecordingTransport::count() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return entries_.size();
}

RecordingTransport::Sent RecordingTransport::at(std::size_t index) const {
  std::lock_guard<std::mutex> lock(mutex_);
  if (index >= entries_.size()) throw std::out_of_range("RecordingTransport: no such request");
  return entries_[index].sent;
}

std::vector<RecordingTransport::Sent> RecordingTransport::sent() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<Sent> out;
  for (const auto& entry : entries_) out.push_back(entry.sent);
  return out;
}

std::vector<RecordingTransport::Sent> RecordingTransport::withContext(std::int32_t context) const {
  std::vector<Sent> out;
  for (auto& sent : sent()) {
    if (sent.context == context) out.push_back(std::move(sent));
  }
  return out;
}

std::shared_ptr<TelvoTransportDelegate> RecordingTransport::take(std::size_t index, Sent& sent) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (index >= entries_.size() || !entries_[index].open) {
    throw std::logic_error("RecordingTransport: request already answered or unknown");
  }
  entries_[index].open = false;
  sent = entries_[index].sent;
  return std::move(entries_[index].delegate);
}

RecordingTransport::RecordingTransport(std::shared_ptr<UserDefaults> cookieStore)
    : cookieStore_(std::move(cookieStore)) {}

void RecordingTransport::complete(std::size_t index, delivery::HttpResponse response) {
  Sent sent;
  auto delegate = take(index, sent);
  std::shared_ptr<UserDefaults> store = delegate ? delegate->cookieStore() : nullptr;
  delivery::readResponse(sent.request, sent.context, delegate, response,
                         delivery::ResponseSinks{nullptr, store ? store : cookieStore_, 0});
}

void RecordingTransport::answer(std::size_t index, const std::string& body,
                                const HTTPHeaderFields& headers, long status) {
  delivery::HttpResponse response;
  response.status = status;
  response.headers = headers;
  response.body.assign(body.begin(), body.end());
  complete(index, std::move(response));
}

void RecordingTransport::answerJson(std::size_t index, const Json& body,
                                    const HTTPHeaderFields& headers) {
  answer(index, body.dump(), headers);
}

void RecordingTransport::fail(std::size_t index) {
  delivery::HttpResponse response;
  response.error = Error{"telvo.transport", 7, "refused"};
  complete(index, std::move(response));
}

void RecordingTransport::clear() {
  std::vector<Entry> entries;
  std::lock_guard<std::mutex> lock(mutex_);
  entries.swap(entries_);
}

Json RecordingTransport::decodedBody(const URLRequest& request) {
  if (!request.HTTPBody) return nullptr;
  const Bytes& body = *request.HTTPBody;
  DecodedEnvelope decoded = decodeTelvoJsonParameter(
      std::string_view(reinterpret_cast<const char*>(body.data()), body.size()));
  return decoded.ok() ? decoded.document : Json();
}

}  // namespace telvo
