#pragma once

#include <cstdio>
#include <exception>

namespace meru_bench {

/// What `main` does: calls `run`, and says why when it throws. @return the exit status
template <class Run>
int run_program(const char* name, Run run) {
  try {
    return run();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s: %s\n", name, e.what());
    return 1;
  }
}

}  // namespace meru_bench
