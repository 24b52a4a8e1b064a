/* The C interface of the Telvo analytics client, for hosts written in C and
 * for bindings from other languages.
 *
 *   telvo_config* config = NULL;
 *   telvo_config_create("linux", "12", "lab", "1.0", "demo", NULL, &config);
 *   telvo_client* client = NULL;
 *   if (telvo_client_create(config, "property", "production", &client) != TELVO_OK) {
 *     fprintf(stderr, "%s\n", telvo_last_error_message());
 *   }
 *   telvo_config_release(config);           (the client keeps its own copy)
 *   telvo_send_event(client, "play", "{\"title\":\"Intro\"}");
 *   telvo_flush(client, 5000);              (before the host exits)
 *   telvo_client_release(client);
 *   telvo_shutdown(2000);
 *
 * Every function returns at once unless it says it waits, may be called from
 * any thread, accepts null handles (answering TELVO_ERROR_NULL_ARGUMENT, or
 * doing nothing where it returns nothing) and never lets a C++ exception
 * out. A function that fails returns a status other than TELVO_OK and leaves
 * a message for the calling thread (telvo_last_error_message). Texts are
 * UTF-8 and NUL-terminated; JSON texts are checked before anything is
 * queued. The client behaves as the C++ Telvo class does (telvo/telvo.h):
 * events are accepted only once it is initialised, enabled and not
 * throttled, and are otherwise dropped silently, so TELVO_OK means "accepted
 * or silently refused", not "queued" (telvo_client_stats counts both).
 *
 * Undefined behaviour, as in any C library, and not detected: releasing a
 * handle twice; using a handle after releasing it (from any thread, the
 * client's own callback included); a `count` larger than the array it
 * describes, or keys and values arrays shorter than `count`; texts that are
 * not NUL-terminated; a buffer shorter than the `size` given for it;
 * releasing a client while another thread is still calling it. */
#ifndef TELVO_TELVO_C_H
#define TELVO_TELVO_C_H

#include <stddef.h>
#include <stdint.h>

#include "telvo/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Status codes. */
#define TELVO_OK 0
#define TELVO_ERROR_NULL_ARGUMENT 1    /* a handle or a required pointer was null */
#define TELVO_ERROR_INVALID_ARGUMENT 2 /* an unknown key, a value out of range */
#define TELVO_ERROR_INVALID_JSON 3     /* JSON text that does not parse or has the wrong type */
#define TELVO_ERROR_TIMEOUT 4          /* the deadline passed first */
#define TELVO_ERROR_BUFFER_TOO_SMALL 5 /* the text did not fit; see the size written back */
#define TELVO_ERROR_INTERNAL 6         /* out of memory, or a failure inside the library */
#define TELVO_ERROR_INCOMPLETE 7       /* done, but something was dropped or failed */

typedef struct telvo_config telvo_config;
typedef struct telvo_client telvo_client;

/* A fixed text naming `status`, never null ("unknown status" for others). */
TELVO_API const char* telvo_status_message(int status);
/* What went wrong in the calling thread's last failing call ("" when none). The
 * text stays valid until the thread's next call into the library. */
TELVO_API const char* telvo_last_error_message(void);

/* --- Configuration: how the host describes itself. */

/* A configuration with these six settings; a null argument leaves the setting
 * unset. */
TELVO_API int telvo_config_create(const char* platform, const char* platform_version,
                                  const char* site, const char* app_version,
                                  const char* app_name, const char* config_base_url,
                                  telvo_config** out);
/* A configuration from `count` key/value settings, read as the C++
 * TelvoConfig::telvoConfigWithDictionary reads a dictionary of texts:
 * "platform", "site", "appVersion" and "appName" are required,
 * "configBaseUrl" defaults to the library's base, "highPriorityEvents" is a
 * comma-separated list, the platform version comes from the device. A null
 * value stands for a JSON null. A missing required key gives
 * TELVO_ERROR_INVALID_ARGUMENT naming it. */
TELVO_API int telvo_config_create_from_settings(const char* const* keys,
                                                const char* const* values, size_t count,
                                                telvo_config** out);
/* Sets one setting: "platform", "platformVersion", "site", "appVersion",
 * "appName", "configBaseUrl", "highPriorityEvents" (comma-separated) or
 * "batchDisabled" ("true"/"false"). A null value unsets it. */
