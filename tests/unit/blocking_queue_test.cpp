#include "raw_packets/blocking_queue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <climits>
#include <future>
#include <string>
#include <type_traits>
#include <vector>

#include "raw_packets/mem_pool.h"
#include "support/eventually.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr int kUnbounded = 2147483647;
constexpr unsigned kLongMs = 600000;  // far beyond the deadline of every test
constexpr auto kDeadline = std::chrono::seconds(20);

/// Notes the calls of the hooks and of the disposer, and can wake those who wait without a change.
template <class T>
class NotingQueue : public nuv::BlockingQueue<T> {
 public:
  NotingQueue() {
    this->m_free_func = [this](T& value) { m_freed.push_back(value); };
  }

  void without_disposer() { this->m_free_func = nullptr; }
  void wake_everybody() {
    this->m_not_empty.notify_all();
    this->m_not_full.notify_all();
  }

  std::vector<T> m_enqueued, m_dequeued, m_freed;
  int m_clears = 0;
  size_t m_freed_at_clear_event = 0;

 private:
  void on_node_deque_event(const T& value) override { m_dequeued.push_back(value); }
  void on_node_enque_event(const T& value) override { m_enqueued.push_back(value); }
  void on_clear_event() override {
    ++m_clears;
    m_freed_at_clear_event = m_freed.size();
    EXPECT_TRUE(this->m_queue.empty());
  }
};

template <class T>
T element(int number);
template <>
long long element<long long>(int number) {
  return 1000LL + number;
}
template <>
nuv::MRMemNode* element<nuv::MRMemNode*>(int number) {
  static std::array<nuv::MRMemNode, 1000> nodes{};
  return &nodes.at(static_cast<size_t>(number));
}

template <class T>
class BlockingQueueTest : public testing::Test {
 protected:
  static T make(int number) { return element<T>(number); }

  int push(int number, int max_size = kUnbounded, bool block = false, unsigned timeout_ms = 0) {
    return m_queue._push_back_(make(number), max_size, block, timeout_ms);
  }
  void fill(int count) {
    for (int i = 0; i < count; ++i) ASSERT_EQ(push(i), nuv::kQueueDone);
  }
  int get(bool block, unsigned timeout_ms = 0, bool pop = true) {
    return m_queue._get_front_(m_value, block, timeout_ms, pop);
  }

  /// Starts a call on a thread of its own, and sees that it waits.
  template <class Call>
  std::future<int> waiting(Call call) {
    std::future<int> result = std::async(std::launch::async, call);
    EXPECT_EQ(result.wait_for(milliseconds(20)), std::future_status::timeout);
    return result;
  }
  std::future<int> waiting_push(int number, int max_size) {
    return waiting([=] { return push(number, max_size, true); });
  }
  std::future<int> waiting_get() {
    return waiting([this] { return get(true); });
  }
  static int result_of(std::future<int>* call) {
    return call->wait_for(kDeadline) == std::future_status::ready ? call->get() : -1000;
  }

  NotingQueue<T> m_queue;
  T m_value = make(999);
};

using Elements = testing::Types<long long, nuv::MRMemNode*>;
struct ElementNames {
  template <class T>
  static std::string GetName(int /*index*/) {
    return std::is_pointer_v<T> ? "Nodes" : "Stamps";
  }
};
TYPED_TEST_SUITE(BlockingQueueTest, Elements, ElementNames);

TYPED_TEST(BlockingQueueTest, GivesElementsInTheOrderTheyCame) {
  this->fill(5);
  EXPECT_EQ(this->m_queue.size(), 5);
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(this->get(i % 2 == 0), nuv::kQueueDone);
    EXPECT_EQ(this->m_value, this->make(i));
  }
  EXPECT_EQ(this->m_queue.size(), 0);
  EXPECT_EQ(this->push(7), nuv::kQueueDone);
  EXPECT_EQ(this->get(true), nuv::kQueueDone);
  EXPECT_EQ(this->m_value, this->make(7));
}

TYPED_TEST(BlockingQueueTest, CodesAreFixed) {
  EXPECT_EQ(this->push(0, 1), 0);
  EXPECT_EQ(this->push(1, 1), 3);
  EXPECT_EQ(this->get(false), 0);
  EXPECT_EQ(this->get(false), 2);
  this->m_queue.abort();
  EXPECT_EQ(this->push(2), 1);
  EXPECT_EQ(this->get(false), 1);
}

