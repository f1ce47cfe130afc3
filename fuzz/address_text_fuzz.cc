// Address text: every parser either refuses the text with its documented
// exception or yields a value that prints to text which parses back to the
// same value. A second line, when there is one, is a second prefix for the
// overlap properties.
#include <addrkit/ip_addr.h>

#include <boost/system/system_error.hpp>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

namespace {

// Parses with T's text constructor; nothing for text it refuses.
template <typename T>
std::optional<T> Parse(const std::string &text) {
  try {
    return T(text);
  } catch (const std::invalid_argument &) {
  } catch (const boost::system::system_error &) {
  }
  return std::nullopt;
}

template <typename T>
std::optional<T> RoundTrip(const std::string &text) {
  std::optional<T> value = Parse<T>(text);
  if (!value) return value;
  const std::string printed = value->to_string();
  std::optional<T> again = Parse<T>(printed);
  if (!again || !(*again == *value) || again->to_string() != printed) __builtin_trap();
  return value;
}

template <typename Mask>
void OverlapProperties(const std::string &a_text, const std::string &b_text) {
  const std::optional<Mask> a = RoundTrip<Mask>(a_text);
  const std::optional<Mask> b = RoundTrip<Mask>(b_text);
  if (a && !a->Overlap(*a)) __builtin_trap();
  if (a && b && a->Overlap(*b) != b->Overlap(*a)) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string text(reinterpret_cast<const char *>(data), size);
  const size_t nl = text.find('\n');
  const std::string first = text.substr(0, nl);
  const std::string second = nl == std::string::npos ? "" : text.substr(nl + 1);
  RoundTrip<addrkit::IPv4Addr>(first);
  RoundTrip<addrkit::IPv6Addr>(first);
  OverlapProperties<addrkit::IPv4AddrMask>(first, second);
  OverlapProperties<addrkit::IPv6AddrMask>(first, second);
  return 0;
}
