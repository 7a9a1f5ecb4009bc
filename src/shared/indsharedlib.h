#pragma once

#include <cstdint>

// A thin layer over the platform's shared libraries. A handle is the platform's.
namespace kelvane {

// Loads the library `name` (null: the program itself) with the platform's `flags` (RTLD_NOW and so
// on). Gives a handle, or null, and then qvr_last_shared_library_error has the reason.
void* qvr_open_shared_library(const char* name, int32_t flags);

// Gives the reason of the last failure since the last call, in the platform's words and memory;
// null if there was none.
const char* qvr_last_shared_library_error();

// Does nothing: libraries stay loaded, since functions of theirs may still be in use. Gives 1.
int32_t qvr_close_shared_library(void* handle);

// Gives the address of `symbol` in the library, or null.
void* qvr_get_shared_library_func_ptr(void* handle, const char* symbol);

// The same. A symbol that isn't there is also reported as the error "Could not resolve "symbol"";
// the program goes on, and the result is null.
void* qvr_must_get_shared_library_func_ptr(void* handle, const char* symbol);

}  // namespace kelvane
