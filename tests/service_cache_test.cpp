// The service cache against real servers: snapshots, deltas, freshness,
// selection, and its robustness against what ZooKeeper does.
#include "korvel/service_cache.h"

#include <gtest/gtest.h>

#include <future>
#include <random>

#include <boost/lexical_cast.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <thread>

#include "korvel/error.h"
#include "korvel/service.h"
#include "korvel/utils.h"
#include "stlext/uuid.h"
#include "util/test_util.h"

namespace korvel::test {
namespace {

using qx::korvel::CachedInstancePtr;
using qx::korvel::Connection;
using qx::korvel::Service;
using qx::korvel::ServiceCache;
using qx::korvel::ServiceCacheEvent;
using qx::korvel::ServiceId;
using qx::korvel::ServiceSnapshot;
using Type = ServiceCacheEvent::Type;
using Attributes = std::map<std::string, std::string>;
using Model = std::map<ServiceId, Attributes>;

// The attributes an instance publishes about itself.
const std::vector<std::string> kOwnAttributes(std::begin(tree::kOwnAttributeNames),
                                              std::end(tree::kOwnAttributeNames));

// Collects the events a cache reports and keeps a model of the instances
// built from nothing but those events.
class Recorder {
 public:
  explicit Recorder(ServiceCache& cache) : m_cache(cache) {
    m_id = cache.AddListener([this](const ServiceCacheEvent& event) { Apply(event); });
  }
  ~Recorder() { m_cache.RemoveListener(m_id); }

  std::vector<ServiceCacheEvent> Events() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_events;
  }
  Model Instances() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_model;
  }
  bool WaitFor(const std::function<bool(const std::vector<ServiceCacheEvent>&)>& done,
               std::chrono::milliseconds timeout = 10000ms) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_cv.wait_for(lock, timeout, [&] { return done(m_events); });
  }
  bool WaitForType(Type type, std::chrono::milliseconds timeout = 10000ms) {
    return WaitFor(
        [&](const auto& events) {
          return std::any_of(events.begin(), events.end(),
                             [&](const ServiceCacheEvent& e) { return e.type == type; });
        },
        timeout);
  }

 private:
  void Apply(const ServiceCacheEvent& event) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_events.push_back(event);
    switch (event.type) {
      case Type::kInstanceAdded:
        EXPECT_EQ(0u, m_model.count(event.id)) << "added twice";
        m_model[event.id] = event.instance->attributes;
        break;
      case Type::kInstanceRemoved:
        EXPECT_EQ(1u, m_model.erase(event.id)) << "removed unknown";
        break;
      case Type::kAttributeChanged: {
        Attributes& attributes = m_model[event.id];
        auto it = attributes.find(event.attribute);
        const std::optional<std::string> old =
            it == attributes.end() ? std::nullopt : std::optional<std::string>(it->second);
        EXPECT_EQ(old, event.oldValue) << event.attribute;
        if (event.newValue) {
          attributes[event.attribute] = *event.newValue;
        } else {
          attributes.erase(event.attribute);
        }
        break;
      }
      default:
        break;
    }
    m_cv.notify_all();
  }

  ServiceCache& m_cache;
  int m_id;
  std::mutex m_mutex;
  std::condition_variable m_cv;
  std::vector<ServiceCacheEvent> m_events;
  Model m_model;
};

Model ModelOf(const ServiceSnapshot& snapshot) {
  Model model;
  for (const auto& instance : snapshot.instances) model[instance->id] = instance->attributes;
  return model;
}

// The tree read afresh, without the cache.
Model ReadTree(Connection& conn, const std::string& type) {
  Model model;
  std::vector<std::string> alive;
  conn.GetChildren(tree::AliveDir(type), alive);
  for (const auto& name : alive) {
    const ServiceId id = boost::lexical_cast<ServiceId>(name);
    Attributes& attributes = model[id];
    for (const std::string& attribute : kOwnAttributes) {
      std::string value;
      if (conn.Get(tree::Below(tree::DataPath(type, id), attribute), value, nullptr) == ZOK) {
        attributes[attribute] = value;
      }
    }
  }
  return model;
}

