// LogThrottle: bounds how many log lines the requests of one sender may cause.
//
// Every line about a request (a refusal, a dropped message) costs a line in the device's log,
// which every program shares; without a bound, any local user could flood it with bad requests.
// Each sender, known by the uid the kernel reports (which a user cannot multiply, unlike pids),
// gets up to `lines` lines per `window`; the rest are counted, and once the window is over one
// line says how many were suppressed. For the serving thread only.
#ifndef CONFIGSRVC_LOG_THROTTLE_H
#define CONFIGSRVC_LOG_THROTTLE_H

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <unordered_map>

namespace configsrvc {

class LogThrottle {
  public:
    using Clock = std::chrono::steady_clock;
    // Receives each summary line, without its newline.
    using Sink = std::function<void(const std::string& line)>;

    // Summaries go to `sink`.
    LogThrottle(Sink sink, size_t lines, Clock::duration window);
    virtual ~LogThrottle() = default;

    // Whether a line about a request of `uid` may be written now; when not, it is counted for
    // the summary.
    bool admit(uid_t uid, Clock::time_point now = Clock::now());

    // Writes the summary of every window that ended by `now` and had lines suppressed, and
    // forgets the senders whose window ended. Call it every second or so.
    void tick(Clock::time_point now);
    // The same at the time it is called; nothing, not even a look at the clock, when no sender
    // has a window open (a service's loop ticks once a round).
    void tick() {
        if (!windows_.empty()) {
            tick(Clock::now());
        }
    }
    // Writes the summaries of every window, ended or not (when the service stops).
    void flush() { tick(Clock::time_point::max()); }

  private:
    struct Window {
        Clock::time_point start;
        size_t admitted = 0;
        size_t suppressed = 0;
    };

    void summarize(uid_t uid, const Window& window);

    Sink sink_;
    size_t lines_;
    Clock::duration window_;
    std::unordered_map<uid_t, Window> windows_;
};

}  // namespace configsrvc

#endif  // CONFIGSRVC_LOG_THROTTLE_H
