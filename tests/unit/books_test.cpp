#include "common/books.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace {

using MR::Drop;
using MR::Ledger;
using MR::Taken;

TEST(LedgerTest, BalancesWhenEverythingIsPassedOrDropped) {
  Ledger ledger;
  EXPECT_TRUE(ledger.balances());
  ledger.take(5);
  EXPECT_FALSE(ledger.balances());
  ledger.pass(3);
  EXPECT_TRUE(ledger.drop(Drop::kTimestamp));
  EXPECT_FALSE(ledger.drop(Drop::kTimestamp)) << "not the first one";
  EXPECT_TRUE(ledger.balances());
  EXPECT_EQ(ledger.dropped(), 2);
  EXPECT_EQ(ledger.dropped(Drop::kTimestamp), 2);
  EXPECT_EQ(ledger.dropped(Drop::kMemory), 0);
}

TEST(LedgerTest, WhatWasPassedCanTurnOutToBeLost) {
  Ledger ledger;
  ledger.take(4);
  ledger.pass(4);
  EXPECT_TRUE(ledger.take_back(Drop::kEncoder, 3));
  EXPECT_EQ(ledger.passed(), 1);
  EXPECT_EQ(ledger.dropped(Drop::kEncoder), 3);
  EXPECT_TRUE(ledger.balances());
}

TEST(TakenTest, CountsACallThatThrowsAsOutOfMemory) {
  Ledger ledger;
  try {
    const Taken taken(&ledger, 7);
    throw std::bad_alloc();
  } catch (const std::bad_alloc&) {
    EXPECT_EQ(ledger.dropped(Drop::kMemory), 7);
  }
  {
    Taken taken(&ledger, 2);
    taken.drop(Drop::kPaused);
  }
  {
    Taken taken(&ledger, 1);
    ledger.pass();
    taken.settled();
  }
  EXPECT_EQ(ledger.taken(), 10);
  EXPECT_EQ(ledger.dropped(Drop::kPaused), 2);
  EXPECT_TRUE(ledger.balances());
}

TEST(DropTest, EveryReasonHasAText) {
  std::set<std::string> texts;
  for (int i = 0; i < static_cast<int>(Drop::kCount); ++i) texts.insert(MR::drop_text(static_cast<Drop>(i)));
  EXPECT_EQ(texts.size(), static_cast<size_t>(Drop::kCount));
  EXPECT_EQ(texts.count(""), 0U);
}

}  // namespace