class ServiceCacheTest : public ::testing::Test {
 protected:
  void SetUp() override {
    conn = Connect(SharedServer().ConnectString());
    type = UniqueName("cache");
  }
  std::shared_ptr<Service> Register(const std::string& name) {
    return std::make_shared<Service>(conn, type, name);
  }
  // Writes an instance's nodes as registration leaves them, with `attributes`;
  // returns its id.
  std::string Publish(const std::vector<std::string>& attributes) {
    const std::string name = qx::uuid::to_string(qx::korvel::RandomServiceId());
    const std::string root = tree::Below(tree::DataDir(type), name);
    qx::korvel::EnsurePath(*conn, root, false, ZOO_OPEN_ACL_UNSAFE);
    qx::korvel::EnsurePath(*conn, tree::AliveDir(type), false, ZOO_OPEN_ACL_UNSAFE);
    std::vector<Connection::CreateRequest> nodes;
    for (const auto& attribute : attributes) {
      nodes.push_back({root + "/" + attribute, "x", ZOO_EPHEMERAL});
    }
    nodes.push_back({tree::Below(tree::AliveDir(type), name), "", ZOO_EPHEMERAL});
    for (int rc : conn->CreateAll(nodes, ZOO_OPEN_ACL_UNSAFE)) EXPECT_EQ(ZOK, rc);
    return name;
  }
  // Counts the listings of the type that `reader` makes from now on.
  std::shared_ptr<std::atomic<int>> CountListings(Connection& reader) {
    auto listings = std::make_shared<std::atomic<int>>(0);
    reader.SetFaultInjector(
        [listings, alive = tree::AliveDir(type)](Connection::Operation op,
                                                 const std::string& path) -> std::optional<int> {
          if (op == Connection::Operation::GetChildren && path == alive) ++*listings;
          return std::nullopt;
        });
    return listings;
  }
  bool WaitForModel(ServiceCache& cache, const Model& expected,
                    std::chrono::milliseconds timeout = 10000ms) {
    return WaitUntil([&] { return ModelOf(*cache.Snapshot()) == expected; }, timeout);
  }

  std::shared_ptr<Connection> conn;
  std::string type;
  LogCapture quiet;
};

TEST_F(ServiceCacheTest, FirstSnapshotHoldsEveryInstanceWithItsAttributes) {
  auto a = Register("a");
  auto b = Register("b");
  b->SetStatus(Service::UP);
  ServiceCache cache(conn, "/" + type + "/");
  EXPECT_FALSE(cache.Snapshot()->current);
  EXPECT_TRUE(cache.Snapshot()->instances.empty());
  Recorder recorder(cache);
  cache.Start();
  ASSERT_TRUE(cache.WaitUntilCurrent(10000ms));

  const auto snapshot = cache.Snapshot();
  EXPECT_TRUE(snapshot->current);
  EXPECT_EQ(ReadTree(*conn, type), ModelOf(*snapshot));
  ASSERT_EQ(2u, snapshot->instances.size());
  const CachedInstancePtr cachedB = snapshot->Find(b->GetId());
  ASSERT_TRUE(cachedB);
  EXPECT_EQ("up", *cachedB->Attribute("status"));
  EXPECT_EQ("b", *cachedB->Attribute("service_name"));
  EXPECT_EQ(std::to_string(getpid()), *cachedB->Attribute("pid"));
  EXPECT_EQ(nullptr, cachedB->Attribute("version"));
  ASSERT_EQ(1u, snapshot->up.size());
  EXPECT_EQ(b->GetId(), snapshot->up[0]->id);
  EXPECT_EQ(nullptr, snapshot->Find(qx::korvel::RandomServiceId()));

  const auto events = recorder.Events();
  ASSERT_EQ(3u, events.size());
  EXPECT_EQ(Type::kInstanceAdded, events[0].type);
  EXPECT_EQ(Type::kInstanceAdded, events[1].type);
  EXPECT_EQ(Type::kCurrent, events[2].type);
  EXPECT_EQ(ModelOf(*snapshot), recorder.Instances());
}

