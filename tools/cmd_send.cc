// `telvo send --config-base URL --app NAME --site NAME --app-version V
//   --platform P --property P --environment E [--high-priority a,b]
//   [--cacert FILE] [--debug] [--event NAME[=JSON]]... [--error CODE[=JSON]]...
//   [--timeout SECONDS] [--retry] [--spool PATH]`:
// drives a real client from the shell. It waits (bounded) until the client is
// initialised, sends the events and then the error reports, flushes, waits for
// every post to complete and exits 0. A client that does not become
// initialised in time is explained (configuration unreachable, reporting
// disabled, no session id) and the command exits 1. With --retry the client
// retries (start-up and posts) and keeps what it is given before it is
// initialised: the events are sent at once, and the command waits, up to
// --timeout in all, until every one is delivered. --spool PATH keeps them on
// disk meanwhile; with no --event or --error it delivers what the spool
// holds.
#include <chrono>
#include <cmath>
#include <future>
#include <iostream>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "command.h"
#include "encoding/json_text.h"
#include "telvo/executor.h"
#include "telvo/log.h"
#include "telvo/telvo.h"
#include "telvo/telvo_config.h"
#include "telvo/telvo_transport.h"
#include "telvo/types.h"

namespace telvo::tool {
namespace {

struct SendOptions {
  std::string configBase, app, site, appVersion, platform, property, environment;
  std::string highPriority;
  CLI::Option* highPriorityOption = nullptr;
  std::string caFile;
  bool debug = false;
  std::vector<std::string> events;
  std::vector<std::string> errors;
  double timeout = 20;
  bool retry = false;
  std::string spool;
};

struct EventArg {
  std::string name;
  std::optional<Json> data;
};

struct ErrorArg {
  Json code;
  std::optional<Json> details;
};

// Splits "NAME[=JSON]"; the JSON, when given, must be an object.
bool splitArgument(const std::string& text, const char* what, std::string* head,
                   std::optional<Json>* object) {
  auto equals = text.find('=');
  *head = text.substr(0, equals);
  if (head->empty()) {
    std::cerr << "telvo send: " << what << " \"" << text << "\" has no name before \"=\"\n";
    return false;
  }
  if (equals == std::string::npos) return true;
  Json value = encoding::parseJson(text.substr(equals + 1));
  if (value.is_discarded() || !value.is_object()) {
    std::cerr << "telvo send: " << what << " \"" << *head
              << "\": the text after \"=\" must be a JSON object\n";
    return false;
  }
  *object = std::move(value);
  return true;
}

// Why a client that was given `seconds` did not become initialised.
std::string whyNotInitialised(const Telvo& client, double seconds) {
  auto config = client.config();
  std::string where = config && config->configURL() ? config->configURL()->absoluteString()
                                                    : std::string("(no configuration location)");
  auto master = client.masterConfig();
  std::string within = " within " + std::to_string(static_cast<long long>(seconds)) + " s";
  if (!master) {
    return "configuration unreachable: no configuration document from " + where + within;
  }
  if (!master->enabled()) {
    return "reporting disabled: the configuration document from " + where + " (environment \"" +
           client.environment() + "\") is not enabled, or could not be read";
  }
  return "no session id: the hello to " + master->servicesUrl().value_or("(no servicesUrl)") +
         master->helloApi().value_or("(no helloApi)") + " was not answered with a session id" +
         within;
}

// --retry: events go at once, before initialisation; error reports once the
// client is initialised; then everything must be delivered within the
// timeout, counted from the start.
int runRetrying(const SendOptions& options, const std::shared_ptr<TelvoConfig>& config,
                const std::vector<EventArg>& events, const std::vector<ErrorArg>& errors) {
  const auto deadline = std::chrono::steady_clock::now() +
                        std::chrono::milliseconds(std::llround(options.timeout * 1000));
  auto left = [&] {
    return std::max(std::chrono::duration_cast<std::chrono::milliseconds>(
                        deadline - std::chrono::steady_clock::now()),
                    std::chrono::milliseconds(0));
  };
  ClientOptions delivery;
  delivery.retry = true;
  delivery.spoolPath = options.spool;
  auto client = config ? Telvo::create(config, options.property, options.environment, Platform{},
                                       delivery)
                       : nullptr;
  if (!client) {
    std::cerr << "telvo send: the client could not be created\n";
    return 1;
  }
  client->setDebug(options.debug);
  try {
    for (const auto& event : events) client->sendEvent(event.name, event.data);
    if (!errors.empty()) {
      while (!client->isInitialized() && left().count() > 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
      }
      for (const auto& error : errors) client->sendError(error.code, error.details);
    }
  } catch (const UsageError& e) {
    std::cerr << "telvo send: " << e.what() << "\n";
    return kExitUsage;
  }
  const bool delivered = client->flush(left());
  const Stats stats = client->stats();
  shutdown(std::chrono::seconds(2));
  std::cout << stats.eventsPosted << " event(s) and " << stats.errorsSent
            << " error report(s) delivered, " << stats.replayed << " from the spool, after "
            << stats.retries << " retries" << std::endl;
  if (!delivered || !client->isInitialized()) {
    std::cerr << "telvo send: not everything was delivered within " << options.timeout
              << " s (" << stats.eventsQueued << " event(s) still waiting, "
              << stats.eventsDropped() + stats.eventsFailed << " dropped or failed)\n";
    return 1;
  }
  return 0;
}

// A day: long enough for any stage, small enough for every clock type.
constexpr double kMaxTimeout = 86400;

int runSend(const SendOptions& options) {
  if (!(options.timeout > 0 && options.timeout <= kMaxTimeout)) {
    std::cerr << "telvo send: --timeout must be a positive number of seconds, at most "
              << kMaxTimeout << "\n";
    return kExitUsage;
  }
  std::vector<EventArg> events;
  for (const auto& text : options.events) {
    EventArg event;
    if (!splitArgument(text, "--event", &event.name, &event.data)) return kExitUsage;
    events.push_back(std::move(event));
  }
  std::vector<ErrorArg> errors;
  for (const auto& text : options.errors) {
    std::string code;
    ErrorArg error;
    if (!splitArgument(text, "--error", &code, &error.details)) return kExitUsage;
    // A code that reads as a JSON number or literal is sent as one ("42"),
    // anything else as text ("E42").
    Json parsed = encoding::parseJson(code);
    error.code = parsed.is_discarded() || parsed.is_structured() ? Json(code) : parsed;
    if (error.code.is_null()) {
      std::cerr << "telvo send: --error needs a code other than null\n";
      return kExitUsage;
    }
    errors.push_back(std::move(error));
  }

  TelvoTransport::Options transport = TelvoTransport::options();
  transport.caFile = options.caFile;
  TelvoTransport::setOptions(transport);

  Json settings{{"platform", options.platform},
                {"site", options.site},
                {"appVersion", options.appVersion},
                {"appName", options.app},
                {"configBaseUrl", options.configBase}};
  if (options.highPriorityOption->count() > 0)
    settings["highPriorityEvents"] = options.highPriority;
  std::shared_ptr<TelvoConfig> config;
  try {
    config = TelvoConfig::telvoConfigWithDictionary(settings);
  } catch (const UsageError& e) {
    std::cerr << "telvo send: " << e.what() << "\n";
    return kExitUsage;
  }
  // A configuration document the library refuses, or a hello it cannot
  // send, is final: the client says why in its log, and the wait ends there.
  auto refusal = std::make_shared<std::pair<std::mutex, std::string>>();
  setLogSink([refusal](const std::string& line) {
    std::cerr << line << "\n";
    if (line.rfind("Telvo: the configuration document cannot be read", 0) == 0 ||
        line.rfind("Telvo: hello not sent", 0) == 0) {
      std::lock_guard<std::mutex> lock(refusal->first);
      if (refusal->second.empty()) refusal->second = line;
    }
  });
  auto refused = [refusal] {
    std::lock_guard<std::mutex> lock(refusal->first);
    return refusal->second;
  };
  if (!options.spool.empty() && !options.retry) {
    std::cerr << "telvo send: --spool needs --retry\n";
    return kExitUsage;
  }
  if (options.retry) return runRetrying(options, config, events, errors);
  auto client = config ? Telvo::create(config, options.property, options.environment) : nullptr;
  if (!client) {
    std::cerr << "telvo send: the client could not be created\n";
    return 1;
  }
  client->setDebug(options.debug);

  using Clock = std::chrono::steady_clock;
  auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                     std::chrono::duration<double>(options.timeout));
  while (!client->isInitialized() && Clock::now() < deadline) {
    // A configuration that disables reporting is final for the client.
    auto master = client->masterConfig();
    if (master && !master->enabled()) break;
    if (!refused().empty()) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  if (!client->isInitialized() && !refused().empty()) {
    std::cerr << "telvo send: not initialised: " << refused() << "\n";
    return 1;
  }
  if (!client->isInitialized()) {
    std::cerr << "telvo send: not initialised: " << whyNotInitialised(*client, options.timeout)
              << "\n";
    return 1;
  }
  std::string session = client->sessionID().dump();
  std::cout << "initialised: session " << session << (client->isThrottled() ? " (throttled)" : "")
            << std::endl;
  if (client->isThrottled() && !events.empty()) {
    std::cerr << "telvo send: the service throttles this client, so its events are dropped "
                 "(error reports are still sent)\n";
  }

  try {
    for (const auto& event : events) client->sendEvent(event.name, event.data);
    for (const auto& error : errors) client->sendError(error.code, error.details);
  } catch (const UsageError& e) {
    std::cerr << "telvo send: " << e.what() << "\n";
    return kExitUsage;
  }
  // Everything accepted leaves, and its posts complete, before the tool stops
  // the library's threads.
  const auto timeout = std::chrono::milliseconds(std::llround(options.timeout * 1000));
  const bool settled = client->flush(timeout);
  shutdown(timeout);
  if (!settled) {
    std::cerr << "telvo send: posts still in flight after " << options.timeout << " s\n";
    return 1;
  }
  std::cout << "sent " << (client->isThrottled() ? 0 : events.size()) << " event(s) and "
            << errors.size() << " error report(s) in session " << session << std::endl;
  return 0;
}

const bool registered = registerCommand(70, [](CLI::App& app) {
  auto* cmd = app.add_subcommand("send", "Drive a real client: send events and errors, then exit");
  auto o = std::make_shared<SendOptions>();
  cmd->add_option("--config-base", o->configBase,
                  "Configuration base URL, e.g. https://127.0.0.1:8443/mdrv/telvo/config/")
      ->required();
  cmd->add_option("--app", o->app, "Application name")->required();
  cmd->add_option("--site", o->site, "Site name")->required();
  cmd->add_option("--app-version", o->appVersion, "Application version")->required();
  cmd->add_option("--platform", o->platform, "Platform name")->required();
  cmd->add_option("--property", o->property, "Reporting property")->required();
  cmd->add_option("--environment", o->environment, "Environment (a section of the document)")
      ->required();
  o->highPriorityOption = cmd->add_option("--high-priority", o->highPriority,
                                          "Comma-separated event names flushed at once");
  cmd->add_option("--cacert", o->caFile, "PEM certificate(s) to trust for HTTPS");
  cmd->add_flag("--debug", o->debug, "Write the client's log lines to standard error");
  cmd->add_option("--event", o->events, "Event NAME or NAME={json object}; repeatable");
  cmd->add_option("--error", o->errors, "Error report CODE or CODE={json details}; repeatable");
  cmd->add_option("--timeout", o->timeout, "Seconds to wait for each stage")->capture_default_str();
  cmd->add_flag("--retry", o->retry,
                "Retry start-up and posts, keep events sent before initialisation, and wait "
                "until all are delivered");
  cmd->add_option("--spool", o->spool, "With --retry: a folder where undelivered events wait on disk");
  return Command{cmd, [o] { return runSend(*o); }};
});

}  // namespace
}  // namespace telvo::tool
