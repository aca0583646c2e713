#include "DebugTrace.h"

#include <cstdio>

bool debugTrace = false;

namespace {
const char kReverseVideo[] = "\033[7m";
const char kReset[] = "\033[0m";

void writeText(const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stderr);
}
}  // namespace

void traceMessage(const char* verb, const google::protobuf::Message& message,
                  const char* preposition, const std::string& peer) {
    std::fprintf(stderr, "%s%s ", kReverseVideo, verb);
    writeText(message.GetDescriptor()->full_name());
    std::fprintf(stderr, " %s ", preposition);
    writeText(peer);
    std::fprintf(stderr, "%s\n", kReset);
    writeText(message.DebugString());
    std::fputc('\n', stderr);
    std::fflush(stderr);
}