TEST_F(ServiceCacheTest, ReportsDeltasAsTheTreeChanges) {
  auto a = Register("a");
  ServiceCache cache(conn, type);
  Recorder recorder(cache);
  cache.Start();
  ASSERT_TRUE(cache.WaitUntilCurrent(10000ms));

  a->SetStatus(Service::UP);
  ASSERT_TRUE(recorder.WaitForType(Type::kAttributeChanged));
  auto events = recorder.Events();
  const ServiceCacheEvent& changed = events.back();
  EXPECT_EQ(a->GetId(), changed.id);
  EXPECT_EQ("status", changed.attribute);
  EXPECT_EQ(std::optional<std::string>("down"), changed.oldValue);
  EXPECT_EQ(std::optional<std::string>("up"), changed.newValue);
  EXPECT_EQ("up", *changed.instance->Attribute("status"));

  auto b = Register("b");
  ASSERT_TRUE(WaitForModel(cache, ReadTree(*conn, type)));
  const ServiceId goneId = a->GetId();
  a.reset();
  ASSERT_TRUE(WaitForModel(cache, ReadTree(*conn, type)));
  EXPECT_EQ(nullptr, cache.Snapshot()->Find(goneId));
  ASSERT_TRUE(recorder.WaitForType(Type::kInstanceRemoved));
  EXPECT_EQ(ModelOf(*cache.Snapshot()), recorder.Instances());
  EXPECT_TRUE(cache.Snapshot()->current);
}

TEST_F(ServiceCacheTest, AnInstanceWithoutDataYetFillsInLater) {
  // A liveness node whose data node is not written yet, as during registration.
  ServiceCache cache(conn, type);
  Recorder recorder(cache);
  cache.Start();
  ASSERT_TRUE(cache.WaitUntilCurrent(10000ms));
  const ServiceId id = qx::korvel::RandomServiceId();
  const std::string name = qx::uuid::to_string(id);
  qx::korvel::EnsurePath(*conn, tree::AlivePath(type, id), true, ZOO_OPEN_ACL_UNSAFE);
  ASSERT_TRUE(WaitUntil([&] { return cache.Snapshot()->Find(id) != nullptr; }, 10000ms));
  EXPECT_TRUE(cache.Snapshot()->Find(id)->attributes.empty());
  qx::korvel::EnsurePath(*conn, tree::DataPath(type, id), false, ZOO_OPEN_ACL_UNSAFE);
  ASSERT_EQ(ZOK, conn->Create(tree::OwnAttributePath(tree::DataPath(type, id), tree::kStatus), "up",
                              ZOO_OPEN_ACL_UNSAFE, ZOO_EPHEMERAL, nullptr));
  ASSERT_TRUE(WaitForModel(cache, ReadTree(*conn, type)));
  EXPECT_EQ("up", *cache.Snapshot()->Find(id)->Attribute("status"));
  EXPECT_EQ(ModelOf(*cache.Snapshot()), recorder.Instances());
}

TEST_F(ServiceCacheTest, SurvivesTheLivenessDirectoryBeingDeletedAndMadeAgain) {
  ServiceCache cache(conn, type);  // the directory does not exist yet
  cache.Start();
  ASSERT_TRUE(cache.WaitUntilCurrent(10000ms));
  EXPECT_TRUE(cache.Snapshot()->instances.empty());
  auto a = Register("a");  // makes the directory
  ASSERT_TRUE(WaitForModel(cache, ReadTree(*conn, type)));
  EXPECT_EQ(1u, cache.Snapshot()->instances.size());
  a.reset();
  qx::korvel::RecursiveDelete(*conn, tree::AliveDir(type));
  ASSERT_TRUE(WaitForModel(cache, {}));
  auto b = Register("b");
  ASSERT_TRUE(WaitForModel(cache, ReadTree(*conn, type)));
  EXPECT_EQ(b->GetId(), cache.Snapshot()->instances.at(0)->id);
}

