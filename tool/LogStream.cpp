#include "LogStream.h"

#include <cstdio>

namespace {
const char kRed[] = "\033[31m";
const char kReset[] = "\033[0m";

LogStream* theInstance = nullptr;
LogMirror* theMirror = nullptr;
}  // namespace

void setLogMirror(LogMirror* mirror) {
    theMirror = mirror;
}

LogStream& LogStream::instance() {
    if (theInstance == nullptr) {
        theInstance = new LogStream();
    }
    return *theInstance;
}

LogStream::LogStream() {
    selectTargets();
}

LogStream::~LogStream() {}

void LogStream::selectTargets() {
    mirror = theMirror != nullptr && theMirror->start();
}

void LogStream::mirrorLine() {
    theMirror->write(str());
}

void LogStream::flushLine() {
    if (mirror) {
        mirrorLine();
    }
    const std::string line = str();
    std::fputs(kRed, stderr);
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fputs(kReset, stderr);
    std::fputc('\n', stderr);
    std::fflush(stderr);
    str(std::string());
}

LogStream& operator<<(LogStream& stream, char c) {
    if (c == '\n') {
        stream.flushLine();
    } else {
        stream.put(c);
    }
    return stream;
}

LogStream& operator<<(LogStream& stream, const char* text) {
    if (text == nullptr) {
        return stream;
    }
    for (; *text != '\0'; ++text) {
        stream << *text;
    }
    return stream;
}

LogStream& operator<<(LogStream& stream, const std::string& text) {
    for (char c : text) {
        stream << c;
    }
    return stream;
}
