#include "values.h"

#include <arpa/inet.h>

#include <array>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <limits>
#include <string>
#include <type_traits>

namespace ipapp::store {
namespace {

bool ParseInteger(std::string_view text, bool is_signed, int64_t lo, uint64_t hi, uint64_t *mag,
                  bool *neg, std::string *error) {
  size_t i = 0;
  *neg = false;
  if (is_signed && !text.empty() && text[0] == '-') {
    *neg = true;
    i = 1;
  }
  if (i == text.size()) {
    *error = "not a number";
    return false;
  }
  uint64_t value = 0;
  for (; i < text.size(); ++i) {
    char c = text[i];
    if (c < '0' || c > '9') {
      *error = "not a number";
      return false;
    }
    if (value > (std::numeric_limits<uint64_t>::max() - (c - '0')) / 10) {
      *error = "out of range";
      return false;
    }
    value = value * 10 + static_cast<uint64_t>(c - '0');
  }
  if (*neg ? value > static_cast<uint64_t>(-(lo + 1)) + 1 : value > hi) {
    *error = "out of range";
    return false;
  }
  *mag = value;
  return true;
}

bool ParseSigned(std::string_view text, int64_t lo, int64_t hi, int64_t *out, std::string *error) {
  uint64_t mag;
  bool neg;
  if (!ParseInteger(text, true, lo, static_cast<uint64_t>(hi), &mag, &neg, error)) return false;
  *out = neg ? static_cast<int64_t>(0 - mag) : static_cast<int64_t>(mag);
  return true;
}

bool ParseUnsigned(std::string_view text, uint64_t hi, uint64_t *out, std::string *error) {
  bool neg;
  return ParseInteger(text, false, 0, hi, out, &neg, error);
}

// "address/len" with len decimal digits only, no sign, no leading zero.
bool ParseAddrAndLen(std::string_view text, int family, void *addr, int max_len, uint8_t *len,
                     std::string *error) {
  size_t slash = text.rfind('/');
  if (slash == std::string_view::npos) {
    *error = "missing prefix length";
    return false;
  }
  std::string host(text.substr(0, slash));
  std::string_view digits = text.substr(slash + 1);
  uint64_t value;
  if (digits.empty() || (digits.size() > 1 && digits[0] == '0') ||
      !ParseUnsigned(digits, static_cast<uint64_t>(max_len), &value, error)) {
    *error = "bad prefix length";
    return false;
  }
  if (inet_pton(family, host.c_str(), addr) != 1) {
    *error = "bad address";
    return false;
  }
  *len = static_cast<uint8_t>(value);
  return true;
}

int Nibble(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// "xx:xx:..." (empty text: no bytes).
bool ParseHex(std::string_view text, std::string *bytes, std::string *error) {
  bytes->clear();
  for (size_t i = 0; i < text.size();) {
    if (i + 1 >= text.size() || Nibble(text[i]) < 0 || Nibble(text[i + 1]) < 0 ||
        (i + 2 < text.size() && text[i + 2] != ':') || (i + 2 == text.size() - 1)) {
      *error = "not a hex string (xx:xx:...)";
      return false;
    }
    bytes->push_back(static_cast<char>(Nibble(text[i]) * 16 + Nibble(text[i + 1])));
    i += 3;
  }
  return true;
}

constexpr char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

bool ParseBase64(std::string_view text, std::string *bytes, std::string *error) {
  bytes->clear();
  uint32_t acc = 0;
  int bits = 0;
  size_t pad = 0;
  size_t digits = 0;
  for (char c : text) {
    if (c == '\n' || c == '\r' || c == ' ') continue;
    if (c == '=') {
      ++pad;
      continue;
    }
    const char *at = c ? std::strchr(kBase64, c) : nullptr;
    if (at == nullptr || pad > 0) {
      *error = "not base64";
      return false;
    }
    ++digits;
    acc = (acc << 6) | static_cast<uint32_t>(at - kBase64);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      bytes->push_back(static_cast<char>((acc >> bits) & 0xFF));
    }
  }
  if ((digits + pad) % 4 != 0 || pad > 2) {
    *error = "not base64";
    return false;
  }
  return true;
}

void AppendBase64(const unsigned char *p, size_t n, std::string *out) {
  for (size_t i = 0; i < n; i += 3) {
    uint32_t chunk = static_cast<uint32_t>(p[i]) << 16;
    if (i + 1 < n) chunk |= static_cast<uint32_t>(p[i + 1]) << 8;
    if (i + 2 < n) chunk |= p[i + 2];
    out->push_back(kBase64[(chunk >> 18) & 63]);
    out->push_back(kBase64[(chunk >> 12) & 63]);
    out->push_back(i + 1 < n ? kBase64[(chunk >> 6) & 63] : '=');
    out->push_back(i + 2 < n ? kBase64[chunk & 63] : '=');
  }
}

void AppendHex(const unsigned char *p, size_t n, const char *sep, bool upper, std::string *out) {
  const char *digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
  out->reserve(out->size() + n * (2 + std::strlen(sep)));
  for (size_t i = 0; i < n; ++i) {
    if (i != 0) out->append(sep);
    out->push_back(digits[p[i] >> 4]);
    out->push_back(digits[p[i] & 15]);
  }
}

// Fixed-width decimal field of text at pos; advances pos.
bool Digits(std::string_view text, size_t *pos, int width, int *out) {
  if (*pos + width > text.size()) return false;
  int v = 0;
  for (int i = 0; i < width; ++i) {
    char c = text[*pos + i];
    if (c < '0' || c > '9') return false;
    v = v * 10 + (c - '0');
  }
  *pos += width;
  *out = v;
  return true;
}

bool Expect(std::string_view text, size_t *pos, char c) {
  if (*pos >= text.size() || text[*pos] != c) return false;
  ++*pos;
  return true;
}

// "Z", "+hh:mm", "-hh:mm" ("-00:00": no time zone known).
bool ParseZone(std::string_view text, size_t *pos, int8_t *hours, int8_t *minutes) {
  if (*pos == text.size()) {
    *hours = CONFD_TIMEZONE_UNDEF;
    *minutes = 0;
    return true;
  }
  if (text[*pos] == 'Z') {
    ++*pos;
    *hours = 0;
    *minutes = 0;
    return *pos == text.size();
  }
  char sign = text[*pos];
  if (sign != '+' && sign != '-') return false;
  ++*pos;
  int h, m;
  if (!Digits(text, pos, 2, &h) || !Expect(text, pos, ':') || !Digits(text, pos, 2, &m) ||
      *pos != text.size() || h > 14 || m > 59) {
    return false;
  }
  if (sign == '-' && h == 0 && m == 0) {
    *hours = CONFD_TIMEZONE_UNDEF;
    *minutes = 0;
  } else if (h != 0) {
    *hours = static_cast<int8_t>(sign == '-' ? -h : h);
    *minutes = static_cast<int8_t>(m);
  } else {
    *hours = 0;
    *minutes = static_cast<int8_t>(sign == '-' ? -m : m);
  }
  return true;
}

void AppendZone(int hours, int minutes, std::string *out) {
  char buf[32];
  if (hours == CONFD_TIMEZONE_UNDEF) {
    out->append("-00:00");
  } else if (hours == 0 && minutes == 0) {
    out->push_back('Z');
  } else {
    bool neg = hours < 0 || (hours == 0 && minutes < 0);
    std::snprintf(buf, sizeof buf, "%c%02d:%02d", neg ? '-' : '+', hours < 0 ? -hours : hours,
                  minutes < 0 ? -minutes : minutes);
    out->append(buf);
  }
}

bool ParseDateTime(std::string_view text, confd_datetime *dt) {
  size_t pos = 0;
  int year = 0, month = 0, day = 0, hour = 0, min = 0, sec = 0;
  if (!Digits(text, &pos, 4, &year) || !Expect(text, &pos, '-') || !Digits(text, &pos, 2, &month) ||
      !Expect(text, &pos, '-') || !Digits(text, &pos, 2, &day) || !Expect(text, &pos, 'T') ||
      !Digits(text, &pos, 2, &hour) || !Expect(text, &pos, ':') || !Digits(text, &pos, 2, &min) ||
      !Expect(text, &pos, ':') || !Digits(text, &pos, 2, &sec)) {
    return false;
  }
  uint32_t micro = 0;
  if (pos < text.size() && text[pos] == '.') {
    ++pos;
    int n = 0;
    while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') {
      if (n < 6) micro = micro * 10 + static_cast<uint32_t>(text[pos] - '0');
      ++n;
      ++pos;
    }
    if (n == 0) return false;
    for (; n < 6; ++n) micro *= 10;
  }
  std::memset(dt, 0, sizeof *dt);
  dt->year = static_cast<int16_t>(year);
  dt->month = static_cast<uint8_t>(month);
  dt->day = static_cast<uint8_t>(day);
  dt->hour = static_cast<uint8_t>(hour);
  dt->min = static_cast<uint8_t>(min);
  dt->sec = static_cast<uint8_t>(sec);
  dt->micro = micro;
  return month >= 1 && month <= 12 && day >= 1 && day <= 31 && hour <= 23 && min <= 59 &&
         sec <= 60 && ParseZone(text, &pos, &dt->timezone, &dt->timezone_minutes);
}

void AppendDateTime(const confd_datetime &dt, std::string *out) {
  char buf[48];
  std::snprintf(buf, sizeof buf, "%04d-%02u-%02uT%02u:%02u:%02u", dt.year, dt.month, dt.day,
                dt.hour, dt.min, dt.sec);
  out->append(buf);
  if (dt.micro != 0) {
    std::snprintf(buf, sizeof buf, ".%06u", dt.micro % 1000000);
    std::string frac(buf);
    while (frac.back() == '0') frac.pop_back();
    out->append(frac);
  }
  AppendZone(dt.timezone, dt.timezone_minutes, out);
}

bool ParseDecimal64(std::string_view text, uint8_t fd, confd_decimal64 *d, std::string *error) {
  size_t i = 0;
  bool neg = false;
  if (i < text.size() && (text[i] == '-' || text[i] == '+')) neg = text[i++] == '-';
  uint64_t value = 0;
  int int_digits = 0;
  int frac_digits = 0;
  bool point = false;
  for (; i < text.size(); ++i) {
    char c = text[i];
    if (c == '.' && !point) {
      point = true;
      continue;
    }
    if (c < '0' || c > '9' || (point && frac_digits == fd)) {
      *error = "not a decimal64 with " + std::to_string(fd) + " fraction digits";
      return false;
    }
    if (value > (std::numeric_limits<uint64_t>::max() / 10)) {
      *error = "out of range";
      return false;
    }
    value = value * 10 + static_cast<uint64_t>(c - '0');
    (point ? frac_digits : int_digits)++;
  }
  if (int_digits == 0 && frac_digits == 0) {
    *error = "not a number";
    return false;
  }
  for (; frac_digits < fd; ++frac_digits) {
    if (value > std::numeric_limits<uint64_t>::max() / 10) {
      *error = "out of range";
      return false;
    }
    value *= 10;
  }
  if (value > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
    *error = "out of range";
    return false;
  }
  d->value = neg ? -static_cast<int64_t>(value) : static_cast<int64_t>(value);
  d->fraction_digits = fd;
  return true;
}

void AppendDecimal64(const confd_decimal64 &d, std::string *out) {
  uint64_t mag = d.value < 0 ? 0 - static_cast<uint64_t>(d.value) : static_cast<uint64_t>(d.value);
  uint64_t scale = 1;
  for (int i = 0; i < d.fraction_digits; ++i) scale *= 10;
  std::string frac = std::to_string(mag % scale + scale).substr(1);  // leading zeros kept
  while (frac.size() > 1 && frac.back() == '0') frac.pop_back();
  if (frac.empty()) frac = "0";
  if (d.value < 0) out->push_back('-');
  *out += std::to_string(mag / scale) + "." + frac;
}

bool ParseBits(const LeafType &type, std::string_view text, confd_value_t *v, std::string *storage,
               std::string *error) {
  uint64_t mask = 0;
  std::string big;
  size_t i = 0;
  while (i < text.size()) {
    while (i < text.size() && (text[i] == ' ' || text[i] == '\t')) ++i;
    size_t start = i;
    while (i < text.size() && text[i] != ' ' && text[i] != '\t') ++i;
    if (start == i) break;
    std::string_view name = text.substr(start, i - start);
    const EnumItem *bit = nullptr;
    for (const EnumItem &b : type.enums) {
      if (name == b.name) bit = &b;
    }
    if (bit == nullptr) {
      *error = "\"" + std::string(name) + "\" is not a bit of the type";
      return false;
    }
    const auto pos = static_cast<uint32_t>(bit->value);
    if (type.vtype == C_BITBIG) {
      if (big.size() <= pos / 8) big.resize(pos / 8 + 1, '\0');
      big[pos / 8] = static_cast<char>(big[pos / 8] | (1u << (pos % 8)));
    } else {
      mask |= uint64_t{1} << pos;
    }
  }
  if (type.vtype == C_BIT32) {
    CONFD_SET_BIT32(v, static_cast<uint32_t>(mask));
  } else if (type.vtype == C_BIT64) {
    CONFD_SET_BIT64(v, mask);
  } else {
    *storage = std::move(big);
    CONFD_SET_BITBIG(v, storage->data(), storage->size());
  }
  return true;
}

void AppendBitNames(const LeafType &type, const confd_value_t &v, std::string *out) {
  bool first = true;
  for (const EnumItem &b : type.enums) {
    const auto pos = static_cast<uint32_t>(b.value);
    bool set;
    if (v.type == C_BITBIG) {
      set = pos / 8 < v.val.buf.size && (v.val.buf.ptr[pos / 8] >> (pos % 8)) & 1;
    } else if (v.type == C_BIT32) {
      set = pos < 32 && (v.val.b32 >> pos) & 1;
    } else {
      set = pos < 64 && (v.val.b64 >> pos) & 1;
    }
    if (!set) continue;
    if (!first) out->push_back(' ');
    out->append(b.name);
    first = false;
  }
}

const LeafType *MemberOfType(const LeafType &type, int vtype) {
  for (const LeafType &m : type.members) {
    if (m.vtype == C_UNION) {
      if (const LeafType *inner = MemberOfType(m, vtype)) return inner;
    } else if (m.vtype == vtype || (m.vtype == C_EMPTY && vtype == C_XMLTAG)) {
      return &m;
    }
  }
  return nullptr;
}

template <typename T>
int Cmp(T a, T b) {
  return a < b ? -1 : (b < a ? 1 : 0);
}

int CmpBytes(const void *a, size_t na, const void *b, size_t nb) {
  int c = na && nb ? std::memcmp(a, b, na < nb ? na : nb) : 0;
  if (c != 0) return c < 0 ? -1 : 1;
  return Cmp(na, nb);
}

// Members of the value union by C type, for the rows of the integer types.
template <typename T>
T &NumberOf(confd_value_t &v) {
  if constexpr (std::is_same_v<T, int8_t>) {
    return v.val.i8;
  } else if constexpr (std::is_same_v<T, int16_t>) {
    return v.val.i16;
  } else if constexpr (std::is_same_v<T, int32_t>) {
    return v.val.i32;
  } else if constexpr (std::is_same_v<T, int64_t>) {
    return v.val.i64;
  } else if constexpr (std::is_same_v<T, uint8_t>) {
    return v.val.u8;
  } else if constexpr (std::is_same_v<T, uint16_t>) {
    return v.val.u16;
  } else if constexpr (std::is_same_v<T, uint32_t>) {
    return v.val.u32;
  } else {
    static_assert(std::is_same_v<T, uint64_t>, "an integer type of the value union");
    return v.val.u64;
  }
}

template <typename T>
T NumberOf(const confd_value_t &v) {
  return NumberOf<T>(const_cast<confd_value_t &>(v));
}

// The behaviours a row is made of. A parse function gets the leaf type
// (never a union: ParseValue picks the member), a format function the leaf
// type or null.

bool ParseText(const LeafType &, std::string_view text, confd_value_t *v, std::string *storage,
               std::string *) {
  storage->assign(text);
  CONFD_SET_BUF(v, storage->c_str(), storage->size());
  return true;
}

bool NoText(const confd_value_t &, const LeafType *, std::string *) {
  return false;
}

void PrettyAsText(const confd_value_t &v, std::string *out) {
  FormatValue(v, nullptr, out);
}

int Unordered(const confd_value_t &, const confd_value_t &) {
  return 0;
}

template <typename T, int kVtype>
bool ParseNumber(const LeafType &, std::string_view text, confd_value_t *v, std::string *,
                 std::string *error) {
  if constexpr (std::is_signed_v<T>) {
    int64_t s;
    if (!ParseSigned(text, std::numeric_limits<T>::min(), std::numeric_limits<T>::max(), &s,
                     error)) {
      return false;
    }
    NumberOf<T>(*v) = static_cast<T>(s);
  } else {
    uint64_t u;
    if (!ParseUnsigned(text, std::numeric_limits<T>::max(), &u, error)) return false;
    NumberOf<T>(*v) = static_cast<T>(u);
  }
  v->type = static_cast<confd_vtype>(kVtype);
  return true;
}

template <typename T>
bool FormatNumber(const confd_value_t &v, const LeafType *, std::string *out) {
  *out += std::to_string(NumberOf<T>(v));
  return true;
}

template <typename T>
int CompareNumbers(const confd_value_t &a, const confd_value_t &b) {
  return Cmp(NumberOf<T>(a), NumberOf<T>(b));
}

// Byte strings: C_BUF, C_BINARY, C_HEXSTR, C_BITBIG.
int CompareBuffers(const confd_value_t &a, const confd_value_t &b) {
  return CmpBytes(a.val.buf.ptr, a.val.buf.size, b.val.buf.ptr, b.val.buf.size);
}

bool FormatBuf(const confd_value_t &v, const LeafType *, std::string *out) {
  if (v.val.buf.ptr != nullptr) {
    out->append(reinterpret_cast<const char *>(v.val.buf.ptr), v.val.buf.size);
  }
  return true;
}

bool FormatStr(const confd_value_t &v, const LeafType *, std::string *out) {
  if (v.val.c_s != nullptr) out->append(v.val.c_s);
  return true;
}

bool ParseBool(const LeafType &, std::string_view text, confd_value_t *v, std::string *,
               std::string *error) {
  if (text != "true" && text != "false") {
    *error = "not true or false";
    return false;
  }
  CONFD_SET_BOOL(v, text == "true");
  return true;
}

bool FormatBool(const confd_value_t &v, const LeafType *, std::string *out) {
  *out += v.val.boolean ? "true" : "false";
  return true;
}

int CompareBools(const confd_value_t &a, const confd_value_t &b) {
  return Cmp(a.val.boolean != 0, b.val.boolean != 0);
}

bool ParseEmpty(const LeafType &, std::string_view text, confd_value_t *v, std::string *,
                std::string *error) {
  if (!text.empty()) {
    *error = "a value of type empty has no text";
    return false;
  }
  CONFD_SET_EMPTY(v);
  return true;
}

bool FormatEmpty(const confd_value_t &, const LeafType *, std::string *) {
  return true;
}

bool ParseEnum(const LeafType &type, std::string_view text, confd_value_t *v, std::string *,
               std::string *error) {
  for (const EnumItem &e : type.enums) {
    if (text == e.name) {
      CONFD_SET_ENUM_VALUE(v, e.value);
      return true;
    }
  }
  // The number of a defined enum is accepted as well.
  int64_t s;
  if (ParseSigned(text, INT32_MIN, INT32_MAX, &s, error)) {
    for (const EnumItem &e : type.enums) {
      if (e.value == s) {
        CONFD_SET_ENUM_VALUE(v, e.value);
        return true;
      }
    }
  }
  *error = "not a value of the enumeration";
  return false;
}

bool FormatEnum(const confd_value_t &v, const LeafType *type, std::string *out) {
  if (type != nullptr) {
    for (const EnumItem &e : type->enums) {
      if (e.value == v.val.enumvalue) {
        *out += e.name;
        return true;
      }
    }
  }
  *out += std::to_string(v.val.enumvalue);
  return true;
}

void PrettyEnum(const confd_value_t &v, std::string *out) {
  *out += "enum<" + std::to_string(v.val.enumvalue) + ">";
}

int CompareEnums(const confd_value_t &a, const confd_value_t &b) {
  return Cmp(a.val.enumvalue, b.val.enumvalue);
}

bool FormatBits(const confd_value_t &v, const LeafType *type, std::string *out) {
  if (type == nullptr) {
    PrettyValue(v, out);
  } else {
    AppendBitNames(*type, v, out);
  }
  return true;
}

void PrettyBit32(const confd_value_t &v, std::string *out) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "bits<%X>", v.val.b32);
  *out += buf;
}