TEST_F(ServiceCacheTest, ACrashedInstanceLeaves) {
  auto crashConn = Connect(SharedServer().ConnectString());
  auto crashed = std::make_shared<Service>(crashConn, type, "crashed");
  auto steady = Register("steady");
  ServiceCache cache(conn, type);
  cache.Start();
  ASSERT_TRUE(cache.WaitUntilCurrent(10000ms));
  ASSERT_EQ(2u, cache.Snapshot()->instances.size());
  ExpireSession(SharedServer().ConnectString(), crashConn->ClientId());
  ASSERT_TRUE(WaitUntil([&] { return cache.Snapshot()->instances.size() == 1; }, 10000ms));
  EXPECT_EQ(steady->GetId(), cache.Snapshot()->instances[0]->id);
}

TEST_F(ServiceCacheTest, SessionExpiryMakesItStaleThenCurrentWithTheDifferences) {
  auto a = Register("a");
  auto readerConn = Connect(SharedServer().ConnectString());
  ServiceCache cache(readerConn, type);
  Recorder recorder(cache);
  cache.Start();
  ASSERT_TRUE(cache.WaitUntilCurrent(10000ms));
  // Block the reader's event thread while the session expires and the tree
  // changes, so that the change can only be learnt by listing again.
  auto b = Register("b");
  ExpireSession(SharedServer().ConnectString(), readerConn->ClientId());
  ASSERT_TRUE(recorder.WaitForType(Type::kStale));
  a->SetStatus(Service::UP);
  ASSERT_TRUE(WaitUntil(
      [&] {
        const auto snapshot = cache.Snapshot();
        return snapshot->current && ModelOf(*snapshot) == ReadTree(*conn, type);
      },
      15000ms));
  EXPECT_EQ(ModelOf(*cache.Snapshot()), recorder.Instances());
  const auto events = recorder.Events();
  const auto stale = std::find_if(events.begin(), events.end(),
                                  [](const auto& e) { return e.type == Type::kStale; });
  EXPECT_NE(events.end(), std::find_if(stale, events.end(),
                                       [](const auto& e) { return e.type == Type::kCurrent; }));
}

TEST_F(ServiceCacheTest, PickFollowsTheStrategy) {
  auto a = Register("a");
  auto b = Register("b");
  auto c = Register("c");
  a->SetStatus(Service::UP);
  b->SetStatus(Service::UP);
  c->SetStatus(Service::UP_SENDING_DISABLED);
  ServiceCache roundRobin(conn, type, ServiceCache::Selection::kRoundRobin);
  ServiceCache random(conn, type, ServiceCache::Selection::kRandom);
  ServiceCache sticky(conn, type, ServiceCache::Selection::kSticky);
  for (ServiceCache* cache : {&roundRobin, &random, &sticky}) {
    cache->Start();
    ASSERT_TRUE(cache->WaitUntilCurrent(10000ms));
  }
  const std::set<ServiceId> up{a->GetId(), b->GetId()};
  std::map<ServiceId, int> turns;
  for (int i = 0; i < 10; ++i) turns[roundRobin.Pick()->id]++;
  EXPECT_EQ((std::map<ServiceId, int>{{a->GetId(), 5}, {b->GetId(), 5}}), turns);
  for (int i = 0; i < 50; ++i) EXPECT_EQ(1u, up.count(random.Pick()->id));

  const ServiceId first = sticky.Pick()->id;
  for (int i = 0; i < 20; ++i) EXPECT_EQ(first, sticky.Pick()->id);
  (first == a->GetId() ? a : b)->SetStatus(Service::DOWN);
  const ServiceId other = first == a->GetId() ? b->GetId() : a->GetId();
  ASSERT_TRUE(WaitUntil([&] { return sticky.Pick()->id == other; }, 10000ms));
  (first == a->GetId() ? a : b)->SetStatus(Service::UP);
  ASSERT_TRUE(WaitUntil([&] { return sticky.Snapshot()->up.size() == 2; }, 10000ms));
  for (int i = 0; i < 20; ++i) EXPECT_EQ(other, sticky.Pick()->id);

  a->SetStatus(Service::DOWN);
  b->SetStatus(Service::DOWN);
  ASSERT_TRUE(WaitUntil([&] { return roundRobin.Pick() == nullptr; }, 10000ms));
}