TYPED_TEST(BlockingQueueTest, EmptyQueueIsToldAtOnce) {
  const auto start = steady_clock::now();
  EXPECT_EQ(this->get(false), nuv::kQueueEmpty);
  EXPECT_LT(steady_clock::now() - start, kDeadline);
  EXPECT_EQ(this->m_value, this->make(999)) << "unchanged";
}

TYPED_TEST(BlockingQueueTest, TimedGetGivesUpAfterItsTime) {
  const auto start = steady_clock::now();
  EXPECT_EQ(this->get(false, 50), nuv::kQueueEmpty);
  const auto waited = steady_clock::now() - start;
  EXPECT_GE(waited, milliseconds(50));
  EXPECT_LT(waited, kDeadline);
}

TYPED_TEST(BlockingQueueTest, TimedPushGivesUpAfterItsTime) {
  this->fill(3);
  const auto start = steady_clock::now();
  EXPECT_EQ(this->push(3, 3, false, 50), nuv::kQueueFull);
  const auto waited = steady_clock::now() - start;
  EXPECT_GE(waited, milliseconds(50));
  EXPECT_LT(waited, kDeadline);
  EXPECT_EQ(this->m_queue.size(), 3);
}

TYPED_TEST(BlockingQueueTest, TimedGetTakesWhatArrivesInTime) {
  auto call = this->waiting([this] { return this->get(false, kLongMs); });
  EXPECT_EQ(this->push(4), nuv::kQueueDone);
  EXPECT_EQ(this->result_of(&call), nuv::kQueueDone);
  EXPECT_EQ(this->m_value, this->make(4));
}

TYPED_TEST(BlockingQueueTest, TimedPushTakesTheRoomThatIsMadeInTime) {
  this->fill(2);
  auto call = this->waiting([this] { return this->push(2, 2, false, kLongMs); });
  EXPECT_EQ(this->get(false), nuv::kQueueDone);
  EXPECT_EQ(this->result_of(&call), nuv::kQueueDone);
  EXPECT_EQ(this->m_queue.size(), 2);
}

TYPED_TEST(BlockingQueueTest, TimedGetWaitsOnceOnly) {
  auto call = this->waiting([this] { return this->get(false, kLongMs); });
  ASSERT_TRUE(meru_test::eventually([&] {
    this->m_queue.wake_everybody();
    return call.wait_for(milliseconds(0)) == std::future_status::ready;
  }));
  EXPECT_EQ(call.get(), nuv::kQueueEmpty);
}

TYPED_TEST(BlockingQueueTest, TimedPushWaitsOnceOnly) {
  auto call = this->waiting([this] { return this->push(0, 0, false, kLongMs); });
  ASSERT_TRUE(meru_test::eventually([&] {
    this->m_queue.clear();
    return call.wait_for(milliseconds(0)) == std::future_status::ready;
  }));
  EXPECT_EQ(call.get(), nuv::kQueueFull);
}

TYPED_TEST(BlockingQueueTest, BlockingCallsGoOnWaitingAfterAWakeUpForNothing) {
  auto get = this->waiting_get();
  auto push = this->waiting_push(0, 0);
  this->m_queue.wake_everybody();
  EXPECT_EQ(get.wait_for(milliseconds(20)), std::future_status::timeout);
  EXPECT_EQ(push.wait_for(milliseconds(20)), std::future_status::timeout);
  this->m_queue.abort();
  EXPECT_EQ(this->result_of(&get), nuv::kQueueAborted);
  EXPECT_EQ(this->result_of(&push), nuv::kQueueAborted);
}

TYPED_TEST(BlockingQueueTest, FrontCanBeSeenWithoutTakingIt) {
  this->fill(2);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(this->get(i == 0, 0, false), nuv::kQueueDone);
    EXPECT_EQ(this->m_value, this->make(0));
  }
  EXPECT_EQ(this->m_queue.size(), 2);
  EXPECT_THAT(this->m_queue.m_dequeued, IsEmpty());
}

TYPED_TEST(BlockingQueueTest, SeeingTheFrontWakesNoProducer) {
  this->fill(1);
  // A timed wait ends with its first wake-up, so that one would show.
  auto call = this->waiting([this] { return this->push(1, 1, false, kLongMs); });
  EXPECT_EQ(this->get(true, 0, false), nuv::kQueueDone);
  EXPECT_EQ(call.wait_for(milliseconds(50)), std::future_status::timeout);
  EXPECT_EQ(this->get(false), nuv::kQueueDone);
  EXPECT_EQ(this->result_of(&call), nuv::kQueueDone);
}

