// SPDX-License-Identifier: Apache-2.0
// A library to be loaded in front of a program (LD_PRELOAD): one call of the platform fails.
//   FAILING_CALL="NAME N"        the Nth call of NAME fails with EIO
//   FAILING_CALL="NAME N short"  the Nth call of NAME, read or write, does half of what it was
//   asked
//   FAILING_CALL="NAME N interrupt"  SIGINT comes at the Nth call of NAME
// The file that FAILING_CALL_MADE names is made when it comes to that.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static int calls_made;

// 0, or 1 if the call fails, or 2 if it is cut short.
static int fate_of(const char* name) {
  const char* const wanted = getenv("FAILING_CALL");
  const size_t length = strlen(name);
  if (wanted == NULL || strncmp(wanted, name, length) != 0 || wanted[length] != ' ' ||
      ++calls_made != atoi(wanted + length)) {
    return 0;
  }
  ((int (*)(const char*, mode_t))dlsym(RTLD_NEXT, "creat"))(getenv("FAILING_CALL_MADE"), 0600);
  if (strstr(wanted, " interrupt") != NULL) {
    raise(SIGINT);
    return 0;
  }
  errno = EIO;
  return strstr(wanted, " short") != NULL ? 2 : 1;
}

#define STANDS_BEFORE(type, name, parameters, arguments)                        \
  type name parameters {                                                        \
    type(*const real) parameters = (type(*) parameters)dlsym(RTLD_NEXT, #name); \
    const int fate = fate_of(#name);                                            \
    return fate == 1 ? -1 : real arguments;                                     \
  }

STANDS_BEFORE(int, open, (const char* file, int flags, ...), (file, flags, 0600))
STANDS_BEFORE(int, mkstemp, (char* file), (file))
STANDS_BEFORE(int, fsync, (int file), (file))
STANDS_BEFORE(int, close, (int file), (file))
STANDS_BEFORE(int, rename, (const char* from, const char* to), (from, to))
STANDS_BEFORE(ssize_t, read, (int file, void* bytes, size_t count),
              (file, bytes, fate == 2 ? (count + 1) / 2 : count))
STANDS_BEFORE(ssize_t, write, (int file, const void* bytes, size_t count),
              (file, bytes, fate == 2 ? (count + 1) / 2 : count))