TEST_F(ServiceCacheTest, ReadsAFinishedRegistrationOnceAndAnUnfinishedOneOnceMore) {
  // Two instances as registration leaves them, one with a version (written
  // last, so that registration is finished), one without.
  const std::string finished = Publish({"status", "hostname", "pid", "start_time", "version"});
  const std::string unfinished = Publish({"status", "hostname", "pid", "start_time"});

  auto readerConn = Connect(SharedServer().ConnectString());
  std::mutex mutex;
  std::map<std::string, int> reads;  // per instance
  readerConn->SetFaultInjector([&](Connection::Operation op, const std::string& path) {
    if (op == Connection::Operation::Get) {
      std::lock_guard<std::mutex> lock(mutex);
      ++reads[path.substr(tree::DataDir(type).size() + 1, 36)];
    }
    return std::optional<int>();
  });
  const auto readsOf = [&](const std::string& name) {
    std::lock_guard<std::mutex> lock(mutex);
    return reads[name];
  };
  ServiceCache cache(readerConn, type);
  cache.Start();
  ASSERT_TRUE(cache.WaitUntilCurrent(10000ms));
  ASSERT_TRUE(WaitUntil([&] { return readsOf(unfinished) >= 14; }, 10000ms));
  // A new instance is listed and read alone: the others are not read again.
  const std::string added = Publish(kOwnAttributes);
  ASSERT_TRUE(WaitForModel(cache, ReadTree(*conn, type)));
  std::lock_guard<std::mutex> lock(mutex);
  EXPECT_EQ(reads, (std::map<std::string, int>{{finished, 7}, {unfinished, 14}, {added, 7}}));
}

TEST_F(ServiceCacheTest, DestroyedOnTheEventThreadWhileItReads) {
  for (int i = 0; i < 300; ++i) Publish(kOwnAttributes);
  auto readerConn = Connect(SharedServer().ConnectString());
  auto cache = std::make_unique<ServiceCache>(readerConn, type);
  const std::string trigger = "/" + type + "-trigger";
  std::promise<std::chrono::steady_clock::duration> done;
  auto [rc, handle] = readerConn->Exists(
      trigger,
      [&](int, int, std::string) {
        const auto start = std::chrono::steady_clock::now();
        cache->WaitUntilCurrent(5000ms);  // does not wait here
        cache.reset();
        done.set_value(std::chrono::steady_clock::now() - start);
      },
      nullptr);
  ASSERT_EQ(ZNONODE, rc);
  cache->Start();
  // Fires while the cache reads its 2,100 attributes, answered on this very thread.
  ASSERT_EQ(ZOK, conn->Create(trigger, "", ZOO_OPEN_ACL_UNSAFE, ZOO_EPHEMERAL, nullptr));
  auto took = done.get_future();
  ASSERT_EQ(std::future_status::ready, took.wait_for(10s));
  EXPECT_LT(took.get(), 1s);
  // The connection still delivers.
  EventLog log;
  auto [rc2, later] = readerConn->Exists(trigger + "-2", log.Callback(), nullptr);
  ASSERT_EQ(ZOK, conn->Create(trigger + "-2", "", ZOO_OPEN_ACL_UNSAFE, ZOO_EPHEMERAL, nullptr));
  EXPECT_TRUE(log.WaitFor(1));
}

TEST_F(ServiceCacheTest, AListenerMayChangeTheListenersAndDestroyTheCache) {
  auto a = Register("a");
  auto b = Register("b");
  auto cache = std::make_unique<ServiceCache>(conn, type);
  std::atomic<int> calls{0};
  std::atomic<bool> destroyed{false};
  auto held = std::make_shared<int>();  // lives as long as the cache keeps the listener
  const std::weak_ptr<int> heldByTheCache = held;
  cache->AddListener([&, held = std::move(held)](const ServiceCacheEvent&) {
    ++calls;
    const int other = cache->AddListener([](const ServiceCacheEvent&) {});
    cache->RemoveListener(other);
    cache.reset();
    destroyed = true;
  });
  cache->Start();
  ASSERT_TRUE(WaitUntil([&] { return destroyed.load(); }, 10000ms));
  // The cache's thread lets go of its listeners when it ends: none is called after.
  ASSERT_TRUE(WaitUntil([&] { return heldByTheCache.expired(); }, 10000ms));
  EXPECT_EQ(1, calls);  // the first of the events (a, b, current): none after
}

