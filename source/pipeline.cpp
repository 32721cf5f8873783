#include "pipeline.h"

#include <utility>

namespace qx::korvel::details {
namespace {

thread_local bool t_onEventThread = false;

}  // namespace

bool OnEventThread() {
  return t_onEventThread;
}

EventThreadScope::EventThreadScope() : m_previous(std::exchange(t_onEventThread, true)) {}

EventThreadScope::~EventThreadScope() {
  t_onEventThread = m_previous;
}

void Latch::CountDown() {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (--m_count + 1 == m_wakeBelow) m_cv.notify_all();
}

void Latch::WaitBelow(std::size_t count) {
  std::unique_lock<std::mutex> lock(m_mutex);
  m_wakeBelow = count;
  m_cv.wait(lock, [&] { return m_count < count; });
  m_wakeBelow = 0;
}

void AsyncSlot::Complete(int code) {
  *rc = code;
  latch->CountDown();
}

}  // namespace qx::korvel::details
