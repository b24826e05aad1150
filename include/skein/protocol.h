/* Orlenda: the codes shared by the service, its clients and its component modules.
 *
 * Result codes are unsigned 32-bit; 0 is success and failures have the top bit set. Results of
 * components pass through the service unchanged. Control codes select port operations; bits 30 and
 * 29 of a code select the access check of property requests. Event identifiers: bit 28 marks an
 * event for the port itself that is never delivered to clients, bit 29 one that only connections
 * holding the port's lock receive.
 *
 * Plain C; compiles as C and as C++. */
#ifndef SKEIN_PROTOCOL_H
#define SKEIN_PROTOCOL_H

#include <stdint.h>

/* The one list of result codes and their names. */
#define SKEIN_RESULT_CODES(X)             \
  X(SKR_SUCCESS, 0x00000000u)             \
  X(SKR_INVALID_HANDLE, 0x80000001u)      \
  X(SKR_FAILED, 0x80000002u)              \
  X(SKR_INVALID_SIZE, 0x80000003u)        \
  X(SKR_INVALID_PARAMETER, 0x80000004u)   \
  X(SKR_SYSTEM_ERROR, 0x80000005u)        \
  X(SKR_OUT_OF_MEMORY, 0x80000006u)       \
  X(SKR_TRUNCATED, 0x80000007u)           \
  X(SKR_NOT_LOCKED, 0x80010000u)          \
  X(SKR_SUSPENDED, 0x80010001u)           \
  X(SKR_LOCK_PENDING, 0x80010003u)        \
  X(SKR_LOCKED_BY_OTHER, 0x80010004u)

#define SKEIN_DEFINE_CODE(name, value) static const uint32_t name = value;
SKEIN_RESULT_CODES(SKEIN_DEFINE_CODE)

/* Port access controls. */
#define SKEIN_PORT_CONTROLS(X)            \
  X(SK_PORT_LOCK, 0x40010001u)            \
  X(SK_PORT_NOTIFY, 0x40010002u)          \
  X(SK_PORT_EXCLUSIVE, 0x60010006u)       \
  X(SK_POWER_STATE, 0x50010004u)          \
  X(SK_LOCK_STATE, 0x50060009u)
SKEIN_PORT_CONTROLS(SKEIN_DEFINE_CODE)

/* Configuration requests (served by the configuration port, a port name without "/"). */
#define SKEIN_CONFIG_CONTROLS(X)                 \
  X(SK_CONFIG_ENUM_PORTS, 0x40070002u)           \
  X(SK_CONFIG_GET, 0x40070005u)                  \
  X(SK_CONFIG_GET_SETTINGS, 0x40070007u)         \
  X(SK_CONFIG_GET_SETTINGS_ALL, 0x40070008u)     \
  X(SK_CONFIG_APPLY, 0x50070010u)                \
  X(SK_CONFIG_REQUEST_11, 0x50070011u)           \
  X(SK_CONFIG_REQUEST_12, 0x50070012u)           \
  X(SK_CONFIG_ADD_PORT, 0x60070003u)             \
  X(SK_CONFIG_DELETE_PORT, 0x60070004u)          \
  X(SK_CONFIG_SET, 0x60070006u)
SKEIN_CONFIG_CONTROLS(SKEIN_DEFINE_CODE)

/* Property requests (served for every port): typed values kept per port. */
#define SKEIN_PROPERTY_CONTROLS(X)                  \
  X(SK_CONFIG_GET_DATA_PROPERTY, 0x40070009u)       \
  X(SK_CONFIG_GET_NUMBER_PROPERTY, 0x4007000au)     \
  X(SK_CONFIG_GET_STRING_PROPERTY, 0x4007000bu)     \
  X(SK_CONFIG_SET_DATA_PROPERTY, 0x6007000du)       \
  X(SK_CONFIG_SET_NUMBER_PROPERTY, 0x6007000eu)     \
  X(SK_CONFIG_SET_STRING_PROPERTY, 0x6007000fu)
