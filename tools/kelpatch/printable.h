// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// Names come from files that nobody vouches for, and go to terminals, which obey what is in them.
namespace kelpatch {

// Bytes of the UTF-8 character that the text begins with; 0 if that is none.
size_t character_size(std::string_view text);

// The text with "\x1b" and the like for each byte of a control character (also of those that UTF-8
// has from 0x80 to 0x9F, and of those that turn the direction of writing) and for each that is no
// UTF-8. A backslash stays as it is.
std::string printable(std::string_view text);

}  // namespace kelpatch
