#include "values.h"

#include <arpa/inet.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <limits>

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

bool ParseHex(std::string_view text, std::string *bytes, std::string *error) {
  bytes->clear();
  auto nibble = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  for (size_t i = 0; i < text.size();) {
    if (i + 1 >= text.size() || nibble(text[i]) < 0 || nibble(text[i + 1]) < 0 ||
        (i + 2 < text.size() && text[i + 2] != ':') || (i + 2 == text.size() - 1)) {
      *error = "not a hex string (xx:xx:...)";
      return false;
    }
    bytes->push_back(static_cast<char>(nibble(text[i]) * 16 + nibble(text[i + 1])));
    i += 3;
  }
  return true;
}

template <typename T>
int Cmp(T a, T b) {
  return a < b ? -1 : (b < a ? 1 : 0);
}

int CmpBytes(const void *a, size_t na, const void *b, size_t nb) {
  int c = std::memcmp(a, b, na < nb ? na : nb);
  if (c != 0) return c < 0 ? -1 : 1;
  return Cmp(na, nb);
}

}  // namespace

bool ParseValue(const LeafType &type, std::string_view text, confd_value_t *v, std::string *storage,
                std::string *error) {
  int64_t s;
  uint64_t u;
  switch (type.vtype) {
    case C_INT8:
      if (!ParseSigned(text, INT8_MIN, INT8_MAX, &s, error)) return false;
      CONFD_SET_INT8(v, static_cast<int8_t>(s));
      return true;
    case C_INT16:
      if (!ParseSigned(text, INT16_MIN, INT16_MAX, &s, error)) return false;
      CONFD_SET_INT16(v, static_cast<int16_t>(s));
      return true;
    case C_INT32:
      if (!ParseSigned(text, INT32_MIN, INT32_MAX, &s, error)) return false;
      CONFD_SET_INT32(v, static_cast<int32_t>(s));
      return true;
    case C_INT64:
      if (!ParseSigned(text, INT64_MIN, INT64_MAX, &s, error)) return false;
      CONFD_SET_INT64(v, s);
      return true;
    case C_UINT8:
      if (!ParseUnsigned(text, UINT8_MAX, &u, error)) return false;
      CONFD_SET_UINT8(v, static_cast<uint8_t>(u));
      return true;
    case C_UINT16:
      if (!ParseUnsigned(text, UINT16_MAX, &u, error)) return false;
      CONFD_SET_UINT16(v, static_cast<uint16_t>(u));
      return true;
    case C_UINT32:
      if (!ParseUnsigned(text, UINT32_MAX, &u, error)) return false;
      CONFD_SET_UINT32(v, static_cast<uint32_t>(u));
      return true;
    case C_UINT64:
      if (!ParseUnsigned(text, UINT64_MAX, &u, error)) return false;
      CONFD_SET_UINT64(v, u);
      return true;
    case C_BOOL:
      if (text != "true" && text != "false") {
        *error = "not true or false";
        return false;
      }
      CONFD_SET_BOOL(v, text == "true");
      return true;
    case C_ENUM_VALUE:
      for (const EnumItem &e : type.enums) {
        if (text == e.name) {
          CONFD_SET_ENUM_VALUE(v, e.value);
          return true;
        }
      }
      // The number of a defined enum is accepted as well.
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
    case C_IPV4: {
      struct in_addr a;
      if (inet_pton(AF_INET, std::string(text).c_str(), &a) != 1) {
        *error = "not an IPv4 address";
        return false;
      }
      CONFD_SET_IPV4(v, a);
      return true;
    }
    case C_IPV6: {
      struct in6_addr a;
      if (inet_pton(AF_INET6, std::string(text).c_str(), &a) != 1) {
        *error = "not an IPv6 address";
        return false;
      }
      CONFD_SET_IPV6(v, a);
      return true;
    }
    case C_IPV4_AND_PLEN: {
      struct confd_ipv4_prefix p {};
      if (!ParseAddrAndLen(text, AF_INET, &p.ip, 32, &p.len, error)) return false;
      CONFD_SET_IPV4_AND_PLEN(v, p);
      return true;
    }
    case C_IPV6_AND_PLEN: {
      struct confd_ipv6_prefix p {};
      if (!ParseAddrAndLen(text, AF_INET6, &p.ip6, 128, &p.len, error)) return false;
      CONFD_SET_IPV6_AND_PLEN(v, p);
      return true;
    }
    case C_BINARY:
      if (!ParseHex(text, storage, error)) return false;
      CONFD_SET_BINARY(v, storage->data(), storage->size());
      return true;
    default:
      storage->assign(text);
      CONFD_SET_BUF(v, storage->c_str(), storage->size());
      return true;
  }
}

