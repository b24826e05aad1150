// The open-port record: members and walks, counted component calls, and the stack calls.
#include "ports/open_port.h"

#include <algorithm>

#include "common/result_codes.h"
#include "components/component.h"
#include "platform/thread.h"

namespace orlenda {
namespace {

constexpr uint32_t kPollMs = 10;

// What this thread is inside of, innermost last: walks (by half) and component calls of ports.
// A Close waits for the walks and calls of other threads only: one of its own thread is further
// out on its own stack (a component that called back into the service) and cannot end first.
constexpr int kCallUse = 2;
constexpr int kMaxUses = 16;
struct Use {
  const COpenPort* port;
  int kind;  // 0 or 1: a walk of that half; kCallUse: a component call
};
thread_local Use t_uses[kMaxUses];
thread_local int t_use_count = 0;
thread_local int t_uses_untracked = 0;  // nesting deeper than kMaxUses: not excluded from waits

void PushUse(const COpenPort* port, int kind) {
  if (t_use_count < kMaxUses) {
    t_uses[t_use_count++] = Use{port, kind};
  } else {
    ++t_uses_untracked;
  }
}

void PopUse() {
  if (t_uses_untracked > 0) {
    --t_uses_untracked;
  } else if (t_use_count > 0) {
    --t_use_count;
  }
}

int32_t OwnUses(const COpenPort* port, int kind) {
  int32_t count = 0;
  for (int i = 0; i < t_use_count; ++i) count += t_uses[i].port == port && t_uses[i].kind == kind;
  return count;
}

bool Less(const CSKConnection* a, const CSKConnection* b) { return a < b; }

}  // namespace

// ---- MemberList ----

MemberList* MemberList::Make(const MemberList* from, CSKConnection* added, CSKConnection* removed) {
  MemberList* list = HeapNew<MemberList>();
  if (list == nullptr) return nullptr;
  if (from != nullptr) list->items_.reserve(from->items_.size() + 1);
  if (from != nullptr) {
    for (CSKConnection* item : from->items_) {
      if (item != removed) list->items_.push_back(item);
    }
  }
  if (added != nullptr) {
    list->items_.insert(std::lower_bound(list->items_.begin(), list->items_.end(), added, Less), added);
  }
  return list;
}

void MemberList::Release() {
  if (references_.fetch_sub(1, std::memory_order_acq_rel) == 1) HeapDelete(this);
}

bool MemberList::Contains(const CSKConnection* connection) const {
  return std::binary_search(items_.begin(), items_.end(), connection, Less);
}

// ---- COpenPort ----

std::atomic<long> COpenPort::live_{0};

COpenPort::COpenPort(uint32_t number) : number_(number) {
  members_ = MemberList::Make(nullptr, nullptr, nullptr);
  live_.fetch_add(1, std::memory_order_acq_rel);
}

COpenPort::~COpenPort() {
  if (members_ != nullptr) members_->Release();
  live_.fetch_sub(1, std::memory_order_acq_rel);
}

bool COpenPort::HoldEarlyEvent(uint32_t event, const BlobRef& data) {
  platform::ScopedLock hold(early_lock_);
  if (!holding_early_) return false;
  if (early_.size() < kMaxEarlyEvents) {
    early_.push_back({event, data});
  } else {
    ++early_dropped_;
  }
  return true;
}

bool COpenPort::TakeEarlyEvents(HeapVector<EarlyEvent>* batch, uint32_t* dropped) {
  batch->clear();
  platform::ScopedLock hold(early_lock_);
  *dropped += early_dropped_;
  early_dropped_ = 0;
  if (early_.empty()) {
    holding_early_ = false;
    return false;
  }
  batch->swap(early_);
  return true;
}

void COpenPort::Release() {
  if (references_.fetch_sub(1, std::memory_order_acq_rel) == 1) HeapDelete(this);
}

bool COpenPort::AddMember(CSKConnection* connection) {
  platform::ScopedLock hold(members_lock_);
  if (members_ == nullptr || members_->Contains(connection)) return false;
  MemberList* next = MemberList::Make(members_, connection, nullptr);
  if (next == nullptr) return false;
  members_->Release();
  members_ = next;
  return true;
}

bool COpenPort::RemoveMember(CSKConnection* connection) {
  platform::ScopedLock one_at_a_time(removal_lock_);
  int half;
  for (;; platform::SleepMs(kPollMs)) {
    platform::ScopedLock hold(members_lock_);
    if (members_ == nullptr || !members_->Contains(connection)) return false;
    MemberList* next = MemberList::Make(members_, nullptr, connection);
    // A leaver must leave (its connection is about to go away): without memory, try again.
    if (next == nullptr) continue;
    members_->Release();
    members_ = next;
    // Walks that begin from now on count in the other half and cannot meet the connection. The
    // previous removal waited for this half to drain, so what it counts began after that.
    half = static_cast<int>(epoch_ & 1u);
    ++epoch_;
    changes_.fetch_add(1, std::memory_order_acq_rel);
    break;
  }
  const int32_t own = OwnUses(this, half);
  while (walks_[half].load(std::memory_order_acquire) > own) platform::SleepMs(kPollMs);
  return true;
}

bool COpenPort::IsMember(CSKConnection* connection) const {
  platform::ScopedLock hold(members_lock_);
  return members_ != nullptr && members_->Contains(connection);
}

bool COpenPort::HasMembers() const {
  platform::ScopedLock hold(members_lock_);
  return members_ != nullptr && !members_->items().empty();
}

void COpenPort::WaitForCalls() const {
  const int32_t own = OwnUses(this, kCallUse);
  while (calls_.load(std::memory_order_seq_cst) > own) platform::SleepMs(kPollMs);
}

uint32_t COpenPort::StackWrite(const BlobRef& data, uint32_t* written) const {
  if (stack_.Write == nullptr) return SKR_INVALID_HANDLE;
  uint32_t ignored = 0;
  BlobRef passed = data;  // the reference that goes to the stack
  return stack_.Write(number_, ToSkBlob(passed.Release()), written != nullptr ? written : &ignored);
}

uint32_t COpenPort::StackIoctl(uint32_t code, const BlobRef& input, BlobRef* output) const {
  if (stack_.Ioctl == nullptr) return SKR_INVALID_HANDLE;
  BlobRef passed = input;
  // The stack always gets a slot for its output (the module contract); what it hands back to a
  // caller that wants none is dropped here.
  SkBlob* out = nullptr;
  const uint32_t result = stack_.Ioctl(number_, code, ToSkBlob(passed.Release()), &out);
  BlobRef answer = BlobRef::Adopt(FromSkBlob(out));
  if (output != nullptr) *output = std::move(answer);
  return result;
}

uint32_t COpenPort::StackIoctlDword(uint32_t code, uint32_t value) const {
  const BlobRef input = BlobRef::Adopt(DwordBlobCreate(value));
  if (!input) return SKR_OUT_OF_MEMORY;
  return StackIoctl(code, input, nullptr);
}

// ---- Scopes ----

CallScope::CallScope(const COpenPort* port) : port_(port) {
  // Sequentially consistent against the last Close: either this count is seen by its wait, or the
  // membership check that follows sees the member gone.
  port_->calls_.fetch_add(1, std::memory_order_seq_cst);
  PushUse(port_, kCallUse);
}

CallScope::~CallScope() {
  PopUse();
  port_->calls_.fetch_sub(1, std::memory_order_seq_cst);
}

WalkScope::WalkScope(COpenPort* port) : port_(port) {
  platform::ScopedLock hold(port_->members_lock_);
  members_ = port_->members_;
  members_->AddRef();
  half_ = static_cast<int>(port_->epoch_ & 1u);
  port_->walks_[half_].fetch_add(1, std::memory_order_acq_rel);
  changes_ = port_->changes_.load(std::memory_order_acquire);
  PushUse(port_, half_);
}

WalkScope::~WalkScope() {
  PopUse();
  port_->walks_[half_].fetch_sub(1, std::memory_order_acq_rel);
  members_->Release();
}

bool WalkScope::Left(CSKConnection* member) const {
  if (port_->changes_.load(std::memory_order_acquire) == changes_) return false;
  return !port_->IsMember(member);
}

}  // namespace orlenda