TYPED_TEST(BlockingQueueTest, SeeingTheFrontWaitsForAnElement) {
  EXPECT_EQ(this->get(false, 0, false), nuv::kQueueEmpty);
  auto call = this->waiting([this] { return this->get(true, 0, false); });
  EXPECT_EQ(this->push(3), nuv::kQueueDone);
  EXPECT_EQ(this->result_of(&call), nuv::kQueueDone);
  EXPECT_EQ(this->m_value, this->make(3));
  EXPECT_EQ(this->m_queue.size(), 1);
}

TYPED_TEST(BlockingQueueTest, FullQueueIsToldAtOnce) {
  this->fill(500);
  EXPECT_EQ(this->push(500, 500), nuv::kQueueFull);
  EXPECT_EQ(this->push(500, 501), nuv::kQueueDone) << "the bound is each push's own";
  EXPECT_EQ(this->push(501, 500), nuv::kQueueFull);
  EXPECT_EQ(this->m_queue.size(), 501);
}

TYPED_TEST(BlockingQueueTest, QueueWithoutRoomIsAlwaysFull) {
  for (const int max_size : {0, -1, INT_MIN}) EXPECT_EQ(this->push(0, max_size), nuv::kQueueFull) << max_size;
  auto call = this->waiting_push(0, 0);
  this->m_queue.clear();
  EXPECT_EQ(call.wait_for(milliseconds(20)), std::future_status::timeout);
  this->m_queue.abort();
  EXPECT_EQ(this->result_of(&call), nuv::kQueueAborted);
}

TYPED_TEST(BlockingQueueTest, BlockedPushGoesOnWhenAnElementIsTaken) {
  this->fill(500);
  auto call = this->waiting_push(500, 500);
  EXPECT_EQ(this->get(true), nuv::kQueueDone);
  EXPECT_EQ(this->result_of(&call), nuv::kQueueDone);
  EXPECT_EQ(this->m_queue.size(), 500);
}

TYPED_TEST(BlockingQueueTest, BlockedPushesGoOnWhenTheQueueIsCleared) {
  this->fill(500);
  auto first = this->waiting_push(500, 500);
  auto second = this->waiting_push(501, 500);
  this->m_queue.clear();
  EXPECT_EQ(this->result_of(&first), nuv::kQueueDone);
  EXPECT_EQ(this->result_of(&second), nuv::kQueueDone);
  EXPECT_EQ(this->m_queue.size(), 2);
}

TYPED_TEST(BlockingQueueTest, BlockedPushesAreSentAwayByAnAbort) {
  this->fill(500);
  auto first = this->waiting_push(500, 500);
  auto second = this->waiting([this] { return this->push(501, 500, false, kLongMs); });
  this->m_queue.abort();
  EXPECT_EQ(this->result_of(&first), nuv::kQueueAborted);
  EXPECT_EQ(this->result_of(&second), nuv::kQueueAborted);
  EXPECT_EQ(this->m_queue.size(), 500);
}

TYPED_TEST(BlockingQueueTest, WaitingGetTakesWhatArrives) {
  auto call = this->waiting_get();
  EXPECT_EQ(this->push(5), nuv::kQueueDone);
  EXPECT_EQ(this->result_of(&call), nuv::kQueueDone);
  EXPECT_EQ(this->m_value, this->make(5));
}

TYPED_TEST(BlockingQueueTest, WaitingGetsAreSentAwayByAnAbort) {
  TypeParam other = this->make(999);
  auto first = this->waiting_get();
  auto second = this->waiting([&] { return this->m_queue._get_front_(other, false, kLongMs, true); });
  this->m_queue.abort();
  EXPECT_EQ(this->result_of(&first), nuv::kQueueAborted);
  EXPECT_EQ(this->result_of(&second), nuv::kQueueAborted);
  EXPECT_EQ(this->m_value, this->make(999)) << "unchanged";
}

TYPED_TEST(BlockingQueueTest, WaitingGetFindsAnEmptyValueAtTheEnd) {
  this->m_value = this->make(999);
  auto call = this->waiting_get();
  this->m_queue.end();
  EXPECT_EQ(this->result_of(&call), nuv::kQueueDone);
  EXPECT_EQ(this->m_value, TypeParam());
}

