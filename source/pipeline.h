// Running a batch of asynchronous requests of the C client with all of them in
// flight at once, and the event-thread flag that says where that must not be
// done.
#pragma once

#include <zookeeper/zookeeper.h>

#include <condition_variable>
#include <cstddef>
#include <exception>
#include <mutex>
#include <optional>
#include <vector>

namespace qx::korvel::details {

// True on a thread that is running one of our C-client callbacks: such a
// thread must not wait for asynchronous completions, which it would deliver.
bool OnEventThread();

// Marks the current thread as running a C-client callback while it lives.
class EventThreadScope {
 public:
  EventThreadScope();
  ~EventThreadScope();
  EventThreadScope(const EventThreadScope&) = delete;
  EventThreadScope& operator=(const EventThreadScope&) = delete;

 private:
  bool m_previous;
};

// Counts completions down; one thread at a time waits.
class Latch {
 public:
  explicit Latch(std::size_t count) : m_count(count) {}
  void CountDown();
  // Waits until none is left.
  void Wait() { WaitBelow(1); }
  // Waits until fewer than `count` are left.
  void WaitBelow(std::size_t count);

 private:
  std::mutex m_mutex;
  std::condition_variable m_cv;
  std::size_t m_count;
  std::size_t m_wakeBelow = 0;  // the waiter's bound: a completion wakes it only on reaching it
};

// One request of a pipelined batch: its result code, and where its
// completion stores what it read.
struct AsyncSlot {
  int* rc = nullptr;
  Latch* latch = nullptr;
  void* out = nullptr;

  // The slot given to an asynchronous call as its completion's data.
  static AsyncSlot& From(const void* data) {
    return *static_cast<AsyncSlot*>(const_cast<void*>(data));
  }
  void Complete(int code);
};

// What a submit function returns for the code of an asynchronous call:
// nullopt when it was sent, else the code it ended with.
inline std::optional<int> Submitted(int rc) {
  return rc == ZOK ? std::nullopt : std::optional<int>(rc);
}

// At most this many requests of a batch are in flight at once. A connection
// sends its pings behind its requests: with a whole big type's reads queued
// (70,000 for 10,000 instances), a busy server answers the ping too late and
// the session expires. This many keep a cold build as fast as with all in
// flight (1.03x against 1.08x in one run of 10,000 instances; 1,000 cost 1.25x).
constexpr std::size_t kMaxInFlight = 10000;

// Sends every request of a batch, request i through submit(i, slot), at most
// kMaxInFlight in flight at once, and waits until each has completed;
// results[i] receives request i's code. `submit`
// returns nullopt when the request was sent (its completion calls
// slot.Complete), or the code of a request that ends without being sent.
// `sending`, when given, is unlocked once all are sent, before the wait; such a
// batch is sent whole, without the bound. If
// `submit` throws, the requests after it are not sent, and the exception
// leaves once those already sent have completed.
// Never on the event thread: it would wait for completions it must deliver.
template <typename Submit>
void RunPipelined(std::vector<int>& results, Submit submit,
                  std::unique_lock<std::mutex>* sending = nullptr) {
  Latch latch(results.size());
  std::vector<AsyncSlot> slots(results.size());
  std::exception_ptr failure;
  for (std::size_t i = 0; i < results.size(); ++i) {
    slots[i].rc = &results[i];
    slots[i].latch = &latch;
    // Those not sent yet count as left too. Under `sending` it must not wait:
    // the completions may need that lock.
    if (sending == nullptr && i >= kMaxInFlight) {
      latch.WaitBelow(results.size() - i + kMaxInFlight);
    }
    if (failure) {
      slots[i].Complete(ZSYSTEMERROR);
      continue;
    }
    try {
      if (auto rc = submit(i, slots[i])) slots[i].Complete(*rc);
    } catch (...) {
      failure = std::current_exception();
      slots[i].Complete(ZSYSTEMERROR);
    }
  }
  if (sending != nullptr) sending->unlock();
  latch.Wait();
  if (failure) std::rethrow_exception(failure);
}

}  // namespace qx::korvel::details
