// liblogsvc.so: the device's system-log service. The device has its own library of this name; on
// any other Linux the stand-in of this project takes its place (platform/linux/logsvc.cpp).

#ifndef IPSLA_PLATFORM_LOGSVC_H_
#define IPSLA_PLATFORM_LOGSVC_H_

#ifdef __cplusplus
extern "C" {
#endif

/// Sends one message, formatted as by printf(3), to the system log. `severity` is a syslog(3)
/// severity (3 error, 7 debug). `module` is the caller's number with the log service; `flag` is 1
/// for debug messages and 0 otherwise. Any thread.
void SYSLOG_message(int module, int flag, int severity, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

/// Closes the connection to the system log. A later message opens it again.
void SYSLOG_close(void);

#ifdef __cplusplus
}
#endif

#endif  // IPSLA_PLATFORM_LOGSVC_H_
