#pragma once

// Whether this build runs under AddressSanitizer, which takes address space as it likes and ends a
// program itself where memory can't be granted. As a macro, for tests that such a build leaves out.
#if defined(__SANITIZE_ADDRESS__)
#define KELVANE_UNDER_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KELVANE_UNDER_ADDRESS_SANITIZER 1
#endif
#endif
#ifndef KELVANE_UNDER_ADDRESS_SANITIZER
#define KELVANE_UNDER_ADDRESS_SANITIZER 0
#endif

namespace kelvane {

inline constexpr bool kUnderAddressSanitizer = KELVANE_UNDER_ADDRESS_SANITIZER != 0;

}  // namespace kelvane
