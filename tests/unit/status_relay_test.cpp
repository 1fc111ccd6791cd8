#include "capture/status_relay.h"

#include <gtest/gtest.h>

#include <future>
#include <string>
#include <thread>
#include <vector>

#include "base/base_writer.h"
#include "capture/movie_capture2.h"
#include "support/log_capture.h"

namespace {

constexpr auto kDeadline = std::chrono::seconds(10);

struct Reports {
  std::vector<std::pair<int, std::string>> seen;
  static void add(int id, const char* text, void* user) { static_cast<Reports*>(user)->seen.emplace_back(id, text); }
};

bool is_started(const MovieCapture2& session) {
  bool started = false;
  session.mInfo(&started);
  return started;
}

TEST(StatusRelayTest, ReportIsLoggedAndReachesTheHost) {
  meru_test::LogCapture log;
  MovieCapture2 session(new BaseWriter);
  Reports reports;
  StatusRelay relay(&session, &Reports::add, &reports);
  relay.report(-5, "Input/output error");
  EXPECT_EQ(log.count(2, "### statu cb [id=-5]: Input/output error"), 1);
  ASSERT_EQ(reports.seen.size(), 1U);
  EXPECT_EQ(reports.seen[0], std::make_pair(-5, std::string("Input/output error")));
  EXPECT_FALSE(is_started(session));
}

TEST(StatusRelayTest, IdZeroStartsTheSessionBeforeTheHostIsTold) {
  MovieCapture2 session(new BaseWriter);
  struct Seen {
    MovieCapture2* session;
    bool started_in_callback = false;
  } seen{&session};
  StatusRelay relay(
      &session,
      [](int, const char*, void* user) {
        static_cast<Seen*>(user)->started_in_callback = is_started(*static_cast<Seen*>(user)->session);
      },
      &seen);
  relay.report(0, "start OK");
  EXPECT_TRUE(seen.started_in_callback);
  EXPECT_TRUE(is_started(session));
}

TEST(StatusRelayTest, NullCallbackStillStartsTheSession) {
  MovieCapture2 session(new BaseWriter);
  StatusRelay relay(&session, nullptr, nullptr);
  relay.report(0, "start OK");
  EXPECT_TRUE(is_started(session));
}

TEST(StatusRelayTest, MutedRelayIsSilent) {
  meru_test::LogCapture log;
  MovieCapture2 session(new BaseWriter);
  Reports reports;
  StatusRelay relay(&session, &Reports::add, &reports);
  relay.mute();
  relay.report(0, "start OK");
  EXPECT_TRUE(reports.seen.empty());
  EXPECT_FALSE(is_started(session));
  EXPECT_EQ(log.count(2, "### statu cb [id=0]: start OK"), 0);
}

TEST(StatusRelayTest, InsideCallbackIsTrueOnTheCallingThreadOnly) {
  MovieCapture2 session(new BaseWriter);
  struct Probe {
    StatusRelay* relay = nullptr;
    bool inside = false;
    bool inside_elsewhere = true;
  } probe;
  StatusRelay relay(
      &session,
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
  MovieCapture2 session(new BaseWriter);
  struct Gate {
    std::promise<void> entered;
    std::promise<void> open;
    std::atomic<bool> returned{false};
  } gate;
  StatusRelay relay(
      &session,
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
