/* TCP sockets for the network printer module, and for the fake printer and the benchmark that
 * stand on the other side of it in tests: non-blocking sockets whose waits also watch a waker.
 * net_socket_posix.c and net_socket_win32.c implement it.
 *
 * Plain C; compiles as C and as C++. */
#ifndef ORLENDA_NET_SOCKET_H
#define ORLENDA_NET_SOCKET_H

#include <stddef.h>
#include <stdint.h>

#include "device/device_sys.h"
#include "device/device_text.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef intptr_t NetSocket;
#define NET_NO_SOCKET ((NetSocket)-1)

typedef enum NetWaitResult {
  NET_READY,   /* the socket can be read (or has closed or failed), or written */
  NET_IDLE,    /* the time passed */
  NET_WOKEN,   /* the waker was set */
  NET_FAILED   /* the wait itself failed; the error is NetLastError() */
} NetWaitResult;

/* Once per process user (the module's initialisation, a test); nonzero on success. */
int NetStartup(void);
void NetCleanup(void);

/* The error of the last failed call on this thread (errno, WSAGetLastError). */
uint32_t NetLastError(void);

/* Connects to `host` (UTF-8 name or address) at `port` within `timeout_ms`, trying each address
 * the name resolves to, and returns soon after `waker` is set (`waker` may be NULL). On success a
 * non-blocking socket with TCP_NODELAY; on failure NET_NO_SOCKET and `reason` ("<name>: cannot
 * connect: ...", "<name>: cannot resolve the host name: ..."). */
NetSocket NetConnect(const char* host, uint16_t port, uint32_t timeout_ms, DevWaker* waker, const DevText* name,
                     DevText* reason);

/* Turns on TCP keep-alive: the first probe after `idle_ms` without traffic, then one a second; a
 * peer that answers none of three is gone. Best effort. */
void NetKeepAlive(NetSocket socket, uint32_t idle_ms);

/* Waits until the socket can be read (for_write 0) or written (1), for at most `ms` (DEV_FOREVER:
 * no bound), or until `waker` (may be NULL) is set. */
NetWaitResult NetWait(NetSocket socket, int for_write, uint32_t ms, DevWaker* waker);

/* Non-blocking send and receive: the byte count (> 0); 0 when the call would block (for receive:
 * -2 when the peer closed the connection); -1 on failure (NetLastError). Sending never raises
 * SIGPIPE. */
long NetSend(NetSocket socket, const void* data, size_t size);
long NetReceive(NetSocket socket, void* buffer, size_t size);

void NetClose(NetSocket socket);

/* For tests: a listening socket on 127.0.0.1 at `*port` (0: any free port, written back), with
 * address reuse so that a server can come back on the same port at once. NET_NO_SOCKET on
 * failure. */
NetSocket NetListenLoopback(uint16_t* port);
/* The next connection within `ms`, as a non-blocking socket, or NET_NO_SOCKET. */
NetSocket NetAccept(NetSocket listener, uint32_t ms);

#ifdef __cplusplus
}
#endif

#endif /* ORLENDA_NET_SOCKET_H */