TELVO_API int telvo_config_set(telvo_config* config, const char* key, const char* value);
TELVO_API void telvo_config_release(telvo_config* config);

/* --- Clients. */

/* A client for `property` in `environment`, with a copy of `config`: the
 * configuration may be changed or released afterwards. It starts fetching the
 * configuration document at once. */
TELVO_API int telvo_client_create(const telvo_config* config, const char* property,
                                  const char* environment, telvo_client** out);
/* Bounds of one client (see telvo/client_options.h for what each bounds and
 * what is dropped beyond it). A field left 0 keeps its default. */
typedef struct telvo_client_options {
  size_t max_queued_bytes;          /* default 8 MiB */
  size_t max_post_bytes;            /* default 4 MiB */
  size_t max_backlog_bytes;         /* default 8 MiB */
  size_t max_pending_error_reports; /* default 1000 */
  /* The retrying delivery (see telvo/client_options.h): 1 on, 0 off (the
   * default). The backoff's first ceiling and cap in seconds (0: 1 and 300),
   * a folder for the disk spool (null: none) and its bound (0: 16 MiB). */
  int retry;
  double retry_initial_seconds;
  double retry_max_seconds;
  const char* spool_path;
  size_t max_spool_bytes;
} telvo_client_options;
/* Fills `options` with the defaults. */
TELVO_API int telvo_client_options_init(telvo_client_options* options);
/* telvo_client_create with bounds and the delivery mode; null `options` is
 * the defaults. A spool folder that another process holds gives
 * TELVO_ERROR_INVALID_ARGUMENT with the reason. */
TELVO_API int telvo_client_create_with_options(const telvo_config* config, const char* property,
                                               const char* environment,
                                               const telvo_client_options* options,
                                               telvo_client** out);

/* Releases the host's client. Queued events not yet flushed are lost; call
 * telvo_flush first. After it returns, the initialised callback is not called
 * again. Do not release a client from inside its own callback. */
TELVO_API void telvo_client_release(telvo_client* client);

/* Queues one event. `data_json` is a JSON object text, or null for no data.
 * Data that does not parse, is nested more than 128 levels deep or is not
 * an object gives TELVO_ERROR_INVALID_JSON and nothing is queued. */
TELVO_API int telvo_send_event(telvo_client* client, const char* name, const char* data_json);
/* One member of event data or error details, for the flat form below:
 * `key` and a value of the kind `type` names. Nothing is copied before the
 * call returns. */
#define TELVO_FIELD_TEXT 0    /* `text` (UTF-8; a null `text` is written as null) */
#define TELVO_FIELD_INTEGER 1 /* `integer` */
#define TELVO_FIELD_NUMBER 2  /* `number`, which must be finite */
#define TELVO_FIELD_BOOL 3    /* `integer`: 0 is false, anything else true */
#define TELVO_FIELD_NULL 4
#define TELVO_FIELD_JSON 5    /* `text` holds JSON text (checked, at most 128 levels deep) */
typedef struct telvo_field {
  const char* key;
  int type;
  const char* text;
  int64_t integer;
  double number;
} telvo_field;

/* Queues one event whose data is `count` fields, written straight into the
 * queued text without building a JSON tree: the cheap path. `count` 0 (and
 * `fields` null) is no data. The rules are those of telvo_send_event (the
 * first of repeated keys counts, keys compared as written, with ill-formed
 * UTF-8 replaced; the client's "timestamp" wins). A field
 * with a null key, an unknown type, a number that is not finite or JSON text
 * that does not parse gives an error status and queues nothing. */
TELVO_API int telvo_send_event_fields(telvo_client* client, const char* name,
                                      const telvo_field* fields, size_t count);
/* An error report whose details are `count` fields. */
TELVO_API int telvo_send_error_fields(telvo_client* client, const char* code_json,
                                      const telvo_field* fields, size_t count);

/* Posts one error report at once. `code_json` is the error code as JSON text
 * ("42", "\"E42\"", "null"), sent as it is; `details_json` a JSON object
 * text or null. */
TELVO_API int telvo_send_error(telvo_client* client, const char* code_json,
                               const char* details_json);
