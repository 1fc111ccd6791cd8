#include "screen/image_queue.h"

#include <gtest/gtest.h>

#include "support/within.h"

namespace meru_test {
namespace {

using meru_tool::ImageQueue;
using meru_tool::TakenImage;

TEST(ImageQueueTest, ImagesComeOutInOrderAndTheirPlacesReturn) {
  ImageQueue queue(2);
  const auto first = queue.free_place(), second = queue.free_place();
  ASSERT_TRUE(first && second);
  EXPECT_NE(*first, *second);
  EXPECT_FALSE(queue.free_place());
  queue.put({*first, 1});
  queue.put({*second, 2});
  EXPECT_EQ(queue.next()->taken_usec, 1);
  EXPECT_FALSE(queue.free_place()) << "an image that is being pushed still has its place";
  queue.release(*first);
  EXPECT_EQ(queue.free_place(), first);
  EXPECT_EQ(queue.next()->taken_usec, 2);
}

TEST(ImageQueueTest, WhatWaitsIsStillGivenOutWhenItIsClosed) {
  ImageQueue queue(2);
  queue.put({*queue.free_place(), 5});
  queue.close();
  EXPECT_FALSE(queue.free_place());
  EXPECT_EQ(queue.next()->taken_usec, 5);
  EXPECT_FALSE(queue.next());
}

TEST(ImageQueueTest, CloseEndsEveryWait) {
  ImageQueue queue(1);
  const auto place = queue.free_place();
  bool given = true;
  const Background pushing([&] { given = queue.next().has_value(); });
  const Background pausing([&] { queue.wait_empty(); });
  EXPECT_FALSE(pausing.ends_within(std::chrono::milliseconds(20))) << "place " << *place << " is not free";
  queue.close();
  EXPECT_TRUE(pushing.ends());
  EXPECT_TRUE(pausing.ends());
  EXPECT_FALSE(given);
}

TEST(ImageQueueTest, EmptyIsWhenTheLastImageIsPushed) {
  ImageQueue queue(2);
  queue.wait_empty();
  queue.put({*queue.free_place(), 1});
  const Background pausing([&] { queue.wait_empty(); });
  const auto image = queue.next();
  EXPECT_FALSE(pausing.ends_within(std::chrono::milliseconds(20)));
  queue.release(image->place);
  EXPECT_TRUE(pausing.ends());
}

}  // namespace
}  // namespace meru_test