void PrettyBit64(const confd_value_t &v, std::string *out) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "bits<%llX>", static_cast<unsigned long long>(v.val.b64));
  *out += buf;
}

void PrettyBitBig(const confd_value_t &v, std::string *out) {
  // Little-endian bytes: the most significant byte is the last one.
  char buf[16];
  std::string hex;
  for (size_t i = v.val.buf.size; i-- > 0;) {
    std::snprintf(buf, sizeof buf, "%02X", v.val.buf.ptr[i]);
    hex += buf;
  }
  size_t lead = hex.find_first_not_of('0');
  *out += "bits<" + (lead == std::string::npos ? std::string("0") : hex.substr(lead)) + ">";
}

int CompareBit32(const confd_value_t &a, const confd_value_t &b) {
  return Cmp(a.val.b32, b.val.b32);
}

int CompareBit64(const confd_value_t &a, const confd_value_t &b) {
  return Cmp(a.val.b64, b.val.b64);
}

// Addresses. kFamily's address bytes sit at the start of the value union
// for every address type (in_addr, in6_addr, dotted quad, prefixes).
template <int kFamily>
bool ParseAddress(const LeafType &type, std::string_view text, confd_value_t *v, std::string *,
                  std::string *error) {
  unsigned char bytes[sizeof(struct in6_addr)];
  if (inet_pton(kFamily, std::string(text).c_str(), bytes) != 1) {
    *error = type.vtype == C_DQUAD ? "not a dotted quad"
             : kFamily == AF_INET  ? "not an IPv4 address"
                                   : "not an IPv6 address";
    return false;
  }
  if (type.vtype == C_DQUAD) {
    struct confd_dotted_quad q;
    std::memcpy(q.quad, bytes, 4);
    CONFD_SET_DQUAD(v, q);
  } else if (kFamily == AF_INET) {
    struct in_addr a;
    std::memcpy(&a, bytes, sizeof a);
    CONFD_SET_IPV4(v, a);
  } else {
    struct in6_addr a;
    std::memcpy(&a, bytes, sizeof a);
    CONFD_SET_IPV6(v, a);
  }
  return true;
}

