#include "common/status_relay.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

constexpr auto kDeadline = std::chrono::seconds(10);

struct Reports {
  std::vector<std::pair<int, std::string>> seen;
  static void add(int id, const char* text, void* user) { static_cast<Reports*>(user)->seen.emplace_back(id, text); }
};

TEST(StatusRelayTest, ReportReachesTheHost) {
  Reports reports;
  StatusRelay relay(&Reports::add, &reports);
  relay.report(-5, "Input/output error");
  ASSERT_EQ(reports.seen.size(), 1U);
  EXPECT_EQ(reports.seen[0], std::make_pair(-5, std::string("Input/output error")));
}

TEST(StatusRelayTest, SessionIsToldBeforeTheHost) {
  Reports reports;
  size_t told_host = 99;
  std::string text_told;
  StatusRelay relay(&Reports::add, &reports, [&](int id, const char* text) {
    told_host = reports.seen.size();
    text_told = std::to_string(id) + text;
  });
  relay.report(0, "start OK");
  EXPECT_EQ(told_host, 0U);
  EXPECT_EQ(text_told, "0start OK");
  EXPECT_EQ(reports.seen.size(), 1U);
}

TEST(StatusRelayTest, SessionIsToldWithoutAHostCallback) {
  int told = 0;
  StatusRelay relay(nullptr, nullptr, [&](int, const char*) { ++told; });
  relay.report(0, "start OK");
  EXPECT_EQ(told, 1);
}

TEST(StatusRelayTest, MutedRelayIsSilent) {
  Reports reports;
  int told = 0;
  StatusRelay relay(&Reports::add, &reports, [&](int, const char*) { ++told; });
  relay.mute();
  relay.report(0, "start OK");
  EXPECT_TRUE(reports.seen.empty());
  EXPECT_EQ(told, 0);
}

TEST(StatusRelayTest, InsideCallbackIsTrueOnTheCallingThreadOnly) {
  struct Probe {
    StatusRelay* relay = nullptr;
    bool inside = false;
    bool inside_elsewhere = true;
  } probe;
  StatusRelay relay(
      [](int, const char*, void* user) {
        auto* p = static_cast<Probe*>(user);
        p->inside = p->relay->inside_callback();
        std::thread([p] { p->inside_elsewhere = p->relay->inside_callback(); }).join();
        p->relay->wait_until_quiet();  // a thread never waits for its own call
      },
      &probe);
  probe.relay = &relay;
  relay.report(1, "text");
  EXPECT_TRUE(probe.inside);
  EXPECT_FALSE(probe.inside_elsewhere);
  EXPECT_FALSE(relay.inside_callback());
}

TEST(StatusRelayTest, WaitingEndsWhenTheRunningCallHasReturned) {
  struct Gate {
    std::promise<void> entered;
    std::promise<void> open;
    std::atomic<bool> returned{false};
  } gate;
  StatusRelay relay(
      [](int, const char*, void* user) {
        auto* g = static_cast<Gate*>(user);
        g->entered.set_value();
        g->open.get_future().wait_for(kDeadline);
        g->returned = true;
      },
      &gate);
  std::thread caller([&] { relay.report(1, "text"); });
  ASSERT_EQ(gate.entered.get_future().wait_for(kDeadline), std::future_status::ready);
  relay.mute();
  std::future<bool> quiet = std::async(std::launch::async, [&] {
    relay.wait_until_quiet();
    return gate.returned.load();
  });
  EXPECT_EQ(quiet.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  gate.open.set_value();
  ASSERT_EQ(quiet.wait_for(kDeadline), std::future_status::ready);
  EXPECT_TRUE(quiet.get());
  caller.join();
}

}  // namespace