TEST_F(ServiceCacheTest, NoListenerCallAfterDestruction) {
  auto a = Register("a");
  std::atomic<bool> destroyed{false};
  std::atomic<int> late{0};
  auto held = std::make_shared<int>();  // lives as long as the cache keeps the listener
  const std::weak_ptr<int> heldByTheCache = held;
  {
    ServiceCache cache(conn, type);
    cache.AddListener([&, held = std::move(held)](const ServiceCacheEvent&) {
      if (destroyed) late++;
      std::this_thread::sleep_for(1ms);
    });
    cache.Start();
    ASSERT_TRUE(cache.WaitUntilCurrent(10000ms));
    for (int i = 0; i < 5; ++i) a->SetStatus(i % 2 ? Service::UP : Service::DOWN);
  }
  destroyed = true;
  for (int i = 0; i < 5; ++i) a->SetStatus(i % 2 ? Service::UP : Service::DOWN);
  // Once the cache has let go of its listeners, none can be called.
  ASSERT_TRUE(WaitUntil([&] { return heldByTheCache.expired(); }, 10000ms));
  EXPECT_EQ(0, late.load());
}

TEST_F(ServiceCacheTest, SnapshotsAreSharedAndImmutable) {
  auto a = Register("a");
  ServiceCache cache(conn, type);
  cache.Start();
  ASSERT_TRUE(cache.WaitUntilCurrent(10000ms));
  const auto before = cache.Snapshot();
  EXPECT_EQ(before.get(), cache.Snapshot().get());
  a->SetStatus(Service::UP);
  ASSERT_TRUE(WaitUntil([&] { return cache.Snapshot()->version > before->version; }, 10000ms));
  EXPECT_EQ("down", *before->Find(a->GetId())->Attribute("status"));
  // Another thread sees the same snapshot.
  const ServiceSnapshot* seen = nullptr;
  std::thread([&] { seen = cache.Snapshot().get(); }).join();
  EXPECT_EQ(cache.Snapshot().get(), seen);
}

// Registrations, teardowns, crashes and status changes in random order: the
// final snapshot equals the tree read afresh, and the events applied to the
// first snapshot give the last; also when the cache coalesces its listings.
class ServiceCacheRandomTest : public ServiceCacheTest,
                               public ::testing::WithParamInterface<std::chrono::milliseconds> {};

INSTANTIATE_TEST_SUITE_P(ListingWindows, ServiceCacheRandomTest, ::testing::Values(0ms, 150ms));

TEST_P(ServiceCacheRandomTest, RandomChangesAreReportedExactly) {
  std::mt19937 random(20261122);
  std::vector<std::shared_ptr<Service>> services;
  std::vector<std::shared_ptr<Connection>> crashable;
  for (int i = 0; i < 3; ++i) services.push_back(Register("s" + std::to_string(i)));
  ServiceCache cache(conn, type, ServiceCache::Selection::kRoundRobin, GetParam());
  Recorder recorder(cache);
  cache.Start();
  ASSERT_TRUE(cache.WaitUntilCurrent(10000ms));
  for (int step = 0; step < 60; ++step) {
    switch (random() % 4) {
      case 0:
        services.push_back(Register("s" + std::to_string(step)));
        break;
      case 1:
        if (!services.empty()) services.erase(services.begin() + random() % services.size());
        break;
      case 2: {
        auto own = Connect(SharedServer().ConnectString());
        services.push_back(std::make_shared<Service>(own, type, "crash"));
        if (random() % 2) ExpireSession(SharedServer().ConnectString(), own->ClientId());
        crashable.push_back(own);
        break;
      }
      default:
        if (!services.empty()) {
          try {
            services[random() % services.size()]->SetStatus(
                static_cast<Service::Status>(random() % 3));
          } catch (const qx::korvel::KorvelError&) {
            // A crashed instance has no status node left.
          }
        }
        break;
    }
    if (step % 7 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(random() % 20));
  }
  ASSERT_TRUE(WaitUntil(
      [&] {
        const auto snapshot = cache.Snapshot();
        return snapshot->current && ModelOf(*snapshot) == ReadTree(*conn, type);
      },
      20000ms));
  EXPECT_TRUE(
      WaitUntil([&] { return recorder.Instances() == ModelOf(*cache.Snapshot()); }, 5000ms));
}

