// A registry of observers, held strongly or weakly, that can be notified from
// any thread. Registration, removal and notification are thread-safe; the
// observers are called without the registry's lock held, so an observer may
// register or remove observers while it is being notified.
#pragma once

#include <algorithm>
#include <memory>
#include <mutex>
#include <vector>

namespace qx {

template <typename Observer>
class ObservableImpl {
 public:
  virtual ~ObservableImpl() = default;

  // Adds `observer` by weak reference: the registry never keeps it alive, and
  // an observer destroyed without being removed is skipped by `Notify`. An
  // expired or empty pointer registers nothing. Registering one observer twice
  // gives two entries. Throws std::system_error if the lock cannot be taken.
  virtual void RegisterWeak(std::weak_ptr<Observer> observer) {
    auto strong = observer.lock();
    if (!strong) return;
    std::lock_guard<std::mutex> lock(m_mutex);
    PruneExpired();
    m_weakObservers.push_back(std::move(observer));
    m_observers.emplace_back();
  }

  // Adds `observer` by strong reference: the registry keeps it alive until it
  // is removed or the registry is destroyed. An empty pointer registers nothing.
  virtual void Register(std::shared_ptr<Observer> observer) {
    if (!observer) return;
    std::lock_guard<std::mutex> lock(m_mutex);
    PruneExpired();
    m_weakObservers.push_back(observer);
    m_observers.push_back(std::move(observer));
  }

  // Removes every entry of `observer`, strong or weak. A notification already
  // under way may still reach it.
  virtual void Unregister(const Observer* observer) {
    std::lock_guard<std::mutex> lock(m_mutex);
    EraseIf([observer](const std::weak_ptr<Observer>& weak) {
      auto strong = weak.lock();
      return !strong || strong.get() == observer;
    });
  }

 protected:
  // Calls `notify(observer)` for each live observer in registration order, on
  // the calling thread, without the lock held. Expired entries are dropped.
  template <typename F>
  void Notify(F&& notify) {
    std::vector<std::shared_ptr<Observer>> live;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      EraseIf(Expired);
      live.reserve(m_weakObservers.size());
      for (const auto& weak : m_weakObservers) {
        if (auto strong = weak.lock()) live.push_back(std::move(strong));
      }
    }
    for (const auto& observer : live) notify(*observer);
  }

  std::mutex m_mutex;
  // Parallel lists: entry i of both belongs to one registration; a weak
  // registration has a null strong entry.
  std::vector<std::shared_ptr<Observer>> m_observers;
  std::vector<std::weak_ptr<Observer>> m_weakObservers;

 private:
  // An observer destroyed without being removed leaves an expired entry,
  // which also keeps the memory of an observer made by make_shared. They are
  // dropped whenever the list has doubled since the last time, so that
  // registering and destroying observers over and over needs no notification
  // to stay bounded. Called with the lock held.
  void PruneExpired() {
    if (m_weakObservers.size() < m_pruneAt) return;
    EraseIf(Expired);
    m_pruneAt = std::max<std::size_t>(kMinPrune, 2 * m_weakObservers.size());
  }

  static bool Expired(const std::weak_ptr<Observer>& weak) { return weak.expired(); }

  // Drops the entries whose weak reference satisfies `drop`, from both lists,
  // keeping the order of the others. Called with the lock held.
  template <typename Drop>
  void EraseIf(Drop drop) {
    std::size_t kept = 0;
    for (std::size_t i = 0; i < m_weakObservers.size(); ++i) {
      if (drop(m_weakObservers[i])) continue;
      if (kept != i) {
        m_weakObservers[kept] = std::move(m_weakObservers[i]);
        m_observers[kept] = std::move(m_observers[i]);
      }
      ++kept;
    }
    m_weakObservers.resize(kept);
    m_observers.resize(kept);
  }

  static constexpr std::size_t kMinPrune = 16;
  std::size_t m_pruneAt = kMinPrune;
};

}  // namespace qx