template <int kFamily>
const void *AddressBytes(const confd_value_t &v) {
  if constexpr (kFamily == AF_INET) {
    return v.type == C_DQUAD ? static_cast<const void *>(v.val.dquad.quad)
                             : static_cast<const void *>(&v.val.ip);
  } else {
    return &v.val.ip6;
  }
}

// The dotted quad of an IPv4 address (network order), as inet_ntop writes
// it, without its detour through sprintf.
void AppendIpv4(const void *addr, std::string *out) {
  const auto *b = static_cast<const unsigned char *>(addr);
  char buf[16];
  char *p = buf;
  for (int i = 0; i < 4; ++i) {
    if (i) *p++ = '.';
    p = std::to_chars(p, p + 3, b[i]).ptr;  // at most 3 digits an octet
  }
  out->append(buf, p);
}

// An IPv6 address (16 bytes, network order) as inet_ntop writes it: words
// in lower-case hex without leading zeros, the first longest run of two or
// more zero words as "::", and the last four bytes as a dotted quad when the
// first five words are zero and the sixth is zero or ffff (but not for
// "::" and "::1"-like addresses with a longer zero run).
void AppendIpv6(const void *addr, std::string *out) {
  const auto *b = static_cast<const unsigned char *>(addr);
  unsigned words[8];
  for (int i = 0; i < 8; ++i) words[i] = static_cast<unsigned>(b[2 * i] << 8 | b[2 * i + 1]);
  int best = -1;
  int best_len = 0;
  for (int i = 0; i < 8;) {
    if (words[i] != 0) {
      ++i;
      continue;
    }
    int j = i;
    while (j < 8 && words[j] == 0) ++j;
    if (j - i > best_len) {
      best = i;
      best_len = j - i;
    }
    i = j;
  }
  if (best_len < 2) best = -1;
  static constexpr char kHex[] = "0123456789abcdef";
  char buf[48];
  char *p = buf;
  for (int i = 0; i < 8; ++i) {
    if (best >= 0 && i >= best && i < best + best_len) {
      if (i == best) *p++ = ':';
      continue;
    }
    if (i != 0) *p++ = ':';
    if (i == 6 && best == 0 && (best_len == 6 || (best_len == 5 && words[5] == 0xffff))) {
      out->append(buf, p);
      AppendIpv4(b + 12, out);
      return;
    }
    const unsigned w = words[i];
    if (w >= 0x1000) *p++ = kHex[w >> 12];
    if (w >= 0x100) *p++ = kHex[(w >> 8) & 0xf];
    if (w >= 0x10) *p++ = kHex[(w >> 4) & 0xf];
    *p++ = kHex[w & 0xf];
  }
  if (best >= 0 && best + best_len == 8) *p++ = ':';
  out->append(buf, p);
}

