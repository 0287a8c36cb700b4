/* Preloaded into the daemon: system calls that fail as the orders say. The orders stand in a file
 * that is mapped into memory (IPSLA_FAULTS names it), so that a test can give new ones while the
 * daemon runs; what it costs a call without an order is one look at that memory. */

#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sched.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <sys/uio.h>
#include <unistd.h>

/* What the test writes and reads; support/faults.py has the same. */
struct Orders {
  char call[24];    /* the call that fails; empty: none */
  char path[256];   /* open and fopen: what the path begins with */
  int32_t error;    /* errno */
  int32_t socket;   /* one of SocketKind; kAny: whatever it is */
  int32_t detail;   /* the option, the operation or the flags; -1: whatever it is */
  atomic_int skip;  /* so many go through first */
  atomic_int times; /* so many fail then */
  atomic_int hits;  /* so many have failed */
};

enum SocketKind { kAny, kNetlink, kApi, kRaw, kProbes, kControl, kOther };

enum { kApiPort = 10101 };

static struct Orders* orders;

/* Between a request's arrival at the Sender API and the thread's next wait. */
static _Thread_local int in_request __attribute__((tls_model("initial-exec")));

__attribute__((constructor)) static void MapOrders(void) {
  const char* name = getenv("IPSLA_FAULTS");
  if (name == NULL) return;
  FILE* file = fopen(name, "r+");
  if (file == NULL) return;
  void* memory = mmap(NULL, sizeof *orders, PROT_READ | PROT_WRITE, MAP_SHARED, fileno(file), 0);
  fclose(file);
  if (memory != MAP_FAILED) orders = memory;
}

static int IntegerOption(int fd, int level, int option) {
  int value = -1;
  socklen_t length = sizeof value;
  if (getsockopt(fd, level, option, &value, &length) != 0) return -1;
  return value;
}

static enum SocketKind KindOf(int fd) {
  const int saved = errno;
  const int domain = IntegerOption(fd, SOL_SOCKET, SO_DOMAIN);
  const int type = IntegerOption(fd, SOL_SOCKET, SO_TYPE);
  struct sockaddr_in address = {0};
  socklen_t length = sizeof address;
  enum SocketKind kind = kOther;
  if (domain == AF_NETLINK) {
    kind = kNetlink;
  } else if (domain == AF_INET && type == SOCK_RAW) {
    kind = kRaw;
  } else if (domain == AF_INET && type == SOCK_DGRAM) {
    getsockname(fd, (struct sockaddr*)&address, &length);
    kind = ntohs(address.sin_port) == kApiPort              ? kApi
           : IntegerOption(fd, IPPROTO_IP, IP_RECVERR) == 1 ? kControl
                                                            : kProbes;
  }
  errno = saved;
  return kind;
}

/* Whether an order is for this call and due; errno is then set. */
static int Due(void) {
  if (atomic_load(&orders->skip) > 0 && atomic_fetch_sub(&orders->skip, 1) > 0) return 0;
  if (atomic_load(&orders->times) <= 0 || atomic_fetch_sub(&orders->times, 1) <= 0) return 0;
  atomic_fetch_add(&orders->hits, 1);
  errno = orders->error;
  return 1;
}

static int IsOrdered(const char* call, int detail) {
  return orders != NULL && atomic_load(&orders->times) > 0 && strcmp(orders->call, call) == 0 &&
         (orders->detail < 0 || orders->detail == detail);
}

static int Fails(const char* call, int detail) {
  return IsOrdered(call, detail) && Due();
}

static int FailsOn(int fd, const char* call, int detail) {
  if (!IsOrdered(call, detail)) return 0;
  if (orders->socket != kAny && KindOf(fd) != (enum SocketKind)orders->socket) return 0;
  return Due();
}

static int FailsAt(const char* path, const char* call) {
  return IsOrdered(call, -1) && strncmp(path, orders->path, strlen(orders->path)) == 0 && Due();
}

/* The next definition of a function, in a variable `real` of its type. */
#define REAL(name, result, ...)              \
  static result (*real)(__VA_ARGS__);        \
  if (real == NULL) {                        \
    *(void**)&real = dlsym(RTLD_NEXT, name); \
  }

int socket(int domain, int type, int protocol) {
  REAL("socket", int, int, int, int)
  const int basic = type & ~(SOCK_CLOEXEC | SOCK_NONBLOCK);
  const enum SocketKind kind = domain == AF_NETLINK ? kNetlink
                               : basic == SOCK_RAW  ? kRaw
                               : domain == AF_INET  ? kProbes
                                                    : kOther;
  const int concerned =
      orders != NULL && (orders->socket == kAny || orders->socket == (int32_t)kind);
  return concerned && Fails("socket", -1) ? -1 : real(domain, type, protocol);
}

int bind(int fd, __CONST_SOCKADDR_ARG address, socklen_t length) {
  REAL("bind", int, int, __CONST_SOCKADDR_ARG, socklen_t)
  return FailsOn(fd, "bind", -1) ? -1 : real(fd, address, length);
}

int connect(int fd, __CONST_SOCKADDR_ARG address, socklen_t length) {
  REAL("connect", int, int, __CONST_SOCKADDR_ARG, socklen_t)
  return FailsOn(fd, "connect", -1) ? -1 : real(fd, address, length);
}

int getsockname(int fd, __SOCKADDR_ARG address, socklen_t* restrict length) {
  REAL("getsockname", int, int, __SOCKADDR_ARG, socklen_t*)
  /* No kind of socket is asked for: that would ask here again. */
  return Fails("getsockname", -1) ? -1 : real(fd, address, length);
}

