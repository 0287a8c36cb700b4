// libcrashtrace.so: the device's crash-trace library. The device has its own library of this name;
// on any other Linux the stand-in of this project takes its place (platform/linux/crashtrace.cpp).

#ifndef IPSLA_PLATFORM_CRASHTRACE_H_
#define IPSLA_PLATFORM_CRASHTRACE_H_

#ifdef __cplusplus
extern "C" {
#endif

/// Sets the name under which a crash is reported. The text is copied.
void backtrace_set_program_name(const char* name);

/// Opens the console to which back-traces are written.
void backtrace_open_console(void);

/// Installs handlers for the fatal signals that write a back-trace to the console and then raise
/// the signal again with its default action.
void backtrace_install_signal_handlers(void);

#ifdef __cplusplus
}
#endif

#endif  // IPSLA_PLATFORM_CRASHTRACE_H_
