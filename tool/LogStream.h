// LogStream: the tool's channel for its own error lines.
//
// Callers insert text piece by piece; a newline character (inserted as a string or as a single
// character) ends the line, which is then shown on standard error between the escape sequences
// for red and for reset. On production devices each line is also logged through logmsg, before
// it is shown (see ProductionLog.h); the choice is made once, when the stream is created.
// Integers and other values go through the underlying string stream unchanged: a newline that
// arrives that way stays inside the line. Text not yet ended by a newline is never shown.
//
// The singleton is created on first use and never destroyed. Single-threaded: no locks.
#ifndef SETVANE_TOOL_LOGSTREAM_H
#define SETVANE_TOOL_LOGSTREAM_H

#include <sstream>
#include <string>
#include <type_traits>

class LogStream : public std::ostringstream {
  public:
    // The process-wide stream; allocated on the first call, never freed.
    static LogStream& instance();

    virtual ~LogStream();

    // Emits the buffered text as one line on every target and empties the buffer.
    void flushLine();

  private:
    LogStream();

    // Decides once, at construction, whether lines are also mirrored into the system log.
    void selectTargets();
    // Writes the buffered line into the system log; only called while mirroring is on.
    void mirrorLine();

    bool mirror = false;
};

// Appends the text; each newline in it ends a line. A null pointer appends nothing.
LogStream& operator<<(LogStream& stream, const char* text);
LogStream& operator<<(LogStream& stream, const std::string& text);
// A newline ends the line; any other character is appended.
LogStream& operator<<(LogStream& stream, char c);

// Integers are formatted by the string stream (decimal) and kept inside the current line.
template <typename Integer, typename = std::enable_if_t<std::is_integral<Integer>::value &&
                                                        !std::is_same<Integer, char>::value>>
LogStream& operator<<(LogStream& stream, Integer value) {
    static_cast<std::ostream&>(stream) << value;
    return stream;
}

#endif  // SETVANE_TOOL_LOGSTREAM_H
