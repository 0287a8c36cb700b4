/* Preloaded: the call that is named in the file IPSLA_FAILING_CALL fails, as long as the file says
 * so. */

#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

static int Fails(const char* call) {
  char name[32] = {0};
  const char* file = getenv("IPSLA_FAILING_CALL");
  const int saved = errno;
  const int fd = file == NULL ? -1 : open(file, O_RDONLY | O_CLOEXEC);
  if (fd >= 0) {
    if (read(fd, name, sizeof name - 1) < 0) name[0] = '\0';
    close(fd);
  }
  errno = saved;
  return strcmp(name, call) == 0;
}

int epoll_ctl(int poll, int operation, int fd, struct epoll_event* event) {
  int (*real)(int, int, int, struct epoll_event*) = NULL;
  *(void**)&real = dlsym(RTLD_NEXT, "epoll_ctl");
  if (operation == EPOLL_CTL_ADD && Fails("epoll_ctl")) {
    errno = ENOSPC;
    return -1;
  }
  return real(poll, operation, fd, event);
}

int bind(int fd, __CONST_SOCKADDR_ARG address, socklen_t length) {
  int (*real)(int, __CONST_SOCKADDR_ARG, socklen_t) = NULL;
  *(void**)&real = dlsym(RTLD_NEXT, "bind");
  if (Fails("bind")) {
    errno = ENOMEM;
    return -1;
  }
  return real(fd, address, length);
}

int socket(int domain, int type, int protocol) {
  int (*real)(int, int, int) = NULL;
  *(void**)&real = dlsym(RTLD_NEXT, "socket");
  if (Fails("socket")) {
    errno = EMFILE;
    return -1;
  }
  return real(domain, type, protocol);
}
