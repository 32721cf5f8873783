// Unit tests of the stlext helpers, the service id and the library's error type.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <boost/lexical_cast.hpp>
#include <boost/uuid/uuid.hpp>
#include <boost/uuid/uuid_io.hpp>

#include "korvel/error.h"
#include "korvel/service_id.h"
#include "stlext/observable_impl.h"
#include "stlext/sstream.h"
#include "stlext/string.h"
#include "stlext/uuid.h"

namespace {

using namespace std::chrono_literals;
using qx::korvel::KorvelError;
using qx::korvel::RandomServiceId;
using qx::korvel::ServiceId;

// ---------------------------------------------------------------- uuid text

TEST(UuidToString, AllZero) {
  const boost::uuids::uuid id{};
  EXPECT_EQ(qx::uuid::to_string(id), "00000000-0000-0000-0000-000000000000");
}

TEST(UuidToString, KnownBytes) {
  boost::uuids::uuid id{};
  for (std::size_t i = 0; i < 16; ++i) id.data[i] = static_cast<std::uint8_t>(i + 1);
  EXPECT_EQ(qx::uuid::to_string(id), "01020304-0506-0708-090a-0b0c0d0e0f10");
}

TEST(UuidToString, AllOnesIsLowerCase) {
  boost::uuids::uuid id{};
  for (auto& byte : id.data) byte = 0xff;
  EXPECT_EQ(qx::uuid::to_string(id), "ffffffff-ffff-ffff-ffff-ffffffffffff");
}

TEST(UuidToString, ParsedTextRoundTripsToLowerCase) {
  const auto id = boost::lexical_cast<boost::uuids::uuid>("6BA7B810-9DAD-11D1-80B4-00C04FD430C8");
  EXPECT_EQ(qx::uuid::to_string(id), "6ba7b810-9dad-11d1-80b4-00c04fd430c8");
}

TEST(UuidToString, MatchesBoostForRandomIds) {
  for (int i = 0; i < 300; ++i) {
    const ServiceId id = RandomServiceId();
    const qx::String text = qx::uuid::to_string(id);
    ASSERT_EQ(text.size(), 36u);
    ASSERT_EQ(text, boost::uuids::to_string(id));
  }
}

// What boost::lexical_cast makes of `text`: false when it refuses it.
bool LexicalCast(const std::string& text, ServiceId& id) {
  try {
    id = boost::lexical_cast<ServiceId>(text);
    return true;
  } catch (const boost::bad_lexical_cast&) {
    return false;
  }
}

TEST(UuidFromString, ParsesEitherCase) {
  ServiceId id;
  ASSERT_TRUE(qx::uuid::from_string("6BA7B810-9dad-11D1-80b4-00C04FD430C8", id));
  EXPECT_EQ(qx::uuid::to_string(id), "6ba7b810-9dad-11d1-80b4-00c04fd430c8");
}

TEST(UuidFromString, RefusesOtherTextsAndLeavesTheIdAlone) {
  const ServiceId before = RandomServiceId();
  for (const std::string text :
       {"", "6ba7b810-9dad-11d1-80b4-00c04fd430c", "6ba7b810-9dad-11d1-80b4-00c04fd430c8a",
        "{6ba7b810-9dad-11d1-80b4-00c04fd430c8}", "6ba7b8109dad11d180b400c04fd430c8",
        "6ba7b810-9dad-11d1-80b4-00c04fd430cg", "6ba7b810-9dad-11d180-b4-00c04fd430c8",
        " 6ba7b810-9dad-11d1-80b4-00c04fd430c", "6ba7b810-9dad-11d1-80b4-00c04fd430c "}) {
    ServiceId id = before;
    EXPECT_FALSE(qx::uuid::from_string(text, id)) << text;
    EXPECT_EQ(id, before) << text;
  }
}

TEST(UuidFromString, AcceptsExactlyWhatLexicalCastAccepts) {
  // Random ids, each with one character replaced by a character that may or
  // may not belong there.
  const std::string replacements = "0aF-g {}xZ9 \t";
  for (int i = 0; i < 2000; ++i) {
    std::string text = qx::uuid::to_string(RandomServiceId());
    if (i % 4 != 0)
      text[static_cast<std::size_t>(i) % text.size()] = replacements[i % replacements.size()];
    ServiceId ours{}, theirs{};
    const bool accepted = qx::uuid::from_string(text, ours);
    ASSERT_EQ(accepted, LexicalCast(text, theirs)) << text;
    if (accepted) {
      ASSERT_EQ(ours, theirs) << text;
    }
  }
}

// ---------------------------------------------------------- RandomServiceId

TEST(RandomServiceIdTest, DistinctAndVersion4) {
  std::set<ServiceId> seen;
  for (int i = 0; i < 3000; ++i) {
    const ServiceId id = RandomServiceId();
    EXPECT_EQ(id.version(), boost::uuids::uuid::version_random_number_based);
    EXPECT_EQ(id.variant(), boost::uuids::uuid::variant_rfc_4122);
    seen.insert(id);
  }
  EXPECT_EQ(seen.size(), 3000u);
}

TEST(RandomServiceIdTest, DistinctAcrossThreads) {
  constexpr int kPerThread = 2000;
  std::vector<ServiceId> a, b;
  auto fill = [](std::vector<ServiceId>* out) {
    for (int i = 0; i < kPerThread; ++i) out->push_back(RandomServiceId());
  };
  std::thread ta(fill, &a);
  std::thread tb(fill, &b);
  ta.join();
  tb.join();
  std::set<ServiceId> seen(a.begin(), a.end());
  seen.insert(b.begin(), b.end());
  EXPECT_EQ(seen.size(), 2u * kPerThread);
  for (const auto& id : b) {
    EXPECT_EQ(id.version(), boost::uuids::uuid::version_random_number_based);
  }
}

// ---------------------------------------------------------- IPStringStream

TEST(IPStringStreamTest, TextAccumulatesAndResetEmpties) {
  qx::IPStringStream stream;
  stream << "a" << 1 << ' ' << 2.5;
  stream.put('!');
  EXPECT_EQ(qx::Finish(stream), "a1 2.5!");
  stream << "more";
  EXPECT_EQ(qx::Finish(stream), "a1 2.5!more");

  const qx::String kept = qx::Finish(stream);
  qx::Reset(stream, 64);
  EXPECT_EQ(qx::Finish(stream), "");
  EXPECT_EQ(kept, "a1 2.5!more");  // a copy outlives the reset

  stream << "next";
  EXPECT_EQ(qx::Finish(stream), "next");
}

TEST(IPStringStreamTest, LongWriteIsWhole) {
  qx::IPStringStream stream;
  const std::string big(10000, 'x');
  stream.write(big.data(), static_cast<std::streamsize>(big.size()));
  stream << 'y';
  EXPECT_EQ(qx::Finish(stream), big + "y");
}

TEST(IPStringStreamTest, ResetClearsErrorState) {
  qx::IPStringStream stream;
  stream << "before";
  stream.setstate(std::ios::badbit);
  stream << "ignored";
  EXPECT_FALSE(stream.good());
  EXPECT_EQ(qx::Finish(stream), "before");

  qx::Reset(stream, 64);
  EXPECT_TRUE(stream.good());
  stream << "after";
  EXPECT_EQ(qx::Finish(stream), "after");
}

TEST(IPStringStreamTest, SmallBufferKeptLargeBufferReleased) {
  qx::IPStringStream stream;
  stream << std::string(200, 'a');
  const std::size_t small = stream.Text().capacity();
  ASSERT_GE(small, 200u);
  qx::Reset(stream, 1024);
  EXPECT_TRUE(stream.Text().empty());
  EXPECT_EQ(stream.Text().capacity(), small);  // at most the limit: kept

  stream << std::string(5000, 'b');
  ASSERT_GT(stream.Text().capacity(), 1024u);
  qx::Reset(stream, 1024);
  EXPECT_TRUE(stream.Text().empty());
  EXPECT_LE(stream.Text().capacity(), 1024u);  // beyond the limit: released

  stream << "reuse";
  EXPECT_EQ(qx::Finish(stream), "reuse");
}

// --------------------------------------------------------------- fast_resize

TEST(FastResize, GrowsWithZeroBytes) {
  qx::String s = "abc";
  qx::fast_resize(s, 8);
  EXPECT_EQ(s, std::string("abc\0\0\0\0\0", 8));
}

TEST(FastResize, RegrowAfterShrinkDoesNotExposeOldBytes) {
  qx::String s = "abcdefghijklmnopqrstuvwxyz";  // heap buffer keeps the old bytes
  qx::fast_resize(s, 2);
  EXPECT_EQ(s, "ab");
  qx::fast_resize(s, 26);
  ASSERT_EQ(s.size(), 26u);
  EXPECT_EQ(s.substr(0, 2), "ab");
  for (std::size_t i = 2; i < s.size(); ++i) EXPECT_EQ(s[i], '\0') << "at " << i;
}

// ---------------------------------------------------------- ObservableImpl

struct Obs {
  explicit Obs(int id) : id(id) {}
  int id;
};

// Exposes the protected parts for the tests.
class TestObservable : public qx::ObservableImpl<Obs> {
 public:
  using qx::ObservableImpl<Obs>::Notify;
  const std::vector<std::shared_ptr<Obs>>& Strong() const { return m_observers; }
  const std::vector<std::weak_ptr<Obs>>& Weak() const { return m_weakObservers; }

