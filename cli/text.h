// Text of others as a terminal may be given it. A registry holds what anybody wrote there, and a terminal obeys what it
// is sent.
#pragma once

#include <cstddef>
#include <string>

namespace velia::cli {

// The text with what does not show as it is in escapes: "\n", "\r", "\t", and "\x1b" for each byte of another control
// character, of a sign that turns the direction of writing, or of what is no UTF-8. A backslash is doubled, so that the
// escapes can be undone.
std::string escaped(const std::string &text);

// It is shown as it is, byte by byte: printable ASCII without backslash and double quote. Most text is, and a long list
// has much of it.
bool is_simple(const std::string &text);

// How many places of a line an escaped text takes.
size_t width_of(const std::string &text);

} // namespace velia::cli
