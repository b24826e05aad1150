/* Orlenda client library: the C API that a point-of-sale application links to use the service's
 * ports, on the same PC over the local pipe ("\\.\pipe\skein"; on POSIX the Unix socket
 * "<run dir>/skein") or from another PC over TCP (port 2291 by default).
 *
 * A client is one connection, and one connection is the handle of at most one open port. Every
 * operation sends one request and blocks until its reply arrives or the call's time-out passes.
 * Any number of threads may call at once on one client: replies are matched to their calls by
 * tag, whatever order they come in. Events the client registered arrive on the library's reader
 * thread, at the callback given at connect time; the callback must not make calls on its own
 * client (they fail with SKC_WRONG_THREAD) and should return soon, since replies wait behind it.
 *
 * Over TCP the library sends a ping (four zero bytes) after `ping_interval_ms` of send silence, so
 * that the service never drops a client that is alive but idle, and it counts the connection as
 * lost when it hears nothing, not even the service's pings, for `keepalive_timeout_ms`. Once the
 * connection is lost (that silence, the service closing it, a failed send, or a malformed reply)
 * every pending and every later call fails with SKC_CONNECTION_LOST (SKC_PROTOCOL_ERROR for a
 * malformed reply); no call waits on a dead connection past its time-out.
 *
 * Results are the service's 32-bit result codes (protocol.h) or the library's own SKC_ codes
 * below; SkResultName names them all.
 *
 * Plain C; compiles as C and as C++. */
#ifndef SKEIN_CLIENT_H
#define SKEIN_CLIENT_H

#include <stddef.h>
#include <stdint.h>

#include "skein/protocol.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The library's own results: failures (top bit set) in a family the service never uses. */
#define SKEIN_CLIENT_RESULT_CODES(X)          \
  X(SKC_TIMEOUT, 0x80FE0001u)                 \
  X(SKC_CONNECTION_LOST, 0x80FE0002u)         \
  X(SKC_CANNOT_CONNECT, 0x80FE0003u)          \
  X(SKC_PROTOCOL_ERROR, 0x80FE0004u)          \
  X(SKC_REPLY_TOO_LARGE, 0x80FE0005u)         \
  X(SKC_BAD_REPLY, 0x80FE0006u)               \
  X(SKC_INVALID_ARGUMENT, 0x80FE0007u)        \
  X(SKC_OUT_OF_MEMORY, 0x80FE0008u)           \
  X(SKC_WRONG_THREAD, 0x80FE0009u)
SKEIN_CLIENT_RESULT_CODES(SKEIN_DEFINE_CODE)
/* SKC_TIMEOUT          no reply within the call's time-out; the connection stays usable
 * SKC_CONNECTION_LOST  the connection is gone (closed, silent past the keep-alive, a send failed)
 * SKC_CANNOT_CONNECT   connecting failed: no service there, refused, unknown host, time-out
 * SKC_PROTOCOL_ERROR   the service sent a frame that cannot be (a length of 1 to 15): the
 *                      connection is dropped and counts as lost
 * SKC_REPLY_TOO_LARGE  a reply longer than max_reply_size; it is skipped, the connection stays
 * SKC_BAD_REPLY        a reply too short for its request (a Write reply without its count)
 * SKC_INVALID_ARGUMENT a null client, a name too long, data too long for one frame
 * SKC_OUT_OF_MEMORY    the library could not allocate
 * SKC_WRONG_THREAD     a call from the event callback, which would wait for itself */

/* Defaults of SkClientOptions. */
#define SKC_DEFAULT_CALL_TIMEOUT_MS 10000u
#define SKC_DEFAULT_CONNECT_TIMEOUT_MS 5000u
#define SKC_DEFAULT_PING_INTERVAL_MS 500u
#define SKC_DEFAULT_KEEPALIVE_TIMEOUT_MS 5000u
#define SKC_DEFAULT_MAX_REPLY_SIZE (64u * 1024u * 1024u)

/* An event: its identifier and data. `data` is valid during the call only. */
typedef void (*SkEventCallback)(void* context, uint32_t event, const void* data, uint32_t size);

typedef struct SkClientOptions {
  uint32_t call_timeout_ms;      /* how long one call waits for its reply */
  uint32_t connect_timeout_ms;
  uint32_t ping_interval_ms;     /* TCP: a ping after this much send silence */
  uint32_t keepalive_timeout_ms; /* TCP: lost after this much receive silence */
  uint32_t max_reply_size;       /* longer replies and events are skipped, never allocated */
  SkEventCallback on_event;      /* may be null: events are dropped */
  void* context;                 /* handed to on_event */
} SkClientOptions;

typedef struct SkClient SkClient;

/* Fills `options` with the defaults above (no callback). */
void SkDefaultOptions(SkClientOptions* options);

/* Connects to the service on this PC. `pipe_name` is the pipe's name without prefix; null means
 * SKEIN_PIPE_NAME. `options` may be null (the defaults). On success *client is the new client. */
uint32_t SkConnectLocal(const char* pipe_name, const SkClientOptions* options, SkClient** client);
/* Connects over TCP to "host" or "host:port" (port SK_TCP_DEFAULT_PORT when none is given). */
uint32_t SkConnectTcp(const char* host_port, const SkClientOptions* options, SkClient** client);
/* Ends the connection and frees the client (null is ignored). No call of it may be running or
 * start; its open port is closed by the service. */
void SkDisconnect(SkClient* client);

/* The operations. Names are UTF-8 ("PORT/member", "PORT?key", "" for the service's settings);
 * the service sees them as UTF-16. */
uint32_t SkOpen(SkClient* client, const char* name);
uint32_t SkClose(SkClient* client);
/* `*written` (may be null) gets the count of bytes the port took. */
uint32_t SkWrite(SkClient* client, const void* data, uint32_t size, uint32_t* written);
/* `*output` gets a block from the library holding the output (null when there is none), to be
 * freed with SkFree, and `*output_size` its size; both may be null when the output is not wanted.
 * The output is handed over whatever the result, since some requests answer with data on failure. */
uint32_t SkIoctl(SkClient* client, uint32_t code, const void* input, uint32_t input_size, void** output,
                 uint32_t* output_size);
uint32_t SkRegisterCallback(SkClient* client, uint32_t event);
uint32_t SkUnregisterCallback(SkClient* client, uint32_t event);
void SkFree(void* block);

/* Whether the connection has been lost (then every call fails at once). */
int SkIsConnected(const SkClient* client);

/* The name of a result code, the service's or the library's ("SKR_NOT_LOCKED", "SKC_TIMEOUT"), or
 * null for a code without one. */
const char* SkResultName(uint32_t result);

#ifdef __cplusplus
}
#endif

#endif /* SKEIN_CLIENT_H */
