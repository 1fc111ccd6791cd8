#include "common/shared_work.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <numeric>
#include <set>
#include <thread>
#include <vector>

#include "support/eventually.h"
#include "support/process_counts.h"

namespace {

using meru_test::eventually;

TEST(SharedWorkTest, EachPieceIsDoneOnceWhateverTheNumbers) {
  for (const int threads : {1, 2, 4}) {
    SharedWork work(threads);
    for (const int pieces : {0, 1, 2, 3, 100}) {
      std::vector<std::atomic<int>> done(static_cast<size_t>(pieces));
      work.run(pieces, [&](int piece, int) { ++done[static_cast<size_t>(piece)]; });
      EXPECT_TRUE(std::all_of(done.begin(), done.end(), [](const auto& times) { return times == 1; }))
          << pieces << " pieces on " << threads << " threads";
    }
  }
}

TEST(SharedWorkTest, PiecesAreDoneSideBySide) {
  SharedWork work(2);
  std::atomic<int> begun{0};
  std::atomic<int> met{0};
  work.run(2, [&](int, int) {
    ++begun;
    if (eventually([&] { return begun == 2; })) ++met;  // only another thread can begin the other piece
  });
  EXPECT_EQ(met, 2);
}

TEST(SharedWorkTest, NoTwoPiecesRunUnderTheSameThreadNumber) {
  SharedWork work(4);
  ASSERT_EQ(work.threads(), 4);
  std::atomic<bool> taken[4] = {};
  std::atomic<int> clashes{0};
  for (int job = 0; job < 50; ++job) {
    work.run(40, [&](int, int thread) {
      if (taken[thread].exchange(true)) ++clashes;
      taken[thread] = false;
    });
  }
  EXPECT_EQ(clashes, 0);
}

TEST(SharedWorkTest, WhatThePiecesWroteIsThereWhenTheJobReturns) {
  SharedWork work(3);
  std::vector<int> values(64);
  for (int job = 1; job <= 500; ++job) {
    work.run(64, [&](int piece, int) { values[static_cast<size_t>(piece)] += piece; });  // plain memory
    ASSERT_EQ(std::accumulate(values.begin(), values.end(), 0), job * 64 * 63 / 2);
  }
}

TEST(SharedWorkTest, OneThreadIsTheCallersOwn) {
  SharedWork work(1);
  EXPECT_EQ(work.threads(), 1);
  std::set<std::thread::id> ids;
  work.run(5, [&](int, int) { ids.insert(std::this_thread::get_id()); });
  EXPECT_EQ(ids, std::set<std::thread::id>{std::this_thread::get_id()});
}

TEST(SharedWorkTest, ThreadsEndWithIt) {
  const auto before = meru_test::ProcessCounts::now();
  { const SharedWork work(4); }
  meru_test::expect_nothing_left_since(before);
}

TEST(SharedWorkTest, UsesNoMoreThreadsThanTheMachineHas) {
  EXPECT_GE(SharedWork::usual_threads(), 1);
  EXPECT_LE(SharedWork::usual_threads(), 4);
  EXPECT_LE(SharedWork::usual_threads(), std::max(1, static_cast<int>(std::thread::hardware_concurrency())));
}

}  // namespace