int setsockopt(int fd, int level, int option, const void* value, socklen_t length) {
  REAL("setsockopt", int, int, int, int, const void*, socklen_t)
  return FailsOn(fd, "setsockopt", option) ? -1 : real(fd, level, option, value, length);
}

ssize_t sendto(int fd, const void* bytes, size_t size, int flags, __CONST_SOCKADDR_ARG to,
               socklen_t length) {
  REAL("sendto", ssize_t, int, const void*, size_t, int, __CONST_SOCKADDR_ARG, socklen_t)
  return FailsOn(fd, "sendto", -1) ? -1 : real(fd, bytes, size, flags, to, length);
}

ssize_t sendmsg(int fd, const struct msghdr* message, int flags) {
  REAL("sendmsg", ssize_t, int, const struct msghdr*, int)
  return FailsOn(fd, "sendmsg", -1) ? -1 : real(fd, message, flags);
}

ssize_t recvmsg(int fd, struct msghdr* message, int flags) {
  REAL("recvmsg", ssize_t, int, struct msghdr*, int)
  if (FailsOn(fd, "recvmsg", (flags & MSG_ERRQUEUE) != 0)) return -1;
  const ssize_t received = real(fd, message, flags);
  if (IsOrdered("malloc", -1) && received >= 0 && KindOf(fd) == kApi) in_request = 1;
  return received;
}

ssize_t recv(int fd, void* bytes, size_t size, int flags) {
  REAL("recv", ssize_t, int, void*, size_t, int)
  return FailsOn(fd, "recv", -1) ? -1 : real(fd, bytes, size, flags);
}

ssize_t recvfrom(int fd, void* bytes, size_t size, int flags, __SOCKADDR_ARG from,
                 socklen_t* restrict length) {
  REAL("recvfrom", ssize_t, int, void*, size_t, int, __SOCKADDR_ARG, socklen_t*)
  return FailsOn(fd, "recvfrom", -1) ? -1 : real(fd, bytes, size, flags, from, length);
}

/* The socket of the control phase is watched before it is bound, that of the probes behind the last
   one: orders tell them apart by the name of the call. */
static int IsUnbound(int fd) {
  const int saved = errno;
  struct sockaddr_in address = {0};
  socklen_t length = sizeof address;
  const int unbound = IntegerOption(fd, SOL_SOCKET, SO_TYPE) == SOCK_DGRAM &&
                      getsockname(fd, (struct sockaddr*)&address, &length) == 0 &&
                      address.sin_port == 0;
  errno = saved;
  return unbound;
}

int epoll_ctl(int poll, int operation, int fd, struct epoll_event* event) {
  REAL("epoll_ctl", int, int, int, int, struct epoll_event*)
  const char* bound = "epoll_ctl";
  const char* unbound = "epoll_ctl, unbound";
  /* Only now: the question is itself a call that may be ordered to fail. */
  const int ordered = IsOrdered(bound, operation) || IsOrdered(unbound, operation);
  const char* name = ordered && IsUnbound(fd) ? unbound : bound;
  return FailsOn(fd, name, operation) ? -1 : real(poll, operation, fd, event);
}

int epoll_wait(int poll, struct epoll_event* events, int most, int patience) {
  REAL("epoll_wait", int, int, struct epoll_event*, int, int)
  in_request = 0;
  return Fails("epoll_wait", -1) ? -1 : real(poll, events, most, patience);
}

int timerfd_settime(int fd, int flags, const struct itimerspec* now, struct itimerspec* before) {
  REAL("timerfd_settime", int, int, int, const struct itimerspec*, struct itimerspec*)
  return Fails("timerfd_settime", -1) ? -1 : real(fd, flags, now, before);
}

int timerfd_create(int clock, int flags) {
  REAL("timerfd_create", int, int, int)
  return Fails("timerfd_create", clock) ? -1 : real(clock, flags);
}

int setns(int fd, int kind) {
  REAL("setns", int, int, int)
  return Fails("setns", -1) ? -1 : real(fd, kind);
}

int open(const char* path, int flags, ...) {
  REAL("open", int, const char*, int, ...)
  if (FailsAt(path, "open")) return -1;
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return real(path, flags, mode);
}

FILE* fopen(const char* restrict path, const char* restrict mode) {
  REAL("fopen", FILE*, const char*, const char*)
  return FailsAt(path, "fopen") ? NULL : real(path, mode);
}

FILE* fopen64(const char* restrict path, const char* restrict mode) {
  REAL("fopen64", FILE*, const char*, const char*)
  return FailsAt(path, "fopen") ? NULL : real(path, mode);
}

ssize_t writev(int fd, const struct iovec* parts, int count) {
  REAL("writev", ssize_t, int, const struct iovec*, int)
  return Fails("writev", -1) ? -1 : real(fd, parts, count);
}

int getifaddrs(struct ifaddrs** list) {
  REAL("getifaddrs", int, struct ifaddrs**)
  return Fails("getifaddrs", -1) ? -1 : real(list);
}

int pthread_create(pthread_t* restrict thread, const pthread_attr_t* restrict attributes,
                   void* (*start)(void*), void* restrict argument) {
  REAL("pthread_create", int, pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)
  return Fails("pthread_create", -1) ? orders->error : real(thread, attributes, start, argument);
}

/* Of memory only what a request to the Sender API takes. */
static int MemoryFails(void) {
  return in_request && Fails("malloc", -1);
}

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);

void* malloc(size_t size) {
  return MemoryFails() ? NULL : __libc_malloc(size);
}
void* calloc(size_t count, size_t size) {
  return MemoryFails() ? NULL : __libc_calloc(count, size);
}
void* realloc(void* memory, size_t size) {
  return MemoryFails() ? NULL : __libc_realloc(memory, size);
}
