// Configuration text at the byte level, before any parser sees it: a parser
// handed a C string stops at the first NUL (and whatever follows would go
// unchecked), and one handed other bytes than UTF-8 names them by a signed
// char's value. Files are read with a bound, so that a huge or never-ending
// one is refused instead of filling memory.
#ifndef IPAPP_HOST_INPUT_TEXT_H
#define IPAPP_HOST_INPUT_TEXT_H

#include <cstddef>
#include <string>
#include <string_view>

namespace ipapp::host {

/// The largest configuration file read: far above the element's largest
/// configuration (some megabytes), far below what a machine can hold.
inline constexpr std::size_t kMaxConfigBytes = std::size_t{256} << 20;

/// The text of a configuration file. Throws InputError naming the file and,
/// for bad bytes, the line: for a file larger than kMaxConfigBytes (one of
/// known size before anything is read, a stream as soon as it goes past the
/// limit), a NUL byte, or bytes that are not UTF-8 (as soon as they arrive).
/// A UTF-8 byte-order mark at the start is dropped.
std::string ReadConfigFile(const std::string &path);

/// Throws InputError naming source and the line of the first NUL byte or
/// byte that is not UTF-8 in text.
void CheckConfigText(std::string_view text, const std::string &source);

/// message as it may be shown: one longer than a few hundred bytes keeps its
/// start and end around a marker saying how much was cut, so that input
/// quoted in it (an element name of megabytes) does not flood the reader.
/// Cuts fall between UTF-8 characters.
std::string Abridged(std::string message);

}  // namespace ipapp::host

#endif  // IPAPP_HOST_INPUT_TEXT_H
