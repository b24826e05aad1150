// The port request router: every control code that the port operations do not serve themselves.
//
// Order of the checks: membership and a stack Ioctl entry; codes with bit 30 clear go to the stack
// at once; codes with bits 30 and 29 set pass the write access check first; then the property
// codes are served here, 0x50010005 goes to the stack with the lock queue held, and the rest goes
// to the stack.
//
// 0x50010005 is a port-access request whose answer depends on who holds the lock (a query or a
// change of the device's lock state made on behalf of the queue). It reaches the stack while this
// port's lock-queue lock is held, so no admission, hand-over or lock-changed handling can run
// between the stack's answer and the queue it was given against; while the system is suspended
// it answers SKR_SUSPENDED without reaching the stack. The stack's result is returned unchanged.
//
// The call is counted from before the membership check to the end of the stack's call, so the
// last Close of the port waits for it before it closes the stack (open_port.h); nothing else
// waits for it.
#include "common/result_codes.h"
#include "ports/open_port.h"
#include "ports/property_requests.h"
#include "ports/sk_connection.h"

namespace orlenda {
namespace {

constexpr uint32_t kBit30 = 0x40000000u;
constexpr uint32_t kBit29 = 0x20000000u;
constexpr uint32_t kLockQueueRequest = 0x50010005u;
constexpr uint32_t kConfigApply = 0x50070010u;

}  // namespace

uint32_t PortAccess::Route(COpenPort* port, CSKConnection* connection, uint32_t code, const BlobRef& input,
                           BlobRef* output) {
  CallScope call(port);
  if (!port->IsMember(connection) || port->stack().Ioctl == nullptr) return SKR_INVALID_HANDLE;
  if ((code & kBit30) == 0) return port->StackIoctl(code, input, output);
  if ((code & kBit29) != 0) {
    const uint32_t access = CheckWriteAccess(port, connection);
    if (access != SKR_SUCCESS) return access;
  }

  if (IsPropertyRequest(code)) {
    bool changed = false;
    const uint32_t result = ServePropertyRequest(View(port->name()), code, input, output, &changed);
    if (changed) port->StackIoctl(kConfigApply, BlobRef(), nullptr);  // takes the change up; its answer is not ours
    return result;
  }

  if (code == kLockQueueRequest) {
    if (port->suspended()) return SKR_SUSPENDED;
    platform::ScopedLock hold(port->queue_lock());
    return port->StackIoctl(code, input, output);
  }

  return port->StackIoctl(code, input, output);
}

}  // namespace orlenda
