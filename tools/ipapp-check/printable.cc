#include "printable.h"

#include <ipapp/utf8.h>

#include <cstdio>

namespace ipapp::check {
namespace {

void Hex(std::string *out, const char *format, unsigned value) {
  char buf[8];
  std::snprintf(buf, sizeof buf, format, value);
  *out += buf;
}

}  // namespace

size_t Utf8CharLength(std::string_view s) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(s[i]); };
  const ipapp::utf8::Lead lead = ipapp::utf8::LeadOf(byte(0));
  if (lead.continuations == 0) return 0;
  const size_t n = 1 + static_cast<size_t>(lead.continuations);
  unsigned char low = lead.low, high = lead.high;
  if (s.size() < n) return 0;
  for (size_t i = 1; i < n; ++i) {
    if (byte(i) < low || byte(i) > high) return 0;
    low = 0x80;
    high = 0xbf;
  }
  return n;
}

std::string Printable(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size();) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c >= 0x20 && c < 0x7f) {
      out += static_cast<char>(c);
      ++i;
    } else if (c == '\n') {
      out += "\\n";
      ++i;
    } else if (c == '\r') {
      out += "\\r";
      ++i;
    } else if (c == '\t') {
      out += "\\t";
      ++i;
    } else if (c < 0x80) {
      Hex(&out, "\\x%02x", c);
      ++i;
    } else if (const size_t n = Utf8CharLength(text.substr(i)); n == 0) {
      Hex(&out, "\\x%02x", c);
      ++i;
    } else if (n == 2 && c == 0xc2 && static_cast<unsigned char>(text[i + 1]) < 0xa0) {
      Hex(&out, "\\u%04x", static_cast<unsigned char>(text[i + 1]));
      i += n;
    } else {
      out.append(text, i, n);
      i += n;
    }
  }
  return out;
}

}  // namespace ipapp::check
