#include "screen/pulse_connection.h"

#include "failure.h"

namespace meru_tool {

namespace {

constexpr pa_usec_t kTimeLimit = 5 * PA_USEC_PER_SEC;

/// Ends a wait at a time. Made and ended with the lock held.
class Alarm {
 public:
  Alarm(const PulseConnection& connection, pa_usec_t time)
      : m_connection(connection), m_event(pa_context_rttime_new(connection.context(), time, &Alarm::ring, this)) {
    if (m_event == nullptr) throw Failure("no memory for the sound");
  }
  ~Alarm() { m_connection.api()->time_free(m_event); }
  Alarm(const Alarm&) = delete;
  Alarm& operator=(const Alarm&) = delete;

  bool has_rung() const { return m_rung; }

 private:
  static void ring(pa_mainloop_api*, pa_time_event*, const timeval*, void* user) {
    auto* self = static_cast<Alarm*>(user);
    self->m_rung = true;
    self->m_connection.signal();
  }

  const PulseConnection& m_connection;
  bool m_rung = false;
  pa_time_event* m_event;
};

/// A question to the server. One that is given up is not answered any more.
struct EndQuestion {
  void operator()(pa_operation* question) const {
    pa_operation_cancel(question);
    pa_operation_unref(question);
  }
};
using Question = std::unique_ptr<pa_operation, EndQuestion>;

struct Answer {
  const PulseConnection* connection;
  std::string source;  ///< empty when there is none
  bool done = false;

  void take(const char* name, int end) {
    if (end == 0) {
      if (name != nullptr) source = name;
      return;
    }
    done = true;
    connection->signal();
  }
};

void on_source(pa_context*, const pa_source_info* info, int end, void* user) {
  static_cast<Answer*>(user)->take(end == 0 ? info->name : nullptr, end);
}

void on_sink(pa_context*, const pa_sink_info* info, int end, void* user) {
  static_cast<Answer*>(user)->take(end == 0 ? info->monitor_source_name : nullptr, end);
}

}  // namespace

PulseConnection::PulseConnection() : m_loop(pa_threaded_mainloop_new()), m_deadline(pa_rtclock_now() + kTimeLimit) {
  if (m_loop == nullptr) throw Failure("no memory for the sound");
  try {
    open();
  } catch (...) {
    close();
    throw;
  }
}

PulseConnection::~PulseConnection() { close(); }

void PulseConnection::open() {
  m_context.reset(pa_context_new(api(), "meru"));
  if (m_context == nullptr) throw Failure("no memory for the sound");
  if (pa_threaded_mainloop_start(m_loop.get()) < 0) throw Failure("no thread for the sound");
  const Lock lock(*this);
  pa_context_set_state_callback(
      context(), [](pa_context*, void* self) { static_cast<PulseConnection*>(self)->signal(); }, this);
  if (pa_context_connect(context(), nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
    throw Failure("no sound server: " + error());
  }
  wait([this] { return pa_context_get_state(context()) == PA_CONTEXT_READY; });
}

void PulseConnection::close() {
  if (m_context != nullptr) {
    const Lock lock(*this);
    pa_context_set_state_callback(context(), nullptr, nullptr);
    pa_context_disconnect(context());
    m_context.reset();
  }
  pa_threaded_mainloop_stop(m_loop.get());
}

void PulseConnection::wait(const std::function<bool()>& done) const {
  if (!wait_until(m_deadline, done)) throw Failure("the sound server does not answer");
}

bool PulseConnection::wait_until(pa_usec_t deadline, const std::function<bool()>& done) const {
  const Alarm alarm(*this, deadline);
  while (!done()) {
    if (PA_CONTEXT_IS_GOOD(pa_context_get_state(context())) == 0) throw Failure("no sound server: " + error());
    if (alarm.has_rung()) return false;
    pa_threaded_mainloop_wait(m_loop.get());
  }
  return true;
}

std::string PulseConnection::source_of(const std::string& name) const {
  Answer answer{this, {}};
  const auto ask = [&](const Question& question) {
    answer.done = question == nullptr;
    wait([&] { return answer.done; });
    return !answer.source.empty();
  };
  if (ask(Question(pa_context_get_source_info_by_name(context(), name.c_str(), &on_source, &answer))) ||
      ask(Question(pa_context_get_sink_info_by_name(context(), name.c_str(), &on_sink, &answer)))) {
    return answer.source;
  }
  throw Failure("the sound server has neither a source nor a sink called '" + name + "'");
}

std::string PulseConnection::error() const { return pa_strerror(pa_context_errno(context())); }

}  // namespace meru_tool
