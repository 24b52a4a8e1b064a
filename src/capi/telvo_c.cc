// The C interface: handles over the C++ client. Every entry point catches
// everything, so no exception crosses into C.
#include "telvo/telvo_c.h"

#include <atomic>

#include <chrono>
#include <cmath>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "config/event_names.h"
#include "core/shutdown.h"
#include "encoding/json_text.h"
#include "telvo/field.h"
#include "telvo/log.h"
#include "telvo/telvo.h"
#include "telvo/telvo_config.h"
#include "telvo/telvo_delegate.h"
#include "telvo/telvo_transport.h"

struct telvo_config {
  telvo::TelvoConfig config;
};

namespace {

// Forwards telvoInitialized to the host's function. Switched off under the
// lock, so once telvo_client_release returns the function is not called
// again (a call already running on the network thread is waited for).
class CallbackDelegate final : public telvo::TelvoDelegate {
 public:
  explicit CallbackDelegate(telvo_client* client) : client_(client) {}

  void set(telvo_initialized_callback callback, void* user) {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    callback_ = callback;
    user_ = user;
  }
  void disable() { set(nullptr, nullptr); }

  bool respondsToTelvoInitialized() const override { return true; }
  void telvoInitialized() override {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    if (callback_) callback_(client_, user_);
  }

 private:
  telvo_client* const client_;
  std::recursive_mutex mutex_;  // recursive: the callback may set another callback
  telvo_initialized_callback callback_ = nullptr;
  void* user_ = nullptr;
};

}  // namespace

struct telvo_client {
  std::shared_ptr<telvo::Telvo> client;
  std::shared_ptr<CallbackDelegate> delegate;
  // Events and reports lost as the last telvo_flush saw them.
  std::atomic<std::uint64_t> lostAtFlush{0};
};

namespace {

thread_local std::string lastError;
thread_local int lastStatus = TELVO_OK;

int fail(int status, std::string message) {
  lastError = std::move(message);
  lastStatus = status;
  return status;
}

// Runs `body`, turning every exception into a status.
template <typename Body>
int guarded(Body&& body) noexcept {
  try {
    lastError.clear();
    lastStatus = TELVO_OK;
    return body();
  } catch (const telvo::UsageError& e) {
    return fail(TELVO_ERROR_INVALID_ARGUMENT, e.what());
  } catch (const std::bad_alloc&) {
    return fail(TELVO_ERROR_INTERNAL, "out of memory");
  } catch (const std::exception& e) {
    return fail(TELVO_ERROR_INTERNAL, e.what());
  } catch (...) {
    return fail(TELVO_ERROR_INTERNAL, "unknown failure");
  }
}

std::optional<std::string> optionalText(const char* text) {
  return text ? std::optional<std::string>(text) : std::nullopt;
}

// JSON text from the host, bounded in depth like every outside document.
// Nothing when it does not parse (with the reason left for the caller).
std::optional<telvo::Json> parsed(const char* text, const char* what) {
  telvo::Json value = telvo::encoding::parseJson(text);
  if (value.is_discarded()) {
    fail(TELVO_ERROR_INVALID_JSON, std::string(what) + " is not JSON text (or is nested deeper than " +
                                       std::to_string(telvo::encoding::kMaxJsonDepth) +
                                       " levels)");
    return std::nullopt;
  }
  return value;
}

// A JSON object text, or none for a null pointer. False when the text is not
// an object.
bool objectArgument(const char* text, const char* what, std::optional<telvo::Json>& out) {
  if (!text) return true;
  auto value = parsed(text, what);
  if (!value) return false;
  if (!value->is_object()) {
    fail(TELVO_ERROR_INVALID_JSON,
         std::string(what) + " must be a JSON object, not " + value->type_name());
    return false;
  }
  out = std::move(value);
  return true;
}

// The host's fields as the client's, checked first so that bad input queues
// nothing. JSON fields are parsed once, here, and handed over as the parsed
// value. False (with the reason left) for a bad field.
struct Converted {
  std::vector<telvo::Field> fields;
  std::vector<telvo::Json> values;  // what JSON fields view; reserved, never moved
};

bool toFields(const telvo_field* fields, size_t count, Converted& converted) {
  std::vector<telvo::Field>& out = converted.fields;
  if (count > 0 && !fields) {
    fail(TELVO_ERROR_NULL_ARGUMENT, "fields is null");
    return false;
  }
  out.reserve(count);
  converted.values.reserve(count);
  for (size_t i = 0; i < count; ++i) {
    const telvo_field& field = fields[i];
    if (!field.key) {
      fail(TELVO_ERROR_NULL_ARGUMENT, "field " + std::to_string(i) + " has no key");
      return false;
    }
    const std::string_view key(field.key);
    switch (field.type) {
      case TELVO_FIELD_TEXT:
        out.emplace_back(key, field.text);
        break;
      case TELVO_FIELD_INTEGER:
        out.emplace_back(key, static_cast<std::int64_t>(field.integer));
        break;
      case TELVO_FIELD_NUMBER:
        if (!std::isfinite(field.number)) {
          fail(TELVO_ERROR_INVALID_ARGUMENT,
               "field \"" + std::string(key) + "\" is not a finite number");
          return false;
        }
        out.emplace_back(key, field.number);
        break;
      case TELVO_FIELD_BOOL:
        out.emplace_back(key, field.integer != 0);
        break;
      case TELVO_FIELD_NULL:
        out.emplace_back(key, nullptr);
        break;
      case TELVO_FIELD_JSON: {
        const std::string what = "field \"" + std::string(key) + "\"";
        if (!field.text) {
          fail(TELVO_ERROR_INVALID_JSON, what + " has no JSON text");
          return false;
        }
        auto value = parsed(field.text, what.c_str());
        if (!value) return false;
        out.emplace_back(key, converted.values.emplace_back(std::move(*value)));
        break;
      }
      default:
        fail(TELVO_ERROR_INVALID_ARGUMENT,
             "field \"" + std::string(key) + "\" has an unknown type " + std::to_string(field.type));
        return false;
    }
  }
  return true;
}

std::chrono::milliseconds milliseconds(int64_t timeout) {
  return std::chrono::milliseconds(timeout < 0 ? 0 : timeout);
}

}  // namespace

