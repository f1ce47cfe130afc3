// Text for a terminal or a line-oriented reader. Names, texts and messages
// come from configuration data and from the plug-in: printed raw, a newline
// in an interface name starts a line of its own (one that may read
// "accepted"), and an escape character drives the terminal.
#ifndef IPAPP_CHECK_PRINTABLE_H
#define IPAPP_CHECK_PRINTABLE_H

#include <string>
#include <string_view>

namespace ipapp::check {

/// text with every control character escaped: "\n", "\r", "\t", else
/// "\x1b" for a byte (C0 controls, DEL) and "\u009b" for a C1 control;
/// bytes that are not UTF-8 become "\xe9". Anything else, a backslash
/// included, stays as it is, so that text without control characters prints
/// unchanged.
std::string Printable(std::string_view text);

}  // namespace ipapp::check

#endif  // IPAPP_CHECK_PRINTABLE_H