// With a listing window, a burst of registrations costs the cache at most one
// listing per window, plus the one that the first change after a quiet spell
// causes at once, and the cache still ends equal to the tree.
TEST_F(ServiceCacheTest, AListingWindowCoalescesTheListingsOfABurst) {
  constexpr auto kWindow = 500ms;
  auto cacheConn = Connect(SharedServer().ConnectString());
  ServiceCache cache(cacheConn, type, ServiceCache::Selection::kRoundRobin, kWindow);
  cache.Start();
  ASSERT_TRUE(cache.WaitUntilCurrent(10000ms));
  const auto listings = CountListings(*cacheConn);
  const auto start = std::chrono::steady_clock::now();
  std::vector<std::shared_ptr<Service>> services;
  for (int i = 0; i < 40; ++i) services.push_back(Register("b" + std::to_string(i)));
  ASSERT_TRUE(WaitUntil(
      [&] {
        const auto snapshot = cache.Snapshot();
        return snapshot->instances.size() == 40 && ModelOf(*snapshot) == ReadTree(*conn, type);
      },
      20000ms));
  const auto elapsed = std::chrono::steady_clock::now() - start;
  cacheConn->SetFaultInjector(nullptr);
  EXPECT_GE(listings->load(), 1);
  EXPECT_LE(listings->load(), 2 + elapsed / kWindow) << "in " << (elapsed / 1ms) << " ms";
  EXPECT_THROW(ServiceCache(conn, type, ServiceCache::Selection::kRoundRobin, -1ms),
               std::invalid_argument);
}

// Caches of one type on one connection list once per change between them; a
// cache started later hears at once of what the earlier one knows, and one
// stopping leaves the other working.
TEST_F(ServiceCacheTest, CachesOfOneTypeOnOneConnectionShareTheirReading) {
  std::vector<std::shared_ptr<Service>> services{Register("s0"), Register("s1"), Register("s2")};
  auto cacheConn = Connect(SharedServer().ConnectString());
  ServiceCache first(cacheConn, type);
  Recorder firstEvents(first);
  first.Start();
  ASSERT_TRUE(first.WaitUntilCurrent(10000ms));

  ServiceCache second(cacheConn, type, ServiceCache::Selection::kSticky);
  Recorder secondEvents(second);
  second.Start();
  ASSERT_TRUE(secondEvents.WaitForType(Type::kCurrent));
  EXPECT_EQ(ReadTree(*conn, type), secondEvents.Instances());
  EXPECT_EQ(3u, secondEvents.Events().size() - 1);

  const auto listings = CountListings(*cacheConn);
  constexpr int kRegistrations = 4;
  for (int i = 0; i < kRegistrations; ++i) {
    services.push_back(Register("n" + std::to_string(i)));
    const Model tree = ReadTree(*conn, type);
    ASSERT_TRUE(WaitUntil(
        [&] { return firstEvents.Instances() == tree && secondEvents.Instances() == tree; },
        10000ms));
  }
  cacheConn->SetFaultInjector(nullptr);
  EXPECT_EQ(kRegistrations, listings->load());

  first.Stop();
  EXPECT_FALSE(first.Snapshot()->current);
  services.push_back(Register("after"));
  EXPECT_TRUE(WaitForModel(second, ReadTree(*conn, type)));
  EXPECT_TRUE(second.Snapshot()->current);
  EXPECT_EQ(services.size(), second.Snapshot()->instances.size());
  EXPECT_EQ(services.size() - 1, firstEvents.Instances().size());
  EXPECT_EQ(services.size() - 1, first.Snapshot()->instances.size());
}