TYPED_TEST(BlockingQueueTest, TheEndIsBehindWhatIsQueuedAndIsFoundAgainAndAgain) {
  this->fill(1);
  this->m_queue.end();
  EXPECT_EQ(this->get(false), nuv::kQueueDone);
  EXPECT_EQ(this->m_value, this->make(0));
  for (int i = 0; i < 3; ++i) {
    this->m_value = this->make(999);
    EXPECT_EQ(this->get(i > 0), nuv::kQueueDone);
    EXPECT_EQ(this->m_value, TypeParam());
  }
  EXPECT_EQ(this->m_queue.size(), 0);
}

TYPED_TEST(BlockingQueueTest, AbortedQueueRefusesEverythingAndKeepsItsElements) {
  this->fill(2);
  EXPECT_FALSE(this->m_queue.aborted());
  this->m_queue.abort();
  this->m_queue.abort();
  EXPECT_TRUE(this->m_queue.aborted());
  for (const bool block : {false, true}) {
    EXPECT_EQ(this->get(block, 5), nuv::kQueueAborted);
    EXPECT_EQ(this->get(block, 5, false), nuv::kQueueAborted);
    EXPECT_EQ(this->push(2, kUnbounded, block, 5), nuv::kQueueAborted);
    EXPECT_EQ(this->push(2, 0, block, 5), nuv::kQueueAborted);
  }
  EXPECT_EQ(this->m_queue.size(), 2);
}

TYPED_TEST(BlockingQueueTest, ClearDisposesOfEachElementFrontFirstThenTells) {
  this->fill(3);
  this->m_queue.clear();
  EXPECT_THAT(this->m_queue.m_freed, ElementsAre(this->make(0), this->make(1), this->make(2)));
  EXPECT_EQ(this->m_queue.m_clears, 1);
  EXPECT_EQ(this->m_queue.m_freed_at_clear_event, 3U);
  EXPECT_THAT(this->m_queue.m_dequeued, IsEmpty());
  EXPECT_EQ(this->m_queue.size(), 0);
  this->m_queue.clear();
  EXPECT_EQ(this->m_queue.m_freed.size(), 3U);
  EXPECT_EQ(this->m_queue.m_clears, 2) << "told of an empty queue too";
}

TYPED_TEST(BlockingQueueTest, ClearWorksWithoutADisposer) {
  this->m_queue.without_disposer();
  this->fill(3);
  this->m_queue.clear();
  EXPECT_EQ(this->m_queue.size(), 0);
  EXPECT_EQ(this->m_queue.m_clears, 1);
}

TYPED_TEST(BlockingQueueTest, ClearWorksOnAnAbortedQueueAndDoesNotEndTheAbort) {
  this->fill(3);
  this->m_queue.abort();
  this->m_queue.clear();
  EXPECT_EQ(this->m_queue.m_freed.size(), 3U);
  EXPECT_EQ(this->m_queue.m_clears, 1);
  EXPECT_EQ(this->push(0), nuv::kQueueAborted);
}

TYPED_TEST(BlockingQueueTest, HooksTellOfEachElementOnce) {
  this->fill(2);
  EXPECT_EQ(this->push(2, 0), nuv::kQueueFull);
  EXPECT_EQ(this->get(false), nuv::kQueueDone);
  EXPECT_EQ(this->get(true), nuv::kQueueDone);
  EXPECT_EQ(this->get(false), nuv::kQueueEmpty);
  EXPECT_THAT(this->m_queue.m_enqueued, ElementsAre(this->make(0), this->make(1)));
  EXPECT_THAT(this->m_queue.m_dequeued, ElementsAre(this->make(0), this->make(1)));
  EXPECT_THAT(this->m_queue.m_freed, IsEmpty());
}

TEST(BlockingQueueEnd, ElementsAreNotDisposedOf) {
  std::vector<long long> freed;
  {
    struct Queue : nuv::BlockingQueue<long long> {
      explicit Queue(std::vector<long long>* freed_) {
        m_free_func = [freed_](long long& value) { freed_->push_back(value); };
      }
    } queue(&freed);
    ASSERT_EQ(queue._push_back_(1, kUnbounded, false, 0), nuv::kQueueDone);
  }
  EXPECT_THAT(freed, IsEmpty());
}

}  // namespace
