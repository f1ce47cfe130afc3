// The well-formed UTF-8 sequences: what a lead byte allows after it.
#ifndef IPAPP_UTF8_H
#define IPAPP_UTF8_H

namespace ipapp::utf8 {

/// What may follow a lead byte: the number of continuation bytes, and the
/// range of the first one (later ones are always 0x80-0xbf). The first
/// one's range excludes overlong forms, surrogates and code points past
/// U+10FFFF.
struct Lead {
  int continuations = 0;  ///< 0: c is no lead byte
  unsigned char low = 0x80, high = 0xbf;
};

constexpr Lead LeadOf(unsigned char c) {
  Lead lead;
  if (c >= 0xc2 && c <= 0xdf) {
    lead.continuations = 1;
  } else if (c >= 0xe0 && c <= 0xef) {
    lead.continuations = 2;
    if (c == 0xe0) lead.low = 0xa0;
    if (c == 0xed) lead.high = 0x9f;
  } else if (c >= 0xf0 && c <= 0xf4) {
    lead.continuations = 3;
    if (c == 0xf0) lead.low = 0x90;
    if (c == 0xf4) lead.high = 0x8f;
  }
  return lead;
}

}  // namespace ipapp::utf8

#endif  // IPAPP_UTF8_H
