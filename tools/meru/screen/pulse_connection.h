#pragma once

#include <pulse/pulseaudio.h>

#include <functional>
#include <memory>
#include <string>

namespace meru_tool {

/// A connection to the sound server, and the thread that it calls back on.
class PulseConnection {
 public:
  /// Holds that thread back. Needed for every call about the connection from another thread.
  class Lock {
   public:
    explicit Lock(const PulseConnection& connection) : m_loop(connection.m_loop.get()) {
      pa_threaded_mainloop_lock(m_loop);
    }
    ~Lock() { pa_threaded_mainloop_unlock(m_loop); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

   private:
    pa_threaded_mainloop* m_loop;
  };

  /// Throws a Failure when no server answers in time. None is started.
  PulseConnection();
  /// Ends the thread: nothing calls back any more.
  ~PulseConnection();
  PulseConnection(const PulseConnection&) = delete;
  PulseConnection& operator=(const PulseConnection&) = delete;

  pa_context* context() const { return m_context.get(); }
  pa_mainloop_api* api() const { return pa_threaded_mainloop_get_api(m_loop.get()); }
  /// Waits with the lock held until something is done, which signal() tells. Throws a Failure when the server goes
  /// meanwhile, or does not get it done within some seconds from the beginning.
  void wait(const std::function<bool()>& done) const;
  /// The same until a time of pa_rtclock_now(). @return whether it was done by then
  bool wait_until(pa_usec_t deadline, const std::function<bool()>& done) const;
  void signal() const { pa_threaded_mainloop_signal(m_loop.get(), 0); }
  /// The source of that name, or the monitor of the sink of that name. Throws a Failure when there is neither.
  std::string source_of(const std::string& name) const;
  /// What went wrong last.
  std::string error() const;

 private:
  struct Free {
    void operator()(pa_threaded_mainloop* loop) const { pa_threaded_mainloop_free(loop); }
    void operator()(pa_context* context) const { pa_context_unref(context); }
  };
  void open();
  void close();

  std::unique_ptr<pa_threaded_mainloop, Free> m_loop;
  std::unique_ptr<pa_context, Free> m_context;
  pa_usec_t m_deadline;
};

}  // namespace meru_tool