template <int kFamily>
bool FormatAddress(const confd_value_t &v, const LeafType *, std::string *out) {
  if (kFamily == AF_INET) {
    AppendIpv4(AddressBytes<kFamily>(v), out);
  } else {
    AppendIpv6(AddressBytes<kFamily>(v), out);
  }
  return true;
}

template <int kFamily>
int CompareAddresses(const confd_value_t &a, const confd_value_t &b) {
  const size_t n = kFamily == AF_INET ? 4 : 16;
  return CmpBytes(AddressBytes<kFamily>(a), n, AddressBytes<kFamily>(b), n);
}

bool ParsePrefix4(const LeafType &type, std::string_view text, confd_value_t *v, std::string *,
                  std::string *error) {
  struct confd_ipv4_prefix p {};
  if (!ParseAddrAndLen(text, AF_INET, &p.ip, 32, &p.len, error)) return false;
  v->type = type.vtype;
  v->val.ipv4prefix = p;
  return true;
}

bool ParsePrefix6(const LeafType &type, std::string_view text, confd_value_t *v, std::string *,
                  std::string *error) {
  struct confd_ipv6_prefix p {};
  if (!ParseAddrAndLen(text, AF_INET6, &p.ip6, 128, &p.len, error)) return false;
  v->type = type.vtype;
  v->val.ipv6prefix = p;
  return true;
}

