// The protocol buffer runtime's own log messages.
#ifndef SETVANE_TOOL_STARTUP_PROTOBUFLOG_H
#define SETVANE_TOOL_STARTUP_PROTOBUFLOG_H

// Keeps the runtime's warnings and errors off standard error, which carries only the tool's own
// diagnostics: a reply that does not parse is reported once, as the tool's own line. Fatal
// messages, which end the process, are still shown.
void quietProtobufLog();

#endif  // SETVANE_TOOL_STARTUP_PROTOBUFLOG_H
