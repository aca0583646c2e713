// LogStream: the tool's channel for its own error lines.
//
// Callers insert text piece by piece; a newline character (inserted as a string or as a single
// character) ends the line, which is then shown on standard error between the escape sequences
// for red and for reset. A program may also install a LogMirror, such as the system log of
// production devices (ProductionLog.h), which receives each line before it is shown; whether it
// takes lines is decided once, when the stream is created.
// Integers and other values go through the underlying string stream unchanged: a newline that
// arrives that way stays inside the line. Text not yet ended by a newline is never shown.
//
// The singleton is created on first use and never destroyed. Single-threaded: no locks.
#ifndef SETVANE_TOOL_LOGSTREAM_H
#define SETVANE_TOOL_LOGSTREAM_H

#include <sstream>
#include <string>
#include <type_traits>

// A second target for the lines, installed by the program before its first line. The stream asks
// start() once, when it is created; only when that says yes does it hand every line to write().
class LogMirror {
  public:
    virtual ~LogMirror() {}
    // Decides whether lines are mirrored, setting up the target when they are.
    virtual bool start() = 0;
    // Takes one line, without its newline. Failures stay inside the mirror.
    virtual void write(const std::string& line) = 0;
};

// Installs `mirror` (not owned; it must outlive the process's last line), or none with null.
// Only a stream created afterwards consults it: call it before the first line. A program that
// installs nothing keeps its lines on the console.
void setLogMirror(LogMirror* mirror);

class LogStream : public std::ostringstream {
  public:
    // The process-wide stream; allocated on the first call, never freed.
    static LogStream& instance();

    virtual ~LogStream();

    // Emits the buffered text as one line on every target and empties the buffer.
    void flushLine();

  private:
    LogStream();

    // Decides once, at construction, whether lines also go to the installed mirror.
    void selectTargets();
    // Hands the buffered line to the mirror; only called while mirroring is on.
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