bool FormatPrefix4(const confd_value_t &v, const LeafType *, std::string *out) {
  AppendIpv4(&v.val.ipv4prefix.ip, out);
  char len[4];
  char *end = std::to_chars(len, len + sizeof len, v.val.ipv4prefix.len).ptr;
  out->push_back('/');
  out->append(len, end);
  return true;
}

bool FormatPrefix6(const confd_value_t &v, const LeafType *, std::string *out) {
  AppendIpv6(&v.val.ipv6prefix.ip6, out);
  char len[4];
  char *end = std::to_chars(len, len + sizeof len, v.val.ipv6prefix.len).ptr;
  out->push_back('/');
  out->append(len, end);
  return true;
}

int ComparePrefix4(const confd_value_t &a, const confd_value_t &b) {
  int c = CmpBytes(&a.val.ipv4prefix.ip, 4, &b.val.ipv4prefix.ip, 4);
  return c ? c : Cmp(a.val.ipv4prefix.len, b.val.ipv4prefix.len);
}

int ComparePrefix6(const confd_value_t &a, const confd_value_t &b) {
  int c = CmpBytes(&a.val.ipv6prefix.ip6, 16, &b.val.ipv6prefix.ip6, 16);
  return c ? c : Cmp(a.val.ipv6prefix.len, b.val.ipv6prefix.len);
}

