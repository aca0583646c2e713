/* Shared between the units of the logmsg library; not part of its interface. */
#ifndef APP_COMMON_OS_LOGMSG_PRIVATE_H_
#define APP_COMMON_OS_LOGMSG_PRIVATE_H_

/* Opens the log device at `path` and keeps the path for reopening; a failed
 * open switches records to standard output until a later reopen succeeds. */
void logmsg_open_device(const char* path);

/* Sends every record to standard error from now on; the device is never
 * opened. */
void logmsg_use_stderr(void);

/* Whether a completed record passes the show and cull filters. */
int logmsg_filters_pass(const char* record);

#endif /* APP_COMMON_OS_LOGMSG_PRIVATE_H_ */
