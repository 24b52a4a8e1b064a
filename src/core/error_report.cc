// Error reports: posted at once, built on the background queue.
#include <algorithm>
#include <cstdint>

#include "core/telvo_impl.h"
#include "delivery/error_post.h"
#include "encoding/field_text.h"
#include "encoding/json_text.h"
#include "telvo/log.h"

namespace telvo {

// Both forms: accepted only once initialised (throttling does not stop
// reports), and never without a code.
bool Telvo::Impl::acceptsErrorReport() {
  if (!initialized.load(std::memory_order_acquire)) return false;
  counters.errorsAccepted.add();
  if (pendingReports.load(std::memory_order_relaxed) >=
      static_cast<std::int64_t>(std::min<std::uint64_t>(options.maxPendingErrorReports, INT64_MAX))) {
    counters.errorsDropped.add();
    reportsFull.drop([&] {
      return "Telvo: " + std::to_string(options.maxPendingErrorReports) +
             " error reports wait to be sent: new ones are dropped and counted until they go";
    });
    return false;
  }
  reportsFull.fits();
  return true;
}

template <typename Details>
void Telvo::Impl::queueErrorReport(Json code, Details details) {
  if (debugging()) log("Reporting error: " + encoding::describeJson(&code));
  // The ticket is returned when the report's post completes, or as soon as
  // the report is dropped (the queue included).
  pendingReports.fetch_add(1, std::memory_order_relaxed);
  platform.backgroundQueue->post(
      [self = self(), code = std::move(code), details = std::move(details),
       ticket = deliveries->begin()] {
        self->_impl->pendingReports.fetch_sub(1, std::memory_order_relaxed);
        try {
          self->_impl->postErrorReport(code, details, ticket);
        } catch (const std::exception& e) {
          self->_impl->counters.errorsDropped.add();
          log(std::string("Telvo: error report dropped: ") + e.what());
        }
      });
}

void Telvo::Impl::sendError(Json code, std::optional<Json> details) {
  if (details && !details->is_object()) {
    throw UsageError(std::string("Telvo::sendError: details must be a JSON object, not ") +
                     details->type_name());
  }
  if (!acceptsErrorReport()) return;
  queueErrorReport(std::move(code), std::move(details));
}

void Telvo::Impl::sendError(Json code, const Field* details, std::size_t count) {
  if (count == 0) return sendError(std::move(code), std::nullopt);
  if (!acceptsErrorReport()) return;
  // Written here: the fields view the caller's values, which do not outlive
  // the call.
  delivery::WrittenDetails written;
  encoding::appendFields(written.members, details, count, encoding::NonFinite::kNull);
  for (std::size_t i = 0; i < count; ++i) {
    const std::string_view key = details[i].key();
    written.applicationName |= key == "applicationName";
    written.timestamp |= key == "timestamp";
    written.errorCode |= key == "errorCode";
  }
  queueErrorReport(std::move(code), std::move(written));
}

template <typename Details>
void Telvo::Impl::postErrorReport(const Json& code, const Details& details,
                                  std::shared_ptr<core::Deliveries::Ticket> ticket) {
  const Snapshot current = snapshot();
  const auto appName = applicationName(current.config.get());
  if (!appName) {
    counters.errorsDropped.add();
    log("Telvo: error report dropped: the configuration has no appName");
    return;
  }
  const std::string json = delivery::ErrorPost::write(
      *current.session, *appName, wholeMilliseconds(serviceMilliseconds()), code, details);
  if (debugging()) log("Payload: " + json);
  std::vector<std::uint64_t> spooled;
  if (const std::uint64_t sequence = spoolErrorReport(encoding::dumpJson(*current.session), json)) {
    spooled.push_back(sequence);
  }
  post(delivery::ErrorPost::request(locations(current.master.get()).servicesUrl, json), 0, std::move(ticket), std::move(spooled));
}

}  // namespace telvo