bool ParseDateTimeValue(const LeafType &, std::string_view text, confd_value_t *v, std::string *,
                        std::string *error) {
  struct confd_datetime dt;
  if (!ParseDateTime(text, &dt)) {
    *error = "not a date-and-time";
    return false;
  }
  CONFD_SET_DATETIME(v, dt);
  return true;
}

bool FormatDateTime(const confd_value_t &v, const LeafType *, std::string *out) {
  AppendDateTime(v.val.datetime, out);
  return true;
}

int CompareDateTimes(const confd_value_t &a, const confd_value_t &b) {
  const confd_datetime &x = a.val.datetime;
  const confd_datetime &y = b.val.datetime;
  const int64_t kx[] = {x.year, x.month, x.day, x.hour, x.min, x.sec, x.micro};
  const int64_t ky[] = {y.year, y.month, y.day, y.hour, y.min, y.sec, y.micro};
  for (int i = 0; i < 7; ++i) {
    if (int c = Cmp(kx[i], ky[i])) return c;
  }
  return 0;
}

bool ParseDecimal(const LeafType &type, std::string_view text, confd_value_t *v, std::string *,
                  std::string *error) {
  struct confd_decimal64 d;
  if (!ParseDecimal64(text, type.fraction_digits, &d, error)) return false;
  CONFD_SET_DECIMAL64(v, d);
  return true;
}

bool FormatDecimal(const confd_value_t &v, const LeafType *, std::string *out) {
  AppendDecimal64(v.val.d64, out);
  return true;
}

void PrettyDecimal(const confd_value_t &v, std::string *out) {
  if (v.val.d64.fraction_digits >= 1 && v.val.d64.fraction_digits <= 18) {
    AppendDecimal64(v.val.d64, out);
  } else {
    *out += "invalid64<" + std::to_string(v.val.d64.value) + ">";
  }
}

int CompareDecimals(const confd_value_t &a, const confd_value_t &b) {
  return Cmp(a.val.d64.value, b.val.d64.value);
}

bool ParseIdentityref(const LeafType &type, std::string_view text, confd_value_t *v, std::string *,
                      std::string *error) {
  size_t colon = text.find(':');
  std::string_view qual = colon == std::string_view::npos ? "" : text.substr(0, colon);
  std::string_view name = colon == std::string_view::npos ? text : text.substr(colon + 1);
  for (const IdentItem &id : type.idents) {
    if (name == id.name && (qual.empty() || qual == id.prefix || qual == id.module)) {
      CONFD_SET_IDENTITYREF(v, (confd_identityref{id.ns, id.id}));
      return true;
    }
  }
  *error = "not an identity the identityref may name";
  return false;
}

bool FormatIdentityref(const confd_value_t &v, const LeafType *type, std::string *out) {
  if (type != nullptr) {
    for (const IdentItem &id : type->idents) {
      if (id.ns == v.val.idref.ns && id.id == v.val.idref.id) {
        *out += id.prefix + ":" + id.name;
        return true;
      }
    }
  }
  const std::string *prefix = NsPrefix(v.val.idref.ns);
  const std::string *name = TagName(v.val.idref.id);
  if (name == nullptr) return false;
  if (prefix != nullptr) *out += *prefix + ":";
  *out += *name;
  return true;
}

void PrettyIdentityref(const confd_value_t &v, std::string *out) {
  const std::string *name = TagName(v.val.idref.id);
  *out += name ? *name : "idref<" + std::to_string(v.val.idref.id) + ">";
}

int CompareIdentityrefs(const confd_value_t &a, const confd_value_t &b) {
  int c = Cmp(a.val.idref.ns, b.val.idref.ns);
  return c ? c : Cmp(a.val.idref.id, b.val.idref.id);
}

bool FormatXmlTag(const confd_value_t &v, const LeafType *, std::string *out) {
  const std::string *name = TagName(v.val.xmltag.tag);
  if (name == nullptr) return false;
  *out += *name;
  return true;
}

void PrettyXmlTag(const confd_value_t &v, std::string *out) {
  const std::string *name = TagName(v.val.xmltag.tag);
  *out += name ? *name : "tag<" + std::to_string(v.val.xmltag.tag) + ">";
}

bool ParseBinary(const LeafType &type, std::string_view text, confd_value_t *v,
                 std::string *storage, std::string *error) {
  if (!(type.base64 ? ParseBase64(text, storage, error) : ParseHex(text, storage, error))) {
    return false;
  }
  CONFD_SET_BINARY(v, storage->data(), storage->size());
  return true;
}

