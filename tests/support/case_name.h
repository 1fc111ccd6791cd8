#pragma once

#include <gtest/gtest.h>

#include <string>

namespace meru_test {

/// Names the tests of a table after the member `name` of its rows.
struct CaseName {
  template <class Row>
  std::string operator()(const testing::TestParamInfo<Row>& row) const {
    return row.param.name;
  }
};

}  // namespace meru_test
