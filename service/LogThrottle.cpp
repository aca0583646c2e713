#include "LogThrottle.h"

#include <utility>

namespace configsrvc {

LogThrottle::LogThrottle(Sink sink, size_t lines, Clock::duration window)
    : sink_(std::move(sink)), lines_(lines), window_(window) {}

bool LogThrottle::admit(uid_t uid, Clock::time_point now) {
    auto found = windows_.find(uid);
    if (found != windows_.end() && now - found->second.start >= window_) {
        summarize(uid, found->second);
        found->second = Window{now};
    } else if (found == windows_.end()) {
        found = windows_.emplace(uid, Window{now}).first;
    }
    Window& window = found->second;
    if (window.admitted < lines_) {
        ++window.admitted;
        return true;
    }
    ++window.suppressed;
    return false;
}

void LogThrottle::tick(Clock::time_point now) {
    for (auto it = windows_.begin(); it != windows_.end();) {
        // Written as a comparison of durations, so that a `now` of max() cannot overflow.
        if (now - it->second.start < window_) {
            ++it;
            continue;
        }
        summarize(it->first, it->second);
        it = windows_.erase(it);
    }
}

void LogThrottle::summarize(uid_t uid, const Window& window) {
    if (window.suppressed == 0) {
        return;
    }
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(window_).count();
    sink_(std::to_string(window.suppressed) + " more lines about requests from uid " +
          std::to_string(uid) + " suppressed (at most " + std::to_string(lines_) + " every " +
          std::to_string(seconds) + " s)");
}

}  // namespace configsrvc