extern "C" {

const char* telvo_status_message(int status) {
  switch (status) {
    case TELVO_OK: return "ok";
    case TELVO_ERROR_NULL_ARGUMENT: return "a required argument was null";
    case TELVO_ERROR_INVALID_ARGUMENT: return "an argument was not valid";
    case TELVO_ERROR_INVALID_JSON: return "JSON text that does not parse or has the wrong type";
    case TELVO_ERROR_TIMEOUT: return "the deadline passed";
    case TELVO_ERROR_BUFFER_TOO_SMALL: return "the buffer was too small";
    case TELVO_ERROR_INTERNAL: return "a failure inside the library";
    case TELVO_ERROR_INCOMPLETE: return "done, but something was dropped or failed";
    default: return "unknown status";
  }
}

const char* telvo_last_error_message(void) { return lastError.c_str(); }

int telvo_config_create(const char* platform, const char* platform_version, const char* site,
                        const char* app_version, const char* app_name,
                        const char* config_base_url, telvo_config** out) {
  return guarded([&] {
    if (!out) return fail(TELVO_ERROR_NULL_ARGUMENT, "out is null");
    *out = new telvo_config{telvo::TelvoConfig(optionalText(platform),
                                               optionalText(platform_version),
                                               optionalText(site), optionalText(app_version),
                                               optionalText(app_name),
                                               optionalText(config_base_url))};
    return TELVO_OK;
  });
}

int telvo_config_create_from_settings(const char* const* keys, const char* const* values,
                                      size_t count, telvo_config** out) {
  return guarded([&] {
    if (!out) return fail(TELVO_ERROR_NULL_ARGUMENT, "out is null");
    *out = nullptr;
    if (count > 0 && (!keys || !values)) {
      return fail(TELVO_ERROR_NULL_ARGUMENT, "keys or values is null");
    }
    telvo::Json settings = telvo::Json::object();
    for (size_t i = 0; i < count; ++i) {
      if (!keys[i]) return fail(TELVO_ERROR_NULL_ARGUMENT, "key " + std::to_string(i) + " is null");
      settings[keys[i]] = values[i] ? telvo::Json(values[i]) : telvo::Json(nullptr);
    }
    // The reader logs a missing key and gives nothing; the log line is the
    // reason, so it is caught for the caller.
    std::string missing;
    auto config = telvo::TelvoConfig::telvoConfigWithDictionary(settings);
    if (!config) {
      for (const char* key : {"platform", "site", "appVersion", "appName"}) {
        if (!settings.contains(key)) {
          missing = key;
          break;
        }
      }
      return fail(TELVO_ERROR_INVALID_ARGUMENT,
                  "the settings have no value for \"" + missing + "\"");
    }
    *out = new telvo_config{*config};
    return TELVO_OK;
  });
}

int telvo_config_set(telvo_config* config, const char* key, const char* value) {
  return guarded([&] {
    if (!config || !key) return fail(TELVO_ERROR_NULL_ARGUMENT, "config or key is null");
    telvo::TelvoConfig& c = config->config;
    const std::string name = key;
    auto text = optionalText(value);
    if (name == "platform") {
      c.setPlatform(text);
    } else if (name == "platformVersion") {
      c.setPlatformVersion(text);
    } else if (name == "site") {
      c.setSite(text);
    } else if (name == "appVersion") {
      c.setAppVersion(text);
    } else if (name == "appName") {
      c.setAppName(text);
    } else if (name == "configBaseUrl") {
      c.setConfigBaseUrl(text);
    } else if (name == "highPriorityEvents") {
      c.setHighPriorityEvents(text ? std::optional(telvo::configuration::splitEventNames(*text))
                                   : std::nullopt);
    } else if (name == "batchDisabled") {
      if (!text || (*text != "true" && *text != "false")) {
        return fail(TELVO_ERROR_INVALID_ARGUMENT, "batchDisabled takes \"true\" or \"false\"");
      }
      c.setBatchDisabled(*text == "true");
    } else {
      return fail(TELVO_ERROR_INVALID_ARGUMENT, "unknown configuration key \"" + name + "\"");
    }
    return TELVO_OK;
  });
}

void telvo_config_release(telvo_config* config) { delete config; }

int telvo_client_options_init(telvo_client_options* options) {
  if (!options) return fail(TELVO_ERROR_NULL_ARGUMENT, "options is null");
  const telvo::ClientOptions defaults;
  options->max_queued_bytes = defaults.maxQueuedBytes;
  options->max_post_bytes = defaults.maxPostBytes;
  options->max_backlog_bytes = defaults.maxBacklogBytes;
  options->max_pending_error_reports = defaults.maxPendingErrorReports;
  options->retry = defaults.retry ? 1 : 0;
  options->retry_initial_seconds = defaults.retryInitialSeconds;
  options->retry_max_seconds = defaults.retryMaxSeconds;
  options->spool_path = nullptr;
  options->max_spool_bytes = defaults.maxSpoolBytes;
  return TELVO_OK;
}

int telvo_client_create(const telvo_config* config, const char* property,
                        const char* environment, telvo_client** out) {
  return telvo_client_create_with_options(config, property, environment, nullptr, out);
}

int telvo_client_create_with_options(const telvo_config* config, const char* property,
                                     const char* environment, const telvo_client_options* options,
                                     telvo_client** out) {
  return guarded([&] {
    if (!out) return fail(TELVO_ERROR_NULL_ARGUMENT, "out is null");
    *out = nullptr;
    if (!config || !property || !environment) {
      return fail(TELVO_ERROR_NULL_ARGUMENT, "config, property or environment is null");
    }
    telvo::ClientOptions bounds;
    if (options) {
      auto take = [](std::size_t given, std::size_t& field) {
        if (given != 0) field = given;
      };
      take(options->max_queued_bytes, bounds.maxQueuedBytes);
      take(options->max_post_bytes, bounds.maxPostBytes);
      take(options->max_backlog_bytes, bounds.maxBacklogBytes);
      take(options->max_pending_error_reports, bounds.maxPendingErrorReports);
      take(options->max_spool_bytes, bounds.maxSpoolBytes);
      bounds.retry = options->retry != 0;
      for (auto [given, field] : {std::pair{options->retry_initial_seconds, &bounds.retryInitialSeconds},
                                  std::pair{options->retry_max_seconds, &bounds.retryMaxSeconds}}) {
        if (given == 0) continue;
        if (!std::isfinite(given) || given < 0 || given > 86400) {
          return fail(TELVO_ERROR_INVALID_ARGUMENT, "retry seconds must be within 0..86400");
        }
        *field = given;
      }
      if (options->spool_path) bounds.spoolPath = options->spool_path;
    }
    auto handle = std::make_unique<telvo_client>();
    handle->delegate = std::make_shared<CallbackDelegate>(handle.get());
    handle->client = telvo::Telvo::create(std::make_shared<telvo::TelvoConfig>(config->config),
                                          property, environment, telvo::Platform{}, bounds);
    if (!handle->client) {
      if (!telvo::core::creationError().empty()) {
        return fail(TELVO_ERROR_INVALID_ARGUMENT, telvo::core::creationError());
      }
      return fail(TELVO_ERROR_INTERNAL, "the client could not be created");
    }
    handle->client->setDelegate(handle->delegate);
    *out = handle.release();
    return TELVO_OK;
  });
}

int telvo_client_stats(const telvo_client* client, telvo_stats* out) {
  return guarded([&] {
    if (!client || !out) return fail(TELVO_ERROR_NULL_ARGUMENT, "client or out is null");
    const telvo::Stats stats = client->client->stats();
    out->events_accepted = stats.eventsAccepted;
    out->events_refused_not_initialized = stats.eventsRefusedNotInitialized;
    out->events_refused_disabled = stats.eventsRefusedDisabled;
    out->events_refused_throttled = stats.eventsRefusedThrottled;
    out->events_dropped_queue_full = stats.eventsDroppedQueueFull;
    out->events_dropped_too_large = stats.eventsDroppedTooLarge;
    out->events_dropped_backlog = stats.eventsDroppedBacklog;
    out->events_dropped_unwritable = stats.eventsDroppedUnwritable;
    out->events_dropped_refused = stats.eventsDroppedRefused;
    out->events_posted = stats.eventsPosted;
    out->events_failed = stats.eventsFailed;
    out->events_queued = stats.eventsQueued;
    out->errors_accepted = stats.errorsAccepted;
    out->errors_dropped = stats.errorsDropped;
    out->errors_sent = stats.errorsSent;
    out->errors_failed = stats.errorsFailed;
    out->posts_made = stats.postsMade;
    out->posts_failed = stats.postsFailed;
    out->retries = stats.retries;
    out->spooled = stats.spooled;
    out->replayed = stats.replayed;
    out->spool_dropped_oldest = stats.spoolDroppedOldest;
    out->spool_corrupt = stats.spoolCorrupt;
    return TELVO_OK;
  });
}

void telvo_client_release(telvo_client* client) {
  if (!client) return;
  guarded([&] {
    client->delegate->disable();
    delete client;
    return TELVO_OK;
  });
}

int telvo_send_event(telvo_client* client, const char* name, const char* data_json) {
  return guarded([&] {
    if (!client || !name) return fail(TELVO_ERROR_NULL_ARGUMENT, "client or name is null");
    std::optional<telvo::Json> data;
    if (!objectArgument(data_json, "event data", data)) return TELVO_ERROR_INVALID_JSON;
    client->client->sendEvent(name, std::move(data));
    return TELVO_OK;
  });
}

int telvo_send_error(telvo_client* client, const char* code_json, const char* details_json) {
  return guarded([&] {
    if (!client || !code_json) return fail(TELVO_ERROR_NULL_ARGUMENT, "client or code is null");
    auto code = parsed(code_json, "the error code");
    if (!code) return TELVO_ERROR_INVALID_JSON;
    std::optional<telvo::Json> details;
    if (!objectArgument(details_json, "error details", details)) return TELVO_ERROR_INVALID_JSON;
    client->client->sendError(std::move(*code), std::move(details));
    return TELVO_OK;
  });
}

int telvo_send_event_fields(telvo_client* client, const char* name, const telvo_field* fields,
                            size_t count) {
  return guarded([&] {
    if (!client || !name) return fail(TELVO_ERROR_NULL_ARGUMENT, "client or name is null");
    Converted converted;
    if (!toFields(fields, count, converted)) return static_cast<int>(lastStatus);
    client->client->sendEvent(name, converted.fields.data(), converted.fields.size());
    return TELVO_OK;
  });
}

int telvo_send_error_fields(telvo_client* client, const char* code_json, const telvo_field* fields,
                            size_t count) {
  return guarded([&] {
    if (!client || !code_json) return fail(TELVO_ERROR_NULL_ARGUMENT, "client or code is null");
    auto code = parsed(code_json, "the error code");
    if (!code) return TELVO_ERROR_INVALID_JSON;
    Converted converted;
    if (!toFields(fields, count, converted)) return static_cast<int>(lastStatus);
    client->client->sendError(std::move(*code), converted.fields.data(),
                              converted.fields.size());
    return TELVO_OK;
  });
}

int telvo_flush(telvo_client* client, int64_t timeout_ms) {
  return guarded([&] {
    if (!client) return fail(TELVO_ERROR_NULL_ARGUMENT, "client is null");
    const bool delivered = client->client->flush(milliseconds(timeout_ms));
    const telvo::Stats stats = client->client->stats();
    const std::uint64_t lost = stats.eventsDropped() + stats.eventsFailed + stats.errorsDropped +
                               stats.errorsFailed;
    const bool complete = client->lostAtFlush.exchange(lost) == lost;
    if (delivered) return TELVO_OK;
    if (!complete) {
      return fail(TELVO_ERROR_INCOMPLETE,
                  "some events or error reports were dropped or failed (see telvo_client_stats)");
    }
    return fail(TELVO_ERROR_TIMEOUT, "not everything was delivered within " +
                                         std::to_string(timeout_ms) + " ms");
  });
}

int telvo_network_available(telvo_client* client) {
  return guarded([&] {
    if (!client) return fail(TELVO_ERROR_NULL_ARGUMENT, "client is null");
    client->client->networkAvailable();
    return TELVO_OK;
  });
}

int telvo_dump_events(telvo_client* client) {
  return guarded([&] {
    if (!client) return fail(TELVO_ERROR_NULL_ARGUMENT, "client is null");
    client->client->dumpEvents();
    return TELVO_OK;
  });
}

int telvo_client_set_initialized_callback(telvo_client* client,
                                          telvo_initialized_callback callback, void* user_data) {
  return guarded([&] {
    if (!client) return fail(TELVO_ERROR_NULL_ARGUMENT, "client is null");
    client->delegate->set(callback, user_data);
    return TELVO_OK;
  });
}

int telvo_client_set_debug(telvo_client* client, int debug) {
  return guarded([&] {
    if (!client) return fail(TELVO_ERROR_NULL_ARGUMENT, "client is null");
    client->client->setDebug(debug != 0);
    return TELVO_OK;
  });
}

int telvo_client_is_initialized(const telvo_client* client, int* out) {
  return guarded([&] {
    if (!client || !out) return fail(TELVO_ERROR_NULL_ARGUMENT, "client or out is null");
    *out = client->client->isInitialized() ? 1 : 0;
    return TELVO_OK;
  });
}

int telvo_client_is_throttled(const telvo_client* client, int* out) {
  return guarded([&] {
    if (!client || !out) return fail(TELVO_ERROR_NULL_ARGUMENT, "client or out is null");
    *out = client->client->isThrottled() ? 1 : 0;
    return TELVO_OK;
  });
}

int telvo_client_session_id(const telvo_client* client, char* buffer, size_t size,
                            size_t* needed) {
  return guarded([&] {
    if (!client) return fail(TELVO_ERROR_NULL_ARGUMENT, "client is null");
    if (!buffer && size > 0) return fail(TELVO_ERROR_NULL_ARGUMENT, "buffer is null");
    const telvo::Json session = client->client->sessionID();
    const std::string text =
        session.is_string() ? session.get<std::string>() : telvo::encoding::dumpJson(session);
    if (needed) *needed = text.size() + 1;
    if (size == 0) {
      return fail(TELVO_ERROR_BUFFER_TOO_SMALL, "the buffer has no room");
    }
    const size_t copied = std::min(text.size(), size - 1);
    std::memcpy(buffer, text.data(), copied);
    buffer[copied] = '\0';
    if (copied < text.size()) {
      return fail(TELVO_ERROR_BUFFER_TOO_SMALL,
                  "the session id needs " + std::to_string(text.size() + 1) + " bytes");
    }
    return TELVO_OK;
  });
}

void telvo_set_log_sink(telvo_log_sink sink, void* user_data) {
  guarded([&] {
    if (!sink) {
      telvo::setLogSink(nullptr);
    } else {
      telvo::setLogSink([sink, user_data](const std::string& line) { sink(line.c_str(), user_data); });
    }
    return TELVO_OK;
  });
}

int telvo_set_ca_file(const char* path) {
  return guarded([&] {
    auto options = telvo::TelvoTransport::options();
    options.caFile = path ? path : "";
    telvo::TelvoTransport::setOptions(options);
    return TELVO_OK;
  });
}

int telvo_set_timeouts(double connect_seconds, double request_seconds) {
  return guarded([&] {
    for (double seconds : {connect_seconds, request_seconds}) {
      if (!std::isfinite(seconds) || seconds < 0 || seconds > 3600) {
        return fail(TELVO_ERROR_INVALID_ARGUMENT,
                    "a time-out must be a number of seconds within 0..3600");
      }
    }
    auto options = telvo::TelvoTransport::options();
    options.connectTimeout = connect_seconds;
    options.requestTimeout = request_seconds;
    telvo::TelvoTransport::setOptions(options);
    return TELVO_OK;
  });
}

int telvo_shutdown(int64_t timeout_ms) {
  return guarded([&] {
    if (telvo::shutdown(milliseconds(timeout_ms))) return TELVO_OK;
    return fail(TELVO_ERROR_TIMEOUT, "a library thread did not stop within " +
                                         std::to_string(timeout_ms) + " ms");
  });
}

}  // extern "C"