bool FormatBinary(const confd_value_t &v, const LeafType *type, std::string *out) {
  if (type != nullptr && type->base64) {
    AppendBase64(v.val.buf.ptr, v.val.buf.size, out);
  } else {
    AppendHex(v.val.buf.ptr, v.val.buf.size, ":", false, out);
  }
  return true;
}

void PrettyBinary(const confd_value_t &v, std::string *out) {
  AppendHex(v.val.buf.ptr, v.val.buf.size, "", true, out);
}

bool ParseHexString(const LeafType &, std::string_view text, confd_value_t *v, std::string *storage,
                    std::string *error) {
  if (!ParseHex(text, storage, error)) return false;
  CONFD_SET_HEXSTR(v, storage->data(), storage->size());
  return true;
}

bool FormatHexString(const confd_value_t &v, const LeafType *, std::string *out) {
  AppendHex(v.val.buf.ptr, v.val.buf.size, ":", false, out);
  return true;
}

bool ParseUnion(const LeafType &type, std::string_view text, confd_value_t *v, std::string *storage,
                std::string *error) {
  for (const LeafType &m : type.members) {
    std::string why;
    if (ParseValue(m, text, v, storage, &why)) return true;
  }
  *error = "matches no member type of the union";
  return false;
}

void PrettyDouble(const confd_value_t &v, std::string *out) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.15g", v.val.d);
  *out += buf;
}

void PrettyQName(const confd_value_t &v, std::string *out) {
  if (v.val.qname.prefix.ptr != nullptr && v.val.qname.prefix.size > 0) {
    out->append(reinterpret_cast<const char *>(v.val.qname.prefix.ptr), v.val.qname.prefix.size);
    out->push_back(':');
  }
  if (v.val.qname.name.ptr != nullptr) {
    out->append(reinterpret_cast<const char *>(v.val.qname.name.ptr), v.val.qname.name.size);
  }
}

void PrettyDate(const confd_value_t &v, std::string *out) {
  char buf[48];
  std::snprintf(buf, sizeof buf, "%04d-%02u-%02u", v.val.date.year, v.val.date.month,
                v.val.date.day);
  *out += buf;
  AppendZone(v.val.date.timezone, v.val.date.timezone_minutes, out);
}

void PrettyTime(const confd_value_t &v, std::string *out) {
  char buf[48];
  std::snprintf(buf, sizeof buf, "%02u:%02u:%02u", v.val.time.hour, v.val.time.min, v.val.time.sec);
  *out += buf;
  AppendZone(v.val.time.timezone, v.val.time.timezone_minutes, out);
}

void PrettyDuration(const confd_value_t &v, std::string *out) {
  char buf[128];
  const confd_duration &d = v.val.duration;
  std::snprintf(buf, sizeof buf, "P%uY%uM%uDT%uH%uM%u.%06uS", d.years, d.months, d.days, d.hours,
                d.mins, d.secs, d.micros);
  *out += buf;
}

void PrettyOid(const confd_value_t &v, std::string *out) {
  if (v.val.oidp == nullptr) return;
  for (int i = 0; i < v.val.oidp->len && i < 128; ++i) {
    if (i) out->push_back('.');
    *out += std::to_string(v.val.oidp->oid[i]);
  }
}

void PrettyList(const confd_value_t &v, std::string *out) {
  for (unsigned i = 0; v.val.list.ptr != nullptr && i < v.val.list.size; ++i) {
    if (i) out->push_back(' ');
    PrettyValue(v.val.list.ptr[i], out);
  }
}

// A type the store only names: no text to parse but a string's, no text
// form, no order.
constexpr ValueType Named(int vtype, const char *name) {
  return {vtype, name, false, ParseText, NoText, PrettyAsText, Unordered};
}

template <typename T, int kVtype>
constexpr ValueType Number(const char *name) {
  return {kVtype,           name, false, ParseNumber<T, kVtype>, FormatNumber<T>, PrettyAsText,
          CompareNumbers<T>};
}

