#include "ProtobufLog.h"

#include <google/protobuf/stubs/logging.h>

#include <cstdio>

namespace {

void showFatalOnly(google::protobuf::LogLevel level, const char* filename, int line,
                   const std::string& message) {
    if (level == google::protobuf::LOGLEVEL_FATAL) {
        std::fprintf(stderr, "[libprotobuf FATAL %s:%d] %s\n", filename, line, message.c_str());
        std::fflush(stderr);
    }
}

}  // namespace

void quietProtobufLog() {
    google::protobuf::SetLogHandler(showFatalOnly);
}
