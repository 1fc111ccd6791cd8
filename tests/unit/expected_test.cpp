#include "raw_packets/expected.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using nuv::Defer;
using nuv::Expected_;

TEST(ExpectedTest, FreshResultIsAnUnknownError) {
  const Expected_<void*> result;
  EXPECT_EQ(result.value, nullptr);
  EXPECT_EQ(result.code, -100);
  EXPECT_EQ(result.message, "unknow error");
  EXPECT_TRUE(result.has_error);
}

TEST(ExpectedTest, SetErrorFormatsTheMessageAndReturnsTheResultItself) {
  Expected_<int> result;
  EXPECT_EQ(&result.set_error(-12, "could not open output url '%s': %s (%d%%)", "a.mp4", "no such file", 7), &result);
  EXPECT_EQ(result.message, "could not open output url 'a.mp4': no such file (7%)");
  EXPECT_EQ(result.code, -12);
  EXPECT_TRUE(result.has_error);
}

TEST(ExpectedTest, MessageIsAsLongAsItsText) {
  Expected_<int> result;
  for (const size_t length : {0U, 1U, 15U, 16U, 63U, 64U, 1023U, 1024U, 100000U}) {
    const std::string text(length, 'x');
    result.set_error(1, "%s", text.c_str());
    EXPECT_EQ(result.message, text);
    EXPECT_STREQ(result.message.c_str(), text.c_str());
  }
}

TEST(ExpectedTest, MessageCanBeBuiltFromTheLastOne) {
  Expected_<int> result;
  result.set_error(1, "no memory for a text that is longer than what a string holds in itself");
  result.set_error(2, "failed: %s", result.message.c_str());
  EXPECT_EQ(result.message, "failed: no memory for a text that is longer than what a string holds in itself");
}

TEST(ExpectedTest, FormatThatCannotBePrintedIsTheMessageItself) {
  Expected_<int> result;
  const wchar_t no_character[] = {static_cast<wchar_t>(0x7FFFFFFF), 0};
  result.set_error(3, "name: %ls", no_character);
  EXPECT_EQ(result.message, "name: %ls");
  EXPECT_EQ(result.code, 3);
}

TEST(ExpectedTest, SuccessHasAValueAndNoMessage) {
  Expected_<std::string> result;
  EXPECT_EQ(&result.set_value("ready"), &result);
  EXPECT_EQ(result.value, "ready");
  EXPECT_EQ(result.message, "");
  EXPECT_EQ(result.code, 0);
  EXPECT_FALSE(result.has_error);
}

TEST(ExpectedTest, SuccessCanBecomeAnErrorAndBack) {
  Expected_<int> result;
  result.set_value(5);
  result.set_error(-5, "failed to writing header");
  EXPECT_TRUE(result.has_error);
  EXPECT_EQ(result.code, -5);
  result.set_value(6);
  EXPECT_FALSE(result.has_error);
  EXPECT_EQ(result.message, "");
}

TEST(ExpectedTest, ValueIsMovedIn) {
  Expected_<std::unique_ptr<int>> result;
  result.set_value(std::make_unique<int>(4));
  ASSERT_NE(result.value, nullptr);
  EXPECT_EQ(*result.value, 4);
}

TEST(DeferTest, CallsOnceAtTheEndOfItsScope) {
  int calls = 0;
  {
    const Defer defer([&] { ++calls; });
    EXPECT_EQ(calls, 0);
  }
  EXPECT_EQ(calls, 1);
}

TEST(DeferTest, LastOneCallsFirst) {
  std::vector<int> calls;
  {
    const Defer first([&] { calls.push_back(1); });
    const Defer second([&] { calls.push_back(2); });
  }
  EXPECT_EQ(calls, (std::vector<int>{2, 1}));
}

TEST(DeferTest, CallsOnEveryWayOut) {
  int calls = 0;
  const auto leave = [&](bool by_exception) {
    const Defer defer([&] { ++calls; });
    if (by_exception) throw std::runtime_error("out");
    return true;
  };
  EXPECT_TRUE(leave(false));
  EXPECT_EQ(calls, 1);
  EXPECT_THROW(leave(true), std::runtime_error);
  EXPECT_EQ(calls, 2);
}

TEST(DeferTest, HoldingNothingCallsNothing) {
  EXPECT_NO_THROW({ const Defer defer(nullptr); });
}

}  // namespace
