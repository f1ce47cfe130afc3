// Text for a terminal or a line-oriented reader. Names, texts and messages
// come from configuration data and from the plug-in: printed raw, a newline
// in an interface name starts a line of its own (one that may read
// "accepted"), and an escape character drives the terminal.
#ifndef IPAPP_CHECK_PRINTABLE_H
#define IPAPP_CHECK_PRINTABLE_H

#include <cstddef>
#include <string>
#include <string_view>

namespace ipapp::check {

/// text with every control character escaped: "\n", "\r", "\t", else
/// "\x1b" for a byte (C0 controls, DEL) and "\u009b" for a C1 control;
/// bytes that are not UTF-8 become "\xe9". Anything else, a backslash
/// included, stays as it is, so that text without control characters prints
/// unchanged.
std::string Printable(std::string_view text);

/// The length of the well-formed UTF-8 character at the start of s (s not
/// empty, s[0] not ASCII), or 0: overlong forms, surrogates, code points past
/// U+10FFFF and a character cut short are not well formed.
size_t Utf8CharLength(std::string_view s);

}  // namespace ipapp::check

#endif  // IPAPP_CHECK_PRINTABLE_H