// One row per type; types missing here are unnamed ("C_?") and behave as
// Named ones.
constexpr ValueType kRows[] = {
    Named(C_NOEXISTS, "C_NOEXISTS"),
    {C_XMLTAG, "C_XMLTAG", false, ParseText, FormatXmlTag, PrettyXmlTag, Unordered},
    Named(C_SYMBOL, "C_SYMBOL"),
    {C_STR, "C_STR", false, ParseText, FormatStr, PrettyAsText, Unordered},
    {C_BUF, "C_BUF", true, ParseText, FormatBuf, PrettyAsText, CompareBuffers},
    Number<int8_t, C_INT8>("C_INT8"),
    Number<int16_t, C_INT16>("C_INT16"),
    Number<int32_t, C_INT32>("C_INT32"),
    Number<int64_t, C_INT64>("C_INT64"),
    Number<uint8_t, C_UINT8>("C_UINT8"),
    Number<uint16_t, C_UINT16>("C_UINT16"),
    Number<uint32_t, C_UINT32>("C_UINT32"),
    Number<uint64_t, C_UINT64>("C_UINT64"),
    {C_DOUBLE, "C_DOUBLE", false, ParseText, NoText, PrettyDouble, Unordered},
    {C_IPV4, "C_IPV4", false, ParseAddress<AF_INET>, FormatAddress<AF_INET>, PrettyAsText,
     CompareAddresses<AF_INET>},
    {C_IPV6, "C_IPV6", false, ParseAddress<AF_INET6>, FormatAddress<AF_INET6>, PrettyAsText,
     CompareAddresses<AF_INET6>},
    {C_BOOL, "C_BOOL", false, ParseBool, FormatBool, PrettyAsText, CompareBools},
    {C_QNAME, "C_QNAME", false, ParseText, NoText, PrettyQName, Unordered},
    {C_DATETIME, "C_DATETIME", false, ParseDateTimeValue, FormatDateTime, PrettyAsText,
     CompareDateTimes},
    {C_DATE, "C_DATE", false, ParseText, NoText, PrettyDate, Unordered},
    {C_TIME, "C_TIME", false, ParseText, NoText, PrettyTime, Unordered},
    {C_DURATION, "C_DURATION", false, ParseText, NoText, PrettyDuration, Unordered},
    {C_ENUM_VALUE, "C_ENUM_VALUE", false, ParseEnum, FormatEnum, PrettyEnum, CompareEnums},
    {C_BIT32, "C_BIT32", false, ParseBits, FormatBits, PrettyBit32, CompareBit32},
    {C_BIT64, "C_BIT64", false, ParseBits, FormatBits, PrettyBit64, CompareBit64},
    {C_LIST, "C_LIST", false, ParseText, NoText, PrettyList, Unordered},
    Named(C_XMLBEGIN, "C_XMLBEGIN"),
    Named(C_XMLEND, "C_XMLEND"),
    Named(C_OBJECTREF, "C_OBJECTREF"),
    {C_UNION, "C_UNION", false, ParseUnion, NoText, PrettyAsText, Unordered},
    Named(C_PTR, "C_PTR"),
    Named(C_CDBBEGIN, "C_CDBBEGIN"),
    {C_OID, "C_OID", false, ParseText, NoText, PrettyOid, Unordered},
    {C_BINARY, "C_BINARY", true, ParseBinary, FormatBinary, PrettyBinary, CompareBuffers},
    {C_IPV4PREFIX, "C_IPV4PREFIX", false, ParsePrefix4, FormatPrefix4, PrettyAsText,
     ComparePrefix4},
    {C_IPV6PREFIX, "C_IPV6PREFIX", false, ParsePrefix6, FormatPrefix6, PrettyAsText,
     ComparePrefix6},
    Named(C_DEFAULT, "C_DEFAULT"),
    {C_DECIMAL64, "C_DECIMAL64", false, ParseDecimal, FormatDecimal, PrettyDecimal,
     CompareDecimals},
    {C_IDENTITYREF, "C_IDENTITYREF", false, ParseIdentityref, FormatIdentityref, PrettyIdentityref,
     CompareIdentityrefs},
    Named(C_XMLBEGINDEL, "C_XMLBEGINDEL"),
    {C_DQUAD, "C_DQUAD", false, ParseAddress<AF_INET>, FormatAddress<AF_INET>, PrettyAsText,
     CompareAddresses<AF_INET>},
    {C_HEXSTR, "C_HEXSTR", true, ParseHexString, FormatHexString, PrettyAsText, CompareBuffers},
    {C_IPV4_AND_PLEN, "C_IPV4_AND_PLEN", false, ParsePrefix4, FormatPrefix4, PrettyAsText,
     ComparePrefix4},
    {C_IPV6_AND_PLEN, "C_IPV6_AND_PLEN", false, ParsePrefix6, FormatPrefix6, PrettyAsText,
     ComparePrefix6},
    {C_BITBIG, "C_BITBIG", true, ParseBits, FormatBits, PrettyBitBig, CompareBuffers},
    Named(C_XMLMOVEFIRST, "C_XMLMOVEFIRST"),
    Named(C_XMLMOVEAFTER, "C_XMLMOVEAFTER"),
    {C_EMPTY, "C_EMPTY", false, ParseEmpty, FormatEmpty, PrettyAsText, Unordered},
};

constexpr std::array<ValueType, C_MAXTYPE> Table() {
  std::array<ValueType, C_MAXTYPE> table{};
  for (int i = 0; i < C_MAXTYPE; ++i) table[i] = Named(i, "C_?");
  for (const ValueType &row : kRows) table[row.vtype] = row;
  return table;
}

constexpr bool RowsUnique() {
  for (size_t i = 0; i < std::size(kRows); ++i) {
    if (kRows[i].vtype <= 0 || kRows[i].vtype >= C_MAXTYPE) return false;
    for (size_t j = 0; j < i; ++j) {
      if (kRows[i].vtype == kRows[j].vtype) return false;
    }
  }
  return true;
}
static_assert(RowsUnique(), "one row per type, each a type of the enumeration");

}  // namespace

const std::array<ValueType, C_MAXTYPE> kValueTypes = Table();

bool ParseValue(const LeafType &type, std::string_view text, confd_value_t *v, std::string *storage,
                std::string *error) {
  return TypeOf(type.vtype).parse(type, text, v, storage, error);
}

bool FormatValue(const confd_value_t &v, const LeafType *type, std::string *out) {
  if (type != nullptr && type->vtype == C_UNION) type = MemberOfType(*type, v.type);
  return TypeOf(v.type).format(v, type, out);
}

void PrettyValue(const confd_value_t &v, std::string *out) {
  TypeOf(v.type).pretty(v, out);
}

int CompareValues(const confd_value_t &a, const confd_value_t &b) {
  if (a.type != b.type) return Cmp(a.type, b.type);
  return TypeOf(a.type).compare(a, b);
}

const char *VtypeName(int vtype) {
  return TypeOf(vtype).name;
}

}  // namespace ipapp::store
