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

#endif /* SKEIN_PROTOCOL_H */
