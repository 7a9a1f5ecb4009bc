#include "indsharedlib.h"

#include <dlfcn.h>

#include "indgen_message.h"

namespace kelvane {

void* qvr_open_shared_library(const char* name, int32_t flags) {
  return ::dlopen(name, flags);
}

const char* qvr_last_shared_library_error() {
  return ::dlerror();
}

int32_t qvr_close_shared_library(void* /*handle*/) {
  return 1;
}

void* qvr_get_shared_library_func_ptr(void* handle, const char* symbol) {
  return ::dlsym(handle, symbol);
}

void* qvr_must_get_shared_library_func_ptr(void* handle, const char* symbol) {
  void* const function = qvr_get_shared_library_func_ptr(handle, symbol);
  if (function == nullptr) {
    gen_error("Could not resolve \"%s\"", symbol);
  }
  return function;
}

}  // namespace kelvane