// The cache keeps one child watch for the type and one data watch per
// instance, and leaves none on the server once stopped.
TEST(ServiceCacheWatchTest, WatchesAreBoundedAndRemovedOnStop) {
  ZooKeeperServer server;
  auto conn = Connect(server.ConnectString());
  const std::string type = UniqueName("watches");
  const auto dataWatches = [&] {
    const std::string report = FourLetterWord(server.Port(), "wchs", 2000ms);
    const auto at = report.find("Total watches:");
    return at == std::string::npos ? -1 : std::stoi(report.substr(at + 14));
  };
  std::vector<std::shared_ptr<Service>> services;
  for (int i = 0; i < 4; ++i) services.push_back(std::make_shared<Service>(conn, type, "w"));
  ASSERT_EQ(0, dataWatches());
  auto readerConn = Connect(server.ConnectString());
  {
    ServiceCache cache(readerConn, type);
    cache.Start();
    ASSERT_TRUE(cache.WaitUntilCurrent(10000ms));
    for (int round = 0; round < 3; ++round) {
      for (auto& service : services) service->SetStatus(round % 2 ? Service::UP : Service::DOWN);
    }
    ASSERT_TRUE(
        WaitUntil([&] { return ModelOf(*cache.Snapshot()) == ReadTree(*conn, type); }, 10000ms));
    EXPECT_TRUE(WaitUntil([&] { return dataWatches() == 4; }, 5000ms)) << dataWatches();
    services.pop_back();
    ASSERT_TRUE(WaitUntil([&] { return cache.Snapshot()->instances.size() == 3; }, 10000ms));
    EXPECT_TRUE(WaitUntil([&] { return dataWatches() == 3; }, 5000ms)) << dataWatches();
  }
  EXPECT_TRUE(WaitUntil([&] { return dataWatches() == 0; }, 5000ms)) << dataWatches();
}

TEST(ServiceCacheServerTest, StartsWithTheServerDownAndFillsInOnceItIsUp) {
  ZooKeeperServer server;
  auto conn = Connect(server.ConnectString(), 10000ms);
  const std::string type = UniqueName("down");
  auto service = std::make_shared<Service>(conn, type, "early");
  auto readerConn = Connect(server.ConnectString(), 10000ms);
  LogCapture quiet;
  server.Stop();
  ServiceCache cache(readerConn, type);
  cache.Start();
  EXPECT_FALSE(cache.WaitUntilCurrent(500ms));
  EXPECT_TRUE(cache.Snapshot()->instances.empty());
  server.Start();
  ASSERT_TRUE(cache.WaitUntilCurrent(15000ms));
  EXPECT_TRUE(
      WaitUntil([&] { return cache.Snapshot()->Find(service->GetId()) != nullptr; }, 10000ms));
}

TEST(ServiceCacheServerTest, ALongOutageMakesItStaleUntilTheServerIsBack) {
  ZooKeeperServer server;
  auto conn = Connect(server.ConnectString(), 2000ms);
  const std::string type = UniqueName("outage");
  auto service = std::make_shared<Service>(conn, type, "x");
  service->RegisterForSessionEvent();
  auto readerConn = Connect(server.ConnectString(), 2000ms);
  ServiceCache cache(readerConn, type);
  Recorder recorder(cache);
  cache.Start();
  ASSERT_TRUE(cache.WaitUntilCurrent(10000ms));
  LogCapture quiet;
  server.Pause();
  ASSERT_TRUE(recorder.WaitForType(Type::kStale, 10000ms));
  EXPECT_FALSE(cache.Snapshot()->current);
  EXPECT_EQ(1u, cache.Snapshot()->instances.size());  // what it knew, marked stale
  server.Resume();
  ASSERT_TRUE(WaitUntil(
      [&] {
        const auto snapshot = cache.Snapshot();
        return snapshot->current && ModelOf(*snapshot) == ReadTree(*conn, type) &&
               snapshot->instances.size() == 1;
      },
      20000ms));
}

}  // namespace
}  // namespace korvel::test
