// Random sequences of all exported functions on several threads: recordings, sessions of packets, repairs and the log,
// with valid and invalid arguments, with every container and with servers that fail. The books of each session must
// balance, and its files hold what the books say. A round follows from its seed, as far as the threads leave it so:
//   session_fuzz --seconds 3600           a random first seed, which is printed
//   session_fuzz --seed 17 --rounds 1     the round 17 again
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <thread>

#include "common/books.h"
#include "fuzz/fuzzing.h"
#include "fuzz/session/world.h"
#include "meru/raw_packets.h"
#include "meru/recording.h"
#include "support/books_check.h"
#include "support/eventually.h"
#include "support/sanitized.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#include <sanitizer/common_interface_defs.h>

namespace {
void set_sanitizer_output(int fd) { __sanitizer_set_report_fd(reinterpret_cast<void*>(static_cast<intptr_t>(fd))); }
}  // namespace
#else
namespace {
void set_sanitizer_output(int /*fd*/) {}
}  // namespace
#endif

namespace session_fuzz {

namespace {

constexpr size_t kWorkers = 3;
constexpr int kSequence = 4;  // what each worker does in a round
constexpr std::chrono::seconds kHang{meru_test::kSanitized ? 300 : 90};

std::atomic<uint64_t> g_round{0};
std::atomic<bool> g_done{false};
std::atomic<int> g_open{0};
std::atomic<const char*> g_calls[64];
int g_report = 2;  // a descriptor for what is to be seen although the library's own output is not
std::mutex g_told_mutex;
std::deque<Told> g_told;  // guarded by g_told_mutex

void report(const char* what, const char* more) {
  dprintf(g_report, "session_fuzz: %s%s, in the round of seed %llu\n", what, more,
          static_cast<unsigned long long>(g_round.load()));
}

}  // namespace

CallSite::CallSite(const char* call) : m_slot(nullptr) {
  for (auto& slot : g_calls) {
    const char* free = nullptr;
    if (!slot.compare_exchange_strong(free, call)) continue;
    m_slot = &slot;
    return;
  }
}

CallSite::~CallSite() {
  if (m_slot != nullptr) *m_slot = nullptr;
}

void CallSite::print_all() {
  for (const auto& slot : g_calls) {
    if (const char* call = slot; call != nullptr) report("still running: ", call);
  }
}

void violated(const char* what) {
  report("violated: ", what);
  CallSite::print_all();
  abort();
}

void count_start() { ++g_open; }
int open_sessions() { return g_open; }

Told* new_told() {
  const std::lock_guard<std::mutex> lock(g_told_mutex);
  return &g_told.emplace_back();
}

void Told::callback(int code, const char* text, void* user) {
  auto* told = static_cast<Told*>(user);
  require(!told->stopped, "nothing is told to a host that has stopped");
  require(text != nullptr && text[0] != '\0', "what is told has a text");
  require(code != 0 || ++told->successes == 1, "a start succeeds once");
  if (code != 0) ++told->failures;
  if (void* session = told->stop_from_inside.exchange(nullptr); session != nullptr) {
    CALL(MERU_stop, &session);
    require(session == nullptr, "a stop clears the handle");
    told->stopped = true;
  }
}

namespace {

thread_local const MR::SessionReport* t_session = nullptr;  // whose books are being checked

/// What the check of the books finds.
class Finding : public testing::EmptyTestEventListener {
  void OnTestPartResult(const testing::TestPartResult& result) override {
    for (size_t i = 0; t_session != nullptr && i < t_session->outputs.size(); ++i) {
      const MR::OutputBooks* output = t_session->outputs[i];
      report(output->complete ? "complete output: " : "incomplete output: ", output->url.c_str());
    }
    violated(result.message());
  }
};

/// Looks at the end of every session into its books, and into its files.
void observe(const MR::SessionReport& session) {
  t_session = &session;
  meru_test::check_books(session);
  t_session = nullptr;
  if (session.encodes) --g_open;
}

/// Ends the program when a round does not end.
class Watchdog {
 public:
  Watchdog() : m_thread([this] { watch(); }) {}
  ~Watchdog() {
    {
      const std::lock_guard<std::mutex> lock(m_mutex);
      m_end = true;
    }
    m_changed.notify_all();
    m_thread.join();
  }
  void round_begins(uint64_t seed) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    g_round = seed;
    ++m_rounds;
    m_changed.notify_all();
  }