  std::vector<int> NotifiedIds() {
    std::vector<int> ids;
    Notify([&](Obs& o) { ids.push_back(o.id); });
    return ids;
  }
};

TEST(ObservableImplTest, EmptyOrExpiredRegistersNothing) {
  TestObservable registry;
  registry.RegisterWeak(std::weak_ptr<Obs>());
  std::weak_ptr<Obs> expired;
  {
    auto obs = std::make_shared<Obs>(1);
    expired = obs;
  }
  ASSERT_TRUE(expired.expired());
  registry.RegisterWeak(expired);
  registry.Register(nullptr);
  EXPECT_TRUE(registry.Strong().empty());
  EXPECT_TRUE(registry.Weak().empty());
}

TEST(ObservableImplTest, WeakTwiceGivesTwoEntries) {
  TestObservable registry;
  auto obs = std::make_shared<Obs>(1);
  registry.RegisterWeak(obs);
  registry.RegisterWeak(obs);
  ASSERT_EQ(registry.Strong().size(), 2u);
  ASSERT_EQ(registry.Weak().size(), 2u);
  for (std::size_t i = 0; i < 2; ++i) {
    EXPECT_EQ(registry.Strong()[i], nullptr);
    EXPECT_EQ(registry.Weak()[i].lock(), obs);
  }
  EXPECT_EQ(obs.use_count(), 1);  // not kept alive by the registry
  EXPECT_EQ(registry.NotifiedIds(), (std::vector<int>{1, 1}));
}

TEST(ObservableImplTest, NotifyInOrderSkipsAndDropsExpired) {
  TestObservable registry;
  auto a = std::make_shared<Obs>(1);
  auto b = std::make_shared<Obs>(2);
  auto c = std::make_shared<Obs>(3);
  auto d = std::make_shared<Obs>(4);
  registry.RegisterWeak(a);
  registry.RegisterWeak(b);
  registry.Register(d);
  registry.RegisterWeak(c);
  EXPECT_EQ(registry.NotifiedIds(), (std::vector<int>{1, 2, 4, 3}));

  b.reset();
  EXPECT_EQ(registry.NotifiedIds(), (std::vector<int>{1, 4, 3}));
  EXPECT_EQ(registry.Strong().size(), 3u);
  EXPECT_EQ(registry.Weak().size(), 3u);
  // The strong entry stayed paired with its weak entry.
  EXPECT_EQ(registry.Strong()[1], d);
  EXPECT_EQ(registry.Weak()[1].lock(), d);
}

TEST(ObservableImplTest, StrongKeepsAliveUntilUnregistered) {
  TestObservable registry;
  std::weak_ptr<Obs> watch;
  Obs* raw = nullptr;
  {
    auto obs = std::make_shared<Obs>(7);
    watch = obs;
    raw = obs.get();
    registry.Register(obs);
  }
  EXPECT_FALSE(watch.expired());
  EXPECT_EQ(registry.NotifiedIds(), (std::vector<int>{7}));
  ASSERT_EQ(registry.Strong().size(), 1u);
  EXPECT_EQ(registry.Strong()[0].get(), raw);

  registry.Unregister(raw);
  EXPECT_TRUE(watch.expired());
  EXPECT_TRUE(registry.NotifiedIds().empty());
}

TEST(ObservableImplTest, UnregisterRemovesEveryEntryOfThatObserver) {
  TestObservable registry;
  auto a = std::make_shared<Obs>(1);
  auto b = std::make_shared<Obs>(2);
  registry.RegisterWeak(a);
  registry.RegisterWeak(b);
  registry.Register(a);
  registry.RegisterWeak(a);
  registry.Unregister(a.get());
  EXPECT_EQ(registry.Strong().size(), 1u);
  ASSERT_EQ(registry.Weak().size(), 1u);
  EXPECT_EQ(registry.Weak()[0].lock(), b);
  EXPECT_EQ(registry.NotifiedIds(), (std::vector<int>{2}));
  EXPECT_EQ(a.use_count(), 1);  // the strong entry is gone too
}

TEST(ObservableImplTest, ObserverMayRegisterAndUnregisterDuringNotify) {
  // Shared with the worker so that a deadlocked worker never outlives them.
  auto registry = std::make_shared<TestObservable>();
  auto first = std::make_shared<Obs>(1);
  auto added = std::make_shared<Obs>(2);
  registry->Register(first);

  auto done = std::make_shared<std::promise<void>>();
  std::future<void> finished = done->get_future();
  std::thread([registry, first, added, done] {
    registry->Notify([&](Obs& o) {
      if (o.id != 1) return;
      registry->RegisterWeak(added);
      registry->Register(added);
      registry->Unregister(first.get());
    });
    done->set_value();
  }).detach();
  ASSERT_EQ(finished.wait_for(5s), std::future_status::ready) << "Notify deadlocked";

  EXPECT_EQ(registry->NotifiedIds(), (std::vector<int>{2, 2}));
}

TEST(ObservableImplTest, ExpiredEntriesAreDroppedWithoutANotification) {
  TestObservable registry;
  auto kept = std::make_shared<Obs>(1);
  registry.RegisterWeak(kept);
  for (int i = 0; i < 10000; ++i) registry.RegisterWeak(std::make_shared<Obs>(2));
  // Each of those died at once; only a few of their entries may remain.
  EXPECT_LE(registry.Weak().size(), 64u);
  EXPECT_EQ(registry.Weak().size(), registry.Strong().size());
  EXPECT_EQ(registry.NotifiedIds(), (std::vector<int>{1}));
}

// -------------------------------------------------------------- KorvelError

TEST(KorvelErrorTest, CaughtAsRuntimeError) {
  bool caught = false;
  try {
    throw KorvelError("korvel failed");
  } catch (const std::runtime_error& e) {
    caught = true;
    EXPECT_STREQ(e.what(), "korvel failed");
  }
  EXPECT_TRUE(caught);
}

TEST(KorvelErrorTest, DistinctFromPlainRuntimeError) {
  static_assert(!std::is_same_v<KorvelError, std::runtime_error>);
  static_assert(std::is_base_of_v<std::runtime_error, KorvelError>);
  bool asKorvel = false;
  bool asRuntime = false;
  try {
    try {
      throw std::runtime_error("plain");
    } catch (const KorvelError&) {
      asKorvel = true;
    }
  } catch (const std::runtime_error& e) {
    asRuntime = true;
    EXPECT_STREQ(e.what(), "plain");
  }
  EXPECT_FALSE(asKorvel);
  EXPECT_TRUE(asRuntime);
}

TEST(KorvelErrorTest, CopyableAndMovable) {
  static_assert(std::is_nothrow_copy_constructible_v<KorvelError>);
  static_assert(std::is_copy_assignable_v<KorvelError>);
  static_assert(std::is_move_constructible_v<KorvelError>);
  static_assert(std::is_move_assignable_v<KorvelError>);

  const KorvelError original("first");
  KorvelError copy(original);
  EXPECT_STREQ(copy.what(), "first");
  KorvelError moved(std::move(copy));
  EXPECT_STREQ(moved.what(), "first");
  KorvelError assigned("second");
  assigned = original;
  EXPECT_STREQ(assigned.what(), "first");
  KorvelError moveAssigned("third");
  moveAssigned = std::move(moved);
  EXPECT_STREQ(moveAssigned.what(), "first");
  EXPECT_STREQ(original.what(), "first");

  bool caught = false;
  try {
    throw assigned;
  } catch (const KorvelError& e) {
    caught = true;
    EXPECT_STREQ(e.what(), "first");
  }
  EXPECT_TRUE(caught);
}

}  // namespace
