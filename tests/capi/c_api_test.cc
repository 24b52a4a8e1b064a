// The C interface: bad input gives a status and a message and queues
// nothing; a client made through it talks to a real HTTPS service.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <filesystem>
#include <limits>
#include <mutex>
#include <string>
#include <vector>

#include "support/local_service.h"
#include "telvo/telvo_c.h"

namespace {

using telvo::Json;
using telvo::test::LocalService;
using telvo::test::waitFor;

telvo_config* playerConfig(const std::string& base) {
  const char* keys[] = {"platform", "site", "appVersion", "appName", "configBaseUrl"};
  const char* values[] = {"linux", "den", "3.0", "Player", base.c_str()};
  telvo_config* config = nullptr;
  EXPECT_EQ(telvo_config_create_from_settings(keys, values, 5, &config), TELVO_OK)
      << telvo_last_error_message();
  return config;
}

TEST(CApi, NullHandlesAndBadArgumentsGiveAStatusAndAMessage) {
  int flag = 0;
  char buffer[8];
  EXPECT_EQ(telvo_send_event(nullptr, "x", nullptr), TELVO_ERROR_NULL_ARGUMENT);
  EXPECT_STRNE(telvo_last_error_message(), "");
  EXPECT_EQ(telvo_send_error(nullptr, "1", nullptr), TELVO_ERROR_NULL_ARGUMENT);
  EXPECT_EQ(telvo_flush(nullptr, 10), TELVO_ERROR_NULL_ARGUMENT);
  EXPECT_EQ(telvo_dump_events(nullptr), TELVO_ERROR_NULL_ARGUMENT);
  EXPECT_EQ(telvo_client_is_initialized(nullptr, &flag), TELVO_ERROR_NULL_ARGUMENT);
  EXPECT_EQ(telvo_client_is_throttled(nullptr, &flag), TELVO_ERROR_NULL_ARGUMENT);
  EXPECT_EQ(telvo_client_session_id(nullptr, buffer, sizeof buffer, nullptr),
            TELVO_ERROR_NULL_ARGUMENT);
  EXPECT_EQ(telvo_client_set_initialized_callback(nullptr, nullptr, nullptr),
            TELVO_ERROR_NULL_ARGUMENT);
  EXPECT_EQ(telvo_client_set_debug(nullptr, 1), TELVO_ERROR_NULL_ARGUMENT);
  EXPECT_EQ(telvo_config_set(nullptr, "site", "x"), TELVO_ERROR_NULL_ARGUMENT);
  EXPECT_EQ(telvo_config_create("linux", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
            TELVO_ERROR_NULL_ARGUMENT);
  telvo_client* client = nullptr;
  EXPECT_EQ(telvo_client_create(nullptr, "p", "e", &client), TELVO_ERROR_NULL_ARGUMENT);
  EXPECT_EQ(client, nullptr);
  telvo_client_release(nullptr);
  telvo_config_release(nullptr);

  // A successful call clears the message.
  EXPECT_EQ(telvo_set_timeouts(0, 0), TELVO_OK);
  EXPECT_STREQ(telvo_last_error_message(), "");
  for (double bad : {-1.0, 3601.0, std::nan(""), std::numeric_limits<double>::infinity()}) {
    EXPECT_EQ(telvo_set_timeouts(bad, 0), TELVO_ERROR_INVALID_ARGUMENT) << bad;
    EXPECT_EQ(telvo_set_timeouts(0, bad), TELVO_ERROR_INVALID_ARGUMENT) << bad;
  }

  telvo_config* config = nullptr;
  ASSERT_EQ(telvo_config_create(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &config),
            TELVO_OK);
  EXPECT_EQ(telvo_config_set(config, "colour", "blue"), TELVO_ERROR_INVALID_ARGUMENT);
  EXPECT_NE(std::string(telvo_last_error_message()).find("colour"), std::string::npos);
  EXPECT_EQ(telvo_config_set(config, "batchDisabled", "yes"), TELVO_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(telvo_config_set(config, "batchDisabled", "true"), TELVO_OK);
  EXPECT_EQ(telvo_config_set(config, "site", nullptr), TELVO_OK);
  telvo_config_release(config);

  // Settings without appName: refused, naming it.
  const char* keys[] = {"platform", "site", "appVersion"};
  const char* values[] = {"linux", "den", "1"};
  config = reinterpret_cast<telvo_config*>(&flag);
  EXPECT_EQ(telvo_config_create_from_settings(keys, values, 3, &config),
            TELVO_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(config, nullptr);
  EXPECT_NE(std::string(telvo_last_error_message()).find("appName"), std::string::npos);
  EXPECT_EQ(telvo_config_create_from_settings(nullptr, values, 3, &config),
            TELVO_ERROR_NULL_ARGUMENT);
  EXPECT_STREQ(telvo_status_message(TELVO_ERROR_TIMEOUT), "the deadline passed");
  EXPECT_STREQ(telvo_status_message(12345), "unknown status");
}

struct Seen {
  std::mutex mutex;
  std::vector<std::string> lines;
};

TEST(CApi, AClientMadeThroughItDeliversToTheService) {
  LocalService service;
  ASSERT_EQ(telvo_set_ca_file(service.caFile().c_str()), TELVO_OK);
  ASSERT_EQ(telvo_set_timeouts(5, 10), TELVO_OK);
  Seen seen;
  telvo_set_log_sink(
      [](const char* line, void* user) {
        auto* s = static_cast<Seen*>(user);
        std::lock_guard<std::mutex> lock(s->mutex);
        s->lines.emplace_back(line);
      },
      &seen);

  telvo_config* config = playerConfig(service.server().url("/config/"));
  telvo_client* client = nullptr;
  ASSERT_EQ(telvo_client_create(config, "web", "prod", &client), TELVO_OK);
  telvo_config_release(config);  // the client has its own copy
  ASSERT_TRUE(waitFor([&] {
    int initialised = 0;
    telvo_client_is_initialized(client, &initialised);
    return initialised == 1;
  }));
  int throttled = -1;
  EXPECT_EQ(telvo_client_is_throttled(client, &throttled), TELVO_OK);
  EXPECT_EQ(throttled, 0);

  char small[3];
  size_t needed = 0;
  EXPECT_EQ(telvo_client_session_id(client, small, sizeof small, &needed),
            TELVO_ERROR_BUFFER_TOO_SMALL);
  EXPECT_STREQ(small, "S-");
  EXPECT_EQ(needed, 4u);
  char session[16];
  EXPECT_EQ(telvo_client_session_id(client, session, sizeof session, nullptr), TELVO_OK);
  EXPECT_STREQ(session, "S-1");

  EXPECT_EQ(telvo_client_set_debug(client, 1), TELVO_OK);
  EXPECT_EQ(telvo_send_event(client, "play", R"({"title":"Intro","position":12})"), TELVO_OK);
  EXPECT_EQ(telvo_send_event(client, "bare", nullptr), TELVO_OK);
  // Bad data: a status, a message, nothing queued.
  const std::string deep = std::string(200, '[') + std::string(200, ']');
  for (const char* bad : {"{", "[1,2]", "\"text\"", "{\"a\":1} trailing", deep.c_str()}) {
    EXPECT_EQ(telvo_send_event(client, "bad", bad), TELVO_ERROR_INVALID_JSON) << bad;
    EXPECT_STRNE(telvo_last_error_message(), "");
  }
  EXPECT_EQ(telvo_send_error(client, "null", nullptr), TELVO_OK);  // "errorCode": null
  EXPECT_EQ(telvo_send_error(client, "\"E1\"", "[]"), TELVO_ERROR_INVALID_JSON);
  EXPECT_EQ(telvo_send_error(client, "not json", nullptr), TELVO_ERROR_INVALID_JSON);
  EXPECT_EQ(telvo_send_error(client, "\"E42\"", R"({"where":"player"})"), TELVO_OK);

  // The flat form: every kind of field, and bad fields refused whole.
  const telvo_field fields[] = {
      {"title", TELVO_FIELD_TEXT, "Intro", 0, 0},
      {"position", TELVO_FIELD_INTEGER, nullptr, -12, 0},
      {"bitrate", TELVO_FIELD_NUMBER, nullptr, 0, 4.5},
      {"live", TELVO_FIELD_BOOL, nullptr, 2, 0},
      {"cdn", TELVO_FIELD_NULL, nullptr, 0, 0},
      {"tags", TELVO_FIELD_JSON, R"(["a",{"b":1}])", 0, 0},
      {"title", TELVO_FIELD_TEXT, "ignored: the first of a key counts", 0, 0},
  };
  EXPECT_EQ(telvo_send_event_fields(client, "flat", fields, 7), TELVO_OK);
  EXPECT_EQ(telvo_send_event_fields(client, "flat", nullptr, 0), TELVO_OK);  // no data
  const telvo_field badFields[][2] = {
      {{"ok", TELVO_FIELD_INTEGER, nullptr, 1, 0}, {nullptr, TELVO_FIELD_NULL, nullptr, 0, 0}},
      {{"ok", TELVO_FIELD_INTEGER, nullptr, 1, 0}, {"n", TELVO_FIELD_NUMBER, nullptr, 0, NAN}},
      {{"ok", TELVO_FIELD_INTEGER, nullptr, 1, 0}, {"j", TELVO_FIELD_JSON, "{\"a\":", 0, 0}},
      {{"ok", TELVO_FIELD_INTEGER, nullptr, 1, 0}, {"j", TELVO_FIELD_JSON, nullptr, 0, 0}},
      {{"ok", TELVO_FIELD_INTEGER, nullptr, 1, 0}, {"t", 99, nullptr, 0, 0}},
  };
  for (const auto& bad : badFields) {
    EXPECT_NE(telvo_send_event_fields(client, "bad", bad, 2), TELVO_OK) << bad[1].type;
    EXPECT_STRNE(telvo_last_error_message(), "");
    EXPECT_NE(telvo_send_error_fields(client, "1", bad, 2), TELVO_OK);
  }
  EXPECT_EQ(telvo_send_event_fields(client, "bad", nullptr, 1), TELVO_ERROR_NULL_ARGUMENT);
  EXPECT_EQ(telvo_send_error_fields(client, "7", fields, 2), TELVO_OK);
  ASSERT_EQ(telvo_flush(client, 10000), TELVO_OK) << telvo_last_error_message();

  const Json events = service.postedEvents();
  ASSERT_EQ(events.size(), 4u) << events.dump();
  Json flat = events[2]["eventData"];
  EXPECT_TRUE(flat["timestamp"].is_number_integer());
  flat.erase("timestamp");
  EXPECT_EQ(flat, Json::parse(R"({"title":"Intro","position":-12,"bitrate":4.5,"live":true,
                                  "cdn":null,"tags":["a",{"b":1}]})"));
  EXPECT_EQ(events[3]["eventData"], (Json{{"applicationName", "Player"}}));
  EXPECT_EQ(events[0]["eventType"], "play");
  EXPECT_EQ(events[0]["eventData"]["title"], "Intro");
  EXPECT_EQ(events[0]["eventData"]["position"], 12);
  EXPECT_EQ(events[1]["eventData"], (Json{{"applicationName", "Player"}}));
  EXPECT_EQ(service.errorPosts(), 3u);
  {
    std::lock_guard<std::mutex> lock(seen.mutex);
    EXPECT_FALSE(seen.lines.empty());  // debug lines reached the sink
  }

  telvo_stats stats;
  EXPECT_EQ(telvo_client_stats(nullptr, &stats), TELVO_ERROR_NULL_ARGUMENT);
  ASSERT_EQ(telvo_client_stats(client, &stats), TELVO_OK);
  EXPECT_EQ(stats.events_accepted, 4u);
  EXPECT_EQ(stats.events_posted, 4u);
  EXPECT_EQ(stats.events_queued, 0u);
  EXPECT_EQ(stats.errors_sent, 3u);
  EXPECT_EQ(stats.posts_made, 1u);

  // A client with a small queue: what its bound drops makes the flush
  // incomplete, and the counters say how much.
  telvo_client_options options;
  ASSERT_EQ(telvo_client_options_init(&options), TELVO_OK);
  EXPECT_EQ(options.max_post_bytes, 4u << 20);
  options.max_queued_bytes = 2048;
  options.max_post_bytes = 0;  // the default
  telvo_config* boundedConfig = playerConfig(service.server().url("/config/"));
  telvo_client* bounded = nullptr;
  ASSERT_EQ(telvo_client_create_with_options(boundedConfig, "web", "prod", &options, &bounded),
            TELVO_OK);
  telvo_config_release(boundedConfig);
  ASSERT_TRUE(waitFor([&] {
    int initialised = 0;
    telvo_client_is_initialized(bounded, &initialised);
    return initialised == 1;
  }));
  for (int i = 0; i < 100; ++i) telvo_send_event(bounded, "e", R"({"pad":"0123456789"})");
  EXPECT_EQ(telvo_flush(bounded, 10000), TELVO_ERROR_INCOMPLETE);
  ASSERT_EQ(telvo_client_stats(bounded, &stats), TELVO_OK);
  EXPECT_GT(stats.events_dropped_queue_full, 0u);
  EXPECT_EQ(stats.events_posted + stats.events_dropped_queue_full, 100u);
  EXPECT_EQ(telvo_flush(bounded, 10000), TELVO_OK);  // nothing lost since
  telvo_client_release(bounded);

  // A service that never answers: the flush says so in time.
  service.hold();
  EXPECT_EQ(telvo_send_event(client, "stuck", "{}"), TELVO_OK);
  EXPECT_EQ(telvo_flush(client, 200), TELVO_ERROR_TIMEOUT);
  service.release();

  telvo_client_release(client);
  EXPECT_EQ(telvo_shutdown(3000), TELVO_OK);
  telvo_set_log_sink(nullptr, nullptr);
}

TEST(CApi, TheRetryingDeliveryAndItsSpoolAreOptionsToo) {
  char folder[] = "/tmp/telvo-capi-spool-XXXXXX";
  ASSERT_NE(mkdtemp(folder), nullptr);
  const std::string spool = std::string(folder) + "/spool";
  telvo_config* config = playerConfig("https://127.0.0.1:1/config/");  // nothing listens
  telvo_client_options options;
  ASSERT_EQ(telvo_client_options_init(&options), TELVO_OK);
  EXPECT_EQ(options.retry, 0);
  options.retry = 1;
  options.spool_path = spool.c_str();
  options.retry_initial_seconds = -1;
  telvo_client* client = nullptr;
  EXPECT_EQ(telvo_client_create_with_options(config, "web", "prod", &options, &client),
            TELVO_ERROR_INVALID_ARGUMENT);
  options.retry_initial_seconds = 0;  // the default
  ASSERT_EQ(telvo_client_create_with_options(config, "web", "prod", &options, &client), TELVO_OK);
  // Kept before initialisation, as the retrying delivery does.
  EXPECT_EQ(telvo_send_event(client, "boot", "{}"), TELVO_OK);
  telvo_stats stats;
  ASSERT_EQ(telvo_client_stats(client, &stats), TELVO_OK);
  EXPECT_EQ(stats.events_accepted, 1u);
  EXPECT_EQ(telvo_network_available(client), TELVO_OK);
  // The folder is this client's: a second one is refused, saying why.
  telvo_client* second = nullptr;
  EXPECT_EQ(telvo_client_create_with_options(config, "web", "prod", &options, &second),
            TELVO_ERROR_INVALID_ARGUMENT);
  EXPECT_NE(std::string(telvo_last_error_message()).find(spool), std::string::npos)
      << telvo_last_error_message();
  telvo_client_release(client);
  telvo_config_release(config);
  std::filesystem::remove_all(folder);
}

TEST(CApi, TheInitialisedCallbackRunsOnceWithItsClientAndUserData) {
  LocalService service;
  ASSERT_EQ(telvo_set_ca_file(service.caFile().c_str()), TELVO_OK);
  telvo_config* config = nullptr;
  ASSERT_EQ(telvo_config_create("linux", "12", "den", "3.0", "Player",
                                service.server().url("/config/").c_str(), &config),
            TELVO_OK);
  service.hold();  // the hello waits until the callback is in place
  telvo_client* client = nullptr;
  ASSERT_EQ(telvo_client_create(config, "web", "prod", &client), TELVO_OK);
  telvo_config_release(config);
  struct Calls {
    std::atomic<int> count{0};
    std::atomic<telvo_client*> client{nullptr};
  } calls;
  ASSERT_EQ(telvo_client_set_initialized_callback(
                client,
                [](telvo_client* c, void* user) {
                  auto* calls = static_cast<Calls*>(user);
                  calls->client = c;
                  ++calls->count;
                },
                &calls),
            TELVO_OK);
  service.release();
  ASSERT_TRUE(waitFor([&] { return calls.count.load() > 0; }));
  EXPECT_EQ(calls.client.load(), client);
  telvo_client_release(client);
  EXPECT_EQ(calls.count.load(), 1);
  // Closes the shared transport's connections before the service stops.
  EXPECT_EQ(telvo_shutdown(3000), TELVO_OK);
}

}  // namespace
