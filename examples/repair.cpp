/// Rebuilds a movie that was cut short, in the background, and shows how far it is.
///   repair BROKEN INDEX OUTPUT
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "meru/meru.h"

namespace {

/// Called on the library's thread.
void on_report(double progress, int code, const char* msg, void* user) {
  std::printf("\r%3.0f %%", progress * 100);
  std::fflush(stdout);
  if (code < 0) *static_cast<std::string*>(user) = msg;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s BROKEN INDEX OUTPUT\n", argv[0]);
    return 2;
  }
  std::string failure;  // must outlive the repair
  void* repair = MERU_StartRepair_Async(argv[1], argv[2], argv[3], on_report, &failure);
  // A window would handle its events meanwhile, and end the repair early when the user gives up.
  while (MERU_Repair_IsRunning(repair)) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  MERU_StopRepair(&repair);  // also when it is over: it frees the repair
  std::printf("\n");
  if (!failure.empty()) std::fprintf(stderr, "not repaired: %s\n", failure.c_str());
  return failure.empty() ? 0 : 1;
}