bool FormatValue(const confd_value_t &v, const LeafType *type, std::string *out) {
  char buf[INET6_ADDRSTRLEN + 8];
  switch (v.type) {
    case C_BUF:
      if (v.val.buf.ptr != nullptr) {
        out->append(reinterpret_cast<const char *>(v.val.buf.ptr), v.val.buf.size);
      }
      return true;
    case C_STR:
      if (v.val.c_s != nullptr) out->append(v.val.c_s);
      return true;
    case C_INT8:
      *out += std::to_string(v.val.i8);
      return true;
    case C_INT16:
      *out += std::to_string(v.val.i16);
      return true;
    case C_INT32:
      *out += std::to_string(v.val.i32);
      return true;
    case C_INT64:
      *out += std::to_string(v.val.i64);
      return true;
    case C_UINT8:
      *out += std::to_string(v.val.u8);
      return true;
    case C_UINT16:
      *out += std::to_string(v.val.u16);
      return true;
    case C_UINT32:
      *out += std::to_string(v.val.u32);
      return true;
    case C_UINT64:
      *out += std::to_string(v.val.u64);
      return true;
    case C_BOOL:
      *out += v.val.boolean ? "true" : "false";
      return true;
    case C_ENUM_VALUE:
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
    case C_IPV4:
      inet_ntop(AF_INET, &v.val.ip, buf, sizeof buf);
      *out += buf;
      return true;
    case C_IPV6:
      inet_ntop(AF_INET6, &v.val.ip6, buf, sizeof buf);
      *out += buf;
      return true;
    case C_IPV4_AND_PLEN:
    case C_IPV4PREFIX:
      inet_ntop(AF_INET, &v.val.ipv4prefix.ip, buf, sizeof buf);
      *out += buf;
      *out += '/';
      *out += std::to_string(v.val.ipv4prefix.len);
      return true;
    case C_IPV6_AND_PLEN:
    case C_IPV6PREFIX:
      inet_ntop(AF_INET6, &v.val.ipv6prefix.ip6, buf, sizeof buf);
      *out += buf;
      *out += '/';
      *out += std::to_string(v.val.ipv6prefix.len);
      return true;
    case C_BINARY: {
      static constexpr char kHex[] = "0123456789abcdef";
      out->reserve(out->size() + 3 * v.val.buf.size);
      for (unsigned i = 0; i < v.val.buf.size; ++i) {
        if (i) *out += ':';
        *out += kHex[v.val.buf.ptr[i] >> 4];
        *out += kHex[v.val.buf.ptr[i] & 0xF];
      }
      return true;
    }
    case C_XMLTAG: {
      const std::string *name = TagName(v.val.xmltag.tag);
      if (name == nullptr) return false;
      *out += *name;
      return true;
    }
    default:
      return false;
  }
}

int CompareValues(const confd_value_t &a, const confd_value_t &b) {
  if (a.type != b.type) return Cmp(a.type, b.type);
  switch (a.type) {
    case C_INT8:
      return Cmp(a.val.i8, b.val.i8);
    case C_INT16:
      return Cmp(a.val.i16, b.val.i16);
    case C_INT32:
      return Cmp(a.val.i32, b.val.i32);
    case C_INT64:
      return Cmp(a.val.i64, b.val.i64);
    case C_UINT8:
      return Cmp(a.val.u8, b.val.u8);
    case C_UINT16:
      return Cmp(a.val.u16, b.val.u16);
    case C_UINT32:
      return Cmp(a.val.u32, b.val.u32);
    case C_UINT64:
      return Cmp(a.val.u64, b.val.u64);
    case C_BOOL:
      return Cmp(a.val.boolean != 0, b.val.boolean != 0);
    case C_ENUM_VALUE:
      return Cmp(a.val.enumvalue, b.val.enumvalue);
    case C_IPV4:
      return CmpBytes(&a.val.ip, 4, &b.val.ip, 4);
    case C_IPV6:
      return CmpBytes(&a.val.ip6, 16, &b.val.ip6, 16);
    case C_IPV4_AND_PLEN: {
      int c = CmpBytes(&a.val.ipv4prefix.ip, 4, &b.val.ipv4prefix.ip, 4);
      return c ? c : Cmp(a.val.ipv4prefix.len, b.val.ipv4prefix.len);
    }
    case C_IPV6_AND_PLEN: {
      int c = CmpBytes(&a.val.ipv6prefix.ip6, 16, &b.val.ipv6prefix.ip6, 16);
      return c ? c : Cmp(a.val.ipv6prefix.len, b.val.ipv6prefix.len);
    }
    case C_BUF:
    case C_BINARY:
      return CmpBytes(a.val.buf.ptr, a.val.buf.size, b.val.buf.ptr, b.val.buf.size);
    default:
      return 0;
  }
}

const char *VtypeName(int vtype) {
  switch (vtype) {
    case C_NOEXISTS:
      return "C_NOEXISTS";
    case C_XMLTAG:
      return "C_XMLTAG";
    case C_STR:
      return "C_STR";
    case C_BUF:
      return "C_BUF";
    case C_INT8:
      return "C_INT8";
    case C_INT16:
      return "C_INT16";
    case C_INT32:
      return "C_INT32";
    case C_INT64:
      return "C_INT64";
    case C_UINT8:
      return "C_UINT8";
    case C_UINT16:
      return "C_UINT16";
    case C_UINT32:
      return "C_UINT32";
    case C_UINT64:
      return "C_UINT64";
    case C_BOOL:
      return "C_BOOL";
    case C_ENUM_VALUE:
      return "C_ENUM_VALUE";
    case C_IPV4:
      return "C_IPV4";
    case C_IPV6:
      return "C_IPV6";
    case C_BINARY:
      return "C_BINARY";
    case C_IPV4_AND_PLEN:
      return "C_IPV4_AND_PLEN";
    case C_IPV6_AND_PLEN:
      return "C_IPV6_AND_PLEN";
    default:
      return "C_?";
  }
}

}  // namespace ipapp::store
