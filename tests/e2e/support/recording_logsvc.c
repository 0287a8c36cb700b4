/* A system-log library that records: preloaded into the daemon, it appends each message as one
 * line, "severity flag module text" with newlines and backslashes escaped, to the file named by
 * IPSLA_RECORDING_FILE. */

#include <fcntl.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "platform/logsvc.h"

static void Append(const char* line, size_t length) {
  const char* path = getenv("IPSLA_RECORDING_FILE");
  const int fd = path == NULL ? -1 : open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) return;
  /* One write per record: records of several threads do not mix. */
  const ssize_t written = write(fd, line, length);
  if (written < 0 || (size_t)written != length) abort();
  close(fd);
}

static size_t Escape(const char* text, size_t length, char* out) {
  size_t used = 0;
  for (size_t i = 0; i < length; ++i) {
    if (text[i] == '\n' || text[i] == '\\') out[used++] = '\\';
    out[used++] = text[i] == '\n' ? 'n' : text[i];
  }
  return used;
}

void SYSLOG_message(int module, int flag, int severity, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  va_list again;
  va_copy(again, arguments);
  const int length = vsnprintf(NULL, 0, format, arguments);
  va_end(arguments);
  if (length >= 0) {
    const size_t room = (size_t)length + 1;
    char* text = malloc(room);
    char* line = malloc(2 * room + 64);
    if (text == NULL || line == NULL) abort();
    vsnprintf(text, room, format, again);
    size_t used = (size_t)snprintf(line, 64, "%d %d %d ", severity, flag, module);
    used += Escape(text, (size_t)length, line + used);
    line[used++] = '\n';
    Append(line, used);
    free(line);
    free(text);
  }
  va_end(again);
}

void SYSLOG_close(void) {}
