// libkeepalive.so: the device's watchdog client. The device has its own library of this name; on
// any other Linux the stand-in of this project takes its place (platform/linux/keepalive.cpp).
//
// The records behind the pointers belong to the library: the daemon only provides zeroed storage
// for them, which lives as long as the process, and never looks inside.

#ifndef IPSLA_PLATFORM_KEEPALIVE_H_
#define IPSLA_PLATFORM_KEEPALIVE_H_

#ifdef __cplusplus
extern "C" {
#endif

/// Bytes of storage that the daemon provides for each of the library's records.
#define KEEPALIVE_RECORD_BYTES 256

/// Announces the process to the watchdog as alive. The daemon calls it once, with (1, 2).
void send_signal_live(int first, int second);

/// Hands the watchdog state to the library, which starts its time-out there.
void set_timeout(void* state);

/// Tells the watchdog that the process is alive and moves its time-out on.
void send_and_shift_timeout(void* state, void* record, int value);

#ifdef __cplusplus
}
#endif

#endif  // IPSLA_PLATFORM_KEEPALIVE_H_
