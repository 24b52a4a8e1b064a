/* What one client costs in resident memory: the process's VmRSS before any
 * client, with one ready client, and with a second one beside it (the
 * second figure leaves out what the first pays once: the library's code
 * pages, the shared transport, TLS set-up). Built against an installed
 * library with its pkg-config file, on any architecture:
 *
 *   client_rss --config-base URL --app NAME --site NAME --cacert FILE
 *
 * Prints one line: "rss_kib before=N one_client=N two_clients=N". */
#define _POSIX_C_SOURCE 200809L

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <telvo/telvo_c.h>

static long rss_kib(void) {
  FILE* status = fopen("/proc/self/status", "r");
  if (!status) return -1;
  char line[256];
  long kib = -1;
  while (fgets(line, sizeof line, status)) {
    if (strncmp(line, "VmRSS:", 6) == 0) {
      char* end = NULL;
      kib = strtol(line + 6, &end, 10);
      if (end == line + 6) kib = -1;
      break;
    }
  }
  fclose(status);
  return kib;
}

static void sleep_ms(long ms) {
  struct timespec pause = {ms / 1000, (ms % 1000) * 1000000L};
  nanosleep(&pause, NULL);
}

/* A ready client (initialised, one event sent and flushed), or NULL. */
static telvo_client* ready_client(telvo_config* config, const char* property) {
  telvo_client* client = NULL;
  if (telvo_client_create(config, property, "rss", &client) != TELVO_OK) return NULL;
  int initialised = 0;
  for (int waited = 0; waited < 30000 && !initialised; waited += 20) {
    telvo_client_is_initialized(client, &initialised);
    if (!initialised) sleep_ms(20);
  }
  if (!initialised || telvo_send_event(client, "rss_probe", "{\"n\":1}") != TELVO_OK ||
      telvo_flush(client, 30000) != TELVO_OK) {
    telvo_client_release(client);
    return NULL;
  }
  return client;
}

int main(int argc, char** argv) {
  const char* config_base = NULL;
  const char* app = "demo";
  const char* site = "lab";
  const char* ca_file = NULL;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (strcmp(argv[i], "--config-base") == 0) config_base = argv[i + 1];
    else if (strcmp(argv[i], "--app") == 0) app = argv[i + 1];
    else if (strcmp(argv[i], "--site") == 0) site = argv[i + 1];
    else if (strcmp(argv[i], "--cacert") == 0) ca_file = argv[i + 1];
    else {
      fprintf(stderr, "usage: %s --config-base URL [--app NAME] [--site NAME] [--cacert FILE]\n",
              argv[0]);
      return 2;
    }
  }
  if (!config_base || (ca_file && telvo_set_ca_file(ca_file) != TELVO_OK)) {
    fprintf(stderr, "client_rss: a configuration base (and a readable CA file) are needed\n");
    return 2;
  }
  telvo_config* config = NULL;
  if (telvo_config_create("linux", "1", site, "1.0", app, config_base, &config) != TELVO_OK) {
    fprintf(stderr, "client_rss: %s\n", telvo_last_error_message());
    return 1;
  }
  const long before = rss_kib();
  telvo_client* first = ready_client(config, "rss-1");
  const long one = rss_kib();
  telvo_client* second = first ? ready_client(config, "rss-2") : NULL;
  const long two = rss_kib();
  telvo_config_release(config);
  if (!first || !second) {
    fprintf(stderr, "client_rss: a client did not become ready\n");
    return 1;
  }
  printf("rss_kib before=%ld one_client=%ld two_clients=%ld\n", before, one, two);
  telvo_client_release(second);
  telvo_client_release(first);
  return 0;
}