/* Waits up to `timeout_ms` until every event and error report accepted
 * before the call has been sent and answered (or has failed): TELVO_OK when
 * all were delivered and nothing was dropped by a bound or lost in a failed
 * post since the previous flush; TELVO_ERROR_TIMEOUT when the deadline came
 * first; TELVO_ERROR_INCOMPLETE when something was lost (telvo_client_stats
 * says what). Never call it from the initialised callback. */
TELVO_API int telvo_flush(telvo_client* client, int64_t timeout_ms);
/* With the retrying delivery: the network is back; what waits for a retry
 * goes at once. */
TELVO_API int telvo_network_available(telvo_client* client);
/* Starts a flush without waiting. */
TELVO_API int telvo_dump_events(telvo_client* client);

/* Called once the service's hello answer has initialised the client, on the
 * library's network thread: return quickly. Not called for a client that is
 * already initialised when it is set (read telvo_client_is_initialized). A
 * null `callback` removes it. */
typedef void (*telvo_initialized_callback)(telvo_client* client, void* user_data);
TELVO_API int telvo_client_set_initialized_callback(telvo_client* client,
                                                    telvo_initialized_callback callback,
                                                    void* user_data);
/* Debug lines from this client go to the log sink while set. */
TELVO_API int telvo_client_set_debug(telvo_client* client, int debug);

/* State: 1 or 0 in `*out`. */
TELVO_API int telvo_client_is_initialized(const telvo_client* client, int* out);
TELVO_API int telvo_client_is_throttled(const telvo_client* client, int* out);
/* The session id the hello answer gave: its text when it is a JSON string,
 * else its JSON text; "" before the client is initialised. Writes at most
 * `size` bytes including the terminating NUL; `*needed` (when not null)
 * receives the size the whole text needs, NUL included. A buffer that is too
 * small gets TELVO_ERROR_BUFFER_TOO_SMALL and as much as fits. */
TELVO_API int telvo_client_session_id(const telvo_client* client, char* buffer, size_t size,
                                      size_t* needed);

/* What became of the events and error reports handed to the client so far
 * (the C++ telvo::Stats, field by field). Once the client is quiet (after
 * telvo_flush), events_accepted == events_posted + the five events_dropped_
 * counters + events_failed + events_queued. */
typedef struct telvo_stats {
  uint64_t events_accepted;
  uint64_t events_refused_not_initialized;
  uint64_t events_refused_disabled;
  uint64_t events_refused_throttled;
  uint64_t events_dropped_queue_full;
  uint64_t events_dropped_too_large;
  uint64_t events_dropped_backlog;
  uint64_t events_dropped_unwritable;
  uint64_t events_dropped_refused;
  uint64_t events_posted;
  uint64_t events_failed;
  uint64_t events_queued;
  uint64_t errors_accepted;
  uint64_t errors_dropped;
  uint64_t errors_sent;
  uint64_t errors_failed;
  uint64_t posts_made;
  uint64_t posts_failed;
  uint64_t retries;
  uint64_t spooled;
  uint64_t replayed;
  uint64_t spool_dropped_oldest;
  uint64_t spool_corrupt;
} telvo_stats;
TELVO_API int telvo_client_stats(const telvo_client* client, telvo_stats* out);

/* --- The library. */

/* Every log line goes to `sink` (with `user_data`), from any library thread;
 * null restores standard error. */
typedef void (*telvo_log_sink)(const char* line, void* user_data);
TELVO_API void telvo_set_log_sink(telvo_log_sink sink, void* user_data);
/* Transport settings, for transports made afterwards: set them before the
 * first client. A PEM file of certificates to trust instead of the system's
 * (null: the system's). */
TELVO_API int telvo_set_ca_file(const char* path);
/* Seconds allowed to connect, and seconds without data before a request
 * fails; 0 keeps the default. Each must be finite and within 0..3600. */
TELVO_API int telvo_set_timeouts(double connect_seconds, double request_seconds);
/* Stops the library's threads within `timeout_ms` (see telvo::shutdown in
 * telvo/telvo.h): TELVO_OK when all have ended, else TELVO_ERROR_TIMEOUT.
 * Clients refuse new work silently afterwards. */
TELVO_API int telvo_shutdown(int64_t timeout_ms);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* TELVO_TELVO_C_H */
