#pragma once

namespace kelvane {

// Whether this build runs under AddressSanitizer, which takes address space as it likes and ends a
// program itself where memory can't be granted.
#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kUnderAddressSanitizer = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
inline constexpr bool kUnderAddressSanitizer = true;
#else
inline constexpr bool kUnderAddressSanitizer = false;
#endif
#else
inline constexpr bool kUnderAddressSanitizer = false;
#endif

}  // namespace kelvane