 private:
  void watch() {
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_end) {
      const int64_t rounds = m_rounds;
      if (m_changed.wait_for(lock, kHang, [&] { return m_end || m_rounds != rounds; })) continue;
      report("hung", "");
      CallSite::print_all();
      abort();
    }
  }
  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_end = false;    // guarded by m_mutex
  int64_t m_rounds = 0;  // guarded by m_mutex
  std::thread m_thread;
};

void play(Worker* worker) {
  for (int i = 0; i < kSequence; ++i) {
    switch (worker->dice.below(8)) {
      case 0:
      case 1:
        record_packets(worker);
        break;
      case 2:
        repair(worker);
        break;
      case 3:
        use_log(worker);
        break;
      default:
        record(worker);
    }
  }
}

void play_round(World* world, uint64_t seed) {
  Dice dice(seed);
  std::vector<Folder> folders(kWorkers);
  std::vector<std::thread> threads;
  for (Folder& folder : folders) {
    threads.emplace_back([world, &folder, branch = dice.branch()] {
      Worker worker{world, &folder, branch};
      play(&worker);
    });
  }
  for (std::thread& thread : threads) thread.join();
  // Those that were stopped from inside still write into the folders.
  if (!meru_test::eventually([] { return open_sessions() == 0; }, kHang)) violated("every session ends");
}

/// The library's own output is kept from the terminal; what sanitizers and this program report is not.
void be_quiet() {
  meru_fuzz::be_quiet();
  g_report = dup(2);
  set_sanitizer_output(g_report);
  if (freopen("/dev/null", "w", stdout) == nullptr) abort();
  // Not all sanitizers report elsewhere.
  if (!meru_test::kSanitized && freopen("/dev/null", "w", stderr) == nullptr) abort();
}

/// Tells the round when a call brings the program down.
void report_signals() {
  for (const int number : {SIGABRT, SIGPIPE, SIGSEGV, SIGBUS, SIGFPE, SIGILL}) {
    if (meru_test::kSanitized && number != SIGABRT && number != SIGPIPE) continue;  // have reports of their own
    signal(number, [](int caught) {
      signal(caught, SIG_DFL);
      report("died: ", strsignal(caught));
      CallSite::print_all();
      raise(caught);
    });
  }
}

struct Arguments {
  uint64_t seed = std::random_device()();
  int64_t rounds = INT64_MAX;
  int seconds = 15;
  bool quiet = true;
};

bool parse(int argc, char** argv, Arguments* arguments) {
  for (int i = 1; i < argc; ++i) {
    const std::string name = argv[i];
    if (name == "--verbose") {
      arguments->quiet = false;
      continue;
    }
    if (++i == argc) return false;
    if (name == "--seed") {
      arguments->seed = strtoull(argv[i], nullptr, 10);
    } else if (name == "--rounds") {
      arguments->rounds = strtoll(argv[i], nullptr, 10);
      arguments->seconds = 1 << 24;
    } else if (name == "--seconds") {
      arguments->seconds = static_cast<int>(strtol(argv[i], nullptr, 10));
    } else {
      return false;
    }
  }
  return true;
}

}  // namespace
}  // namespace session_fuzz

int main(int argc, char** argv) {
  using namespace session_fuzz;
  Arguments arguments;
  if (!parse(argc, argv, &arguments)) {
    fprintf(stderr, "usage: session_fuzz [--seed N] [--rounds N | --seconds N] [--verbose]\n");
    return 2;
  }
  testing::InitGoogleTest();
  testing::UnitTest::GetInstance()->listeners().Append(new Finding);
  if (arguments.quiet) be_quiet();
  report_signals();
  dprintf(g_report, "session_fuzz: first seed %llu\n", static_cast<unsigned long long>(arguments.seed));
  atexit([] {
    if (!g_done) violated("no call ends the process");
  });
  MR::observe_books(&observe);
  int64_t rounds = 0;
  {
    World world;
    Watchdog watchdog;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(arguments.seconds);
    for (uint64_t seed = arguments.seed; rounds < arguments.rounds && std::chrono::steady_clock::now() < end; ++seed) {
      watchdog.round_begins(seed);
      play_round(&world, seed);
      ++rounds;
    }
  }
  g_done = true;
  dprintf(g_report, "session_fuzz: %lld rounds\n", static_cast<long long>(rounds));
  return 0;
}
