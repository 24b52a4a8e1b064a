/* A small host written in C: one client, a few events and an error report,
 * a flush before exit, through the C interface only.
 *
 *   telvo_example_host_c --config-base https://127.0.0.1:8443/mdrv/telvo/config/
 *                        --app demo --site lab --cacert ca.pem [--timeout 20]
 */
#define _POSIX_C_SOURCE 200809L

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <telvo/telvo_c.h>

static int check(int status, const char* what) {
  if (status != TELVO_OK) {
    fprintf(stderr, "host.c: error: %s: %s (%s)\n", what, telvo_status_message(status),
            telvo_last_error_message());
  }
  return status == TELVO_OK;
}

static void on_initialized(telvo_client* client, void* user_data) {
  (void)client;
  fprintf(stdout, "host.c: %s initialised\n", (const char*)user_data);
  fflush(stdout);
}

static void sleep_ms(long ms) {
  struct timespec pause = {ms / 1000, (ms % 1000) * 1000000L};
  nanosleep(&pause, NULL);
}

int main(int argc, char** argv) {
  const char* config_base = NULL;
  const char* app = "demo";
  const char* site = "lab";
  const char* ca_file = NULL;
  double timeout = 20;
  for (int i = 1; i < argc; ++i) {
    const char* value = i + 1 < argc ? argv[i + 1] : NULL;
    if (value && strcmp(argv[i], "--config-base") == 0) {
      config_base = value;
    } else if (value && strcmp(argv[i], "--app") == 0) {
      app = value;
    } else if (value && strcmp(argv[i], "--site") == 0) {
      site = value;
    } else if (value && strcmp(argv[i], "--cacert") == 0) {
      ca_file = value;
    } else if (value && strcmp(argv[i], "--timeout") == 0) {
      char* end = NULL;
      timeout = strtod(value, &end);
      if (end == value || *end != '\0' || !(timeout > 0) || timeout > 3600) timeout = -1;
    } else {
      timeout = -1;
    }
    if (timeout < 0) {
      fprintf(stderr,
              "usage: %s [--config-base URL] [--app NAME] [--site NAME] [--cacert FILE] "
              "[--timeout SECONDS (at most 3600)]\n",
              argv[0]);
      return 2;
    }
    ++i;
  }
  const long wait_ms = (long)(timeout * 1000);

  if (ca_file && !check(telvo_set_ca_file(ca_file), "CA file")) return 1;
  telvo_config* config = NULL;
  if (!check(telvo_config_create("linux", "1", site, "1.0", app, config_base, &config),
             "configuration")) {
    return 1;
  }
  telvo_client* client = NULL;
  int ok = check(telvo_client_create(config, "example-c", "count", &client), "client");
  telvo_config_release(config);
  if (!ok) return 1;
  check(telvo_client_set_initialized_callback(client, on_initialized, "client \"count\""),
        "callback");

  int initialised = 0;
  for (long waited = 0; waited < wait_ms && !initialised; waited += 20) {
    telvo_client_is_initialized(client, &initialised);
    if (!initialised) sleep_ms(20);
  }
  if (!initialised) {
    fprintf(stderr, "host.c: error: the client did not become initialised in %g s\n", timeout);
    telvo_client_release(client);
    return 1;
  }
  char session[128];
  size_t needed = 0;
  if (telvo_client_session_id(client, session, sizeof session, &needed) == TELVO_OK) {
    printf("host.c: session %s\n", session);
  }

  /* Event data as flat fields (the cheap path) or as JSON text. */
  const telvo_field start[] = {
      {"language", TELVO_FIELD_TEXT, "C", 0, 0},
      {"attempt", TELVO_FIELD_INTEGER, NULL, 1, 0},
      {"details", TELVO_FIELD_JSON, "{\"compiler\":\"cc\"}", 0, 0},
  };
  ok = check(telvo_send_event_fields(client, "c_start", start, 3), "event") &&
       check(telvo_send_event(client, "c_tick", "{\"tick\":1}"), "event") &&
       check(telvo_send_error(client, "\"C42\"", "{\"where\":\"host.c\"}"), "error report");
  /* Bad JSON is refused on the spot, and nothing is queued for it. */
  if (telvo_send_event(client, "c_broken", "{\"unterminated\":") != TELVO_ERROR_INVALID_JSON) {
    fprintf(stderr, "host.c: error: broken JSON was accepted\n");
    ok = 0;
  }
  ok = ok && check(telvo_flush(client, wait_ms), "flush");
  if (ok) printf("host.c: flushed: 2 events and 1 error report delivered\n");
  telvo_stats stats;
  if (check(telvo_client_stats(client, &stats), "stats")) {
    printf("host.c: %llu events accepted, %llu posted, %llu error reports sent\n",
           (unsigned long long)stats.events_accepted, (unsigned long long)stats.events_posted,
           (unsigned long long)stats.errors_sent);
  }

  telvo_client_release(client);
  check(telvo_shutdown(2000), "shutdown");
  return ok ? 0 : 1;
}