SKEIN_PROPERTY_CONTROLS(SKEIN_DEFINE_CODE)

/* What the configuration port asks each component of a stack for: its settings document for the
 * settings path in the input (UTF-16 with its NUL); the answer is UTF-16 text in the output. */
static const uint32_t SK_COMPONENT_GET_SETTINGS = 0x4007000cu;

/* The lock request's DWORD to the stack when the requesting client has an access key. */
static const uint32_t SK_PORT_LOCK_WITH_KEY = 0x10000001u;

/* Events. */
#define SKEIN_EVENTS(X)                   \
  X(SK_EVENT_LOCK, 0x00010001u)           \
  X(SK_EVENT_NOTIFY, 0x00010002u)         \
  X(SK_EVENT_EXCLUSIVE, 0x20010006u)      \
  X(SK_EVENT_LOCK_CHANGED, 0x10060009u)
SKEIN_EVENTS(SKEIN_DEFINE_CODE)

static const uint32_t SK_EVENT_PORT_ONLY = 0x10000000u;   /* bit 28 */
static const uint32_t SK_EVENT_LOCK_ONLY = 0x20000000u;   /* bit 29 */

/* ---- The wire: frames between a client and the service ----
 * Every message (request, reply, event) starts with a 16-byte header, all integers little-endian:
 *   offset 0  u32 length of the whole message, header included
 *   offset 4  u32 code: the request code (a reply repeats it; events carry SK_FRAME_EVENT)
 *   offset 8  u64 tag: chosen by the client, echoed in the reply; 0 in an event
 * Request bodies (after the header):
 *   SK_FRAME_OPEN        the port name, UTF-16LE, ended by a 16-bit 0
 *   SK_FRAME_CLOSE       nothing
 *   SK_FRAME_REGISTER    u32 event identifier
 *   SK_FRAME_UNREGISTER  u32 event identifier
 *   SK_FRAME_WRITE       the data
 *   SK_FRAME_IOCTL       u32 control code, then the input data
 * Replies: the header, then u32 result; a Write reply adds u32 bytes written (24 bytes in all), an
 * Ioctl reply adds the output data (20 + output size). A request of any other code gets no reply.
 * Event: the header, u32 event identifier at offset 16, then the event's data.
 * A header whose length field is 0 (four zero bytes, nothing more) is a keep-alive ping: it is
 * discarded and never answered. Over TCP both sides send one after a silence (the service after its
 * ping interval), and a side that hears nothing for its keep-alive time-out drops the connection. */
#define SKEIN_FRAME_CODES(X)       \
  X(SK_FRAME_OPEN, 1u)             \
  X(SK_FRAME_CLOSE, 2u)            \
  X(SK_FRAME_REGISTER, 3u)         \
  X(SK_FRAME_UNREGISTER, 4u)       \
  X(SK_FRAME_WRITE, 5u)            \
  X(SK_FRAME_IOCTL, 6u)            \
  X(SK_FRAME_EVENT, 7u)
SKEIN_FRAME_CODES(SKEIN_DEFINE_CODE)

static const uint32_t SK_FRAME_HEADER_SIZE = 16u;
static const uint32_t SK_FRAME_REPLY_SIZE = 20u;       /* header and result */
static const uint32_t SK_FRAME_WRITE_REPLY_SIZE = 24u; /* and the bytes written */
/* The largest frame the service takes whole; a longer one is answered SKR_TRUNCATED. */
static const uint32_t SK_FRAME_MAX_SIZE = 16u * 1024u * 1024u;
/* The local pipe's name (Windows "\\.\pipe\skein"; on POSIX the socket "<run dir>/skein") and
 * the TCP port the service listens on by default. */
#define SKEIN_PIPE_NAME "skein"
static const uint16_t SK_TCP_DEFAULT_PORT = 2291u;

#endif /* SKEIN_PROTOCOL_H */
