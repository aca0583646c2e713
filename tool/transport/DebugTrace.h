// The --debug trace of the messages exchanged with the service.
#ifndef SETVANE_TOOL_TRANSPORT_DEBUGTRACE_H
#define SETVANE_TOOL_TRANSPORT_DEBUGTRACE_H

#include <string>

#include <google/protobuf/message.h>

// Process-wide switch: set once by main before the client exists, read by the exchange.
extern bool debugTrace;

// Writes to standard error a reverse-video heading "<verb> <type> <preposition> <peer>", then the
// message as protobuf text and a blank line, and flushes.
void traceMessage(const char* verb, const google::protobuf::Message& message,
                  const char* preposition, const std::string& peer);

#endif  // SETVANE_TOOL_TRANSPORT_DEBUGTRACE_H
