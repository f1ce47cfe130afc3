// Address/prefix-length pairs. The stored address keeps its host bits: an
// interface address 10.1.1.1/24 stays 10.1.1.1, and its text form is the
// key under which other tables record it, so text -> pair -> text must give
// back canonical text unchanged.
#include <arpa/inet.h>

#include <boost/system/system_error.hpp>
#include <stdexcept>

#include "addrkit/ip_addr.h"

namespace addrkit {

namespace {

constexpr unsigned int kMaxV4Len = 32;
constexpr unsigned int kMaxV6Len = 128;

struct PrefixText {
  std::string addr;
  unsigned int len = 0;
};

// Splits "address/len" at its one "/" (interface names in a zone never
// hold one). The length must be one or more
// decimal digits (no sign, no blanks) and is range-checked while it is
// accumulated, so no overlong digit string can wrap into range.
PrefixText SplitPrefix(const std::string &text, const char *family, unsigned int max_len) {
  const std::string what = std::string("invalid ") + family + " prefix \"" + text + "\": ";
  const size_t slash = text.find('/');
  if (slash == std::string::npos || text.find('/', slash + 1) != std::string::npos) {
    throw std::invalid_argument(what + "expected address/length");
  }
  PrefixText out;
  out.addr = text.substr(0, slash);
  const std::string digits = text.substr(slash + 1);
  bool ok = !digits.empty();
  unsigned long value = 0;
  for (char c : digits) {
    if (c < '0' || c > '9') {
      ok = false;
      break;
    }
    value = value * 10 + static_cast<unsigned long>(c - '0');
    if (value > max_len) {
      ok = false;
      break;
    }
  }
  if (!ok) {
    throw std::invalid_argument(what + "length must be a decimal number from 0 to " +
                                std::to_string(max_len));
  }
  out.len = static_cast<unsigned int>(value);
  return out;
}

[[noreturn]] void ThrowBadAddress(const std::string &text, const char *family,
                                  const std::string &addr) {
  throw std::invalid_argument(std::string("invalid ") + family + " prefix \"" + text + "\": \"" +
                              addr + "\" is not an " + family + " address");
}

void CheckLen(unsigned int len, const char *family, unsigned int max_len) {
  if (len > max_len) {
    throw std::invalid_argument(std::string(family) + " prefix length " + std::to_string(len) +
                                " out of range 0.." + std::to_string(max_len));
  }
}

// Network-order mask word with the top len bits set; len 0..32. A shift by
// 32 is undefined, hence the separate case.
uint32_t MaskWord(unsigned int len) {
  return len == 0 ? 0u : htonl(~uint32_t{0} << (kMaxV4Len - len));
}

// Byte i of the 128-bit mask with the top len bits set; len 0..128.
uint8_t PrefixByte(unsigned int len, unsigned int i) {
  if (len >= 8 * (i + 1)) return 0xFF;
  if (len <= 8 * i) return 0;
  return static_cast<uint8_t>(0xFFu << (8 * (i + 1) - len));
}

// The first len bits of a and b agree.
bool SamePrefix(const IPv6Addr::Bytes &a, const IPv6Addr::Bytes &b, unsigned int len) {
  for (unsigned int i = 0; i < a.size(); ++i) {
    if ((a[i] ^ b[i]) & PrefixByte(len, i)) return false;
  }
  return true;
}

}  // namespace

// ------------------------------------------------------------ IPv4AddrMask

IPv4AddrMask::IPv4AddrMask(const IPv4Addr &addr, unsigned int prefix_len) : addr_(addr) {
  set_prefix_len(prefix_len);
}

IPv4AddrMask::IPv4AddrMask(const std::string &text) {
  const PrefixText parts = SplitPrefix(text, "IPv4", kMaxV4Len);
  try {
    addr_.set_addr(parts.addr);
  } catch (const boost::system::system_error &) {
    ThrowBadAddress(text, "IPv4", parts.addr);
  }
  mask_.set_word(MaskWord(parts.len));
}

IPv4AddrMask::~IPv4AddrMask() = default;

IPv4Addr IPv4AddrMask::network() const {
  return IPv4Addr(addr_.addr() & mask_.addr());
}

IPv4Addr IPv4AddrMask::broadcast() const {
  return IPv4Addr(addr_.addr() | ~mask_.addr());
}

bool IPv4AddrMask::Contains(const IPv4Addr &addr) const {
  return (addr.addr() & mask_.addr()) == (addr_.addr() & mask_.addr());
}

std::string IPv4AddrMask::Serialize() const {
  return addr_.Serialize() + static_cast<char>(prefix_len());
}

unsigned int IPv4AddrMask::prefix_len() const {
  return static_cast<unsigned int>(__builtin_popcount(mask_.addr()));
}

std::string IPv4AddrMask::to_string() const {
  return addr_prefix_len();
}

bool IPv4AddrMask::IsUnspecified() const {
  return addr_.is_unspecified();
}

bool IPv4AddrMask::IsNetworkAddress() const {
  return (addr_.addr() & ~mask_.addr()) == 0;
}

bool IPv4AddrMask::IsBroadcastAddress() const {
  return (addr_.addr() & ~mask_.addr()) == ~mask_.addr();
}

void IPv4AddrMask::set_prefix_len(unsigned int len) {
  CheckLen(len, "IPv4", kMaxV4Len);
  mask_.set_word(MaskWord(len));
}

std::string IPv4AddrMask::addr_prefix_len() const {
  return addr_.to_string() + "/" + std::to_string(prefix_len());
}

bool IPv4AddrMask::operator==(const IPv4AddrMask &other) const {
  return addr_.addr() == other.addr_.addr() && mask_.addr() == other.mask_.addr();
}

// ------------------------------------------------------------ IPv6AddrMask

IPv6AddrMask::IPv6AddrMask(const IPv6Addr &addr, unsigned int prefix_len) : addr_(addr) {
  set_prefix_len(prefix_len);
}

IPv6AddrMask::IPv6AddrMask(const std::string &text) {
  const PrefixText parts = SplitPrefix(text, "IPv6", kMaxV6Len);
  try {
    addr_.set_addr(parts.addr);
  } catch (const boost::system::system_error &) {
    ThrowBadAddress(text, "IPv6", parts.addr);
  }
  prefix_len_ = static_cast<uint8_t>(parts.len);
}

IPv6AddrMask::~IPv6AddrMask() = default;

IPv6Addr IPv6AddrMask::network() const {
  IPv6Addr::Bytes bytes = addr_.bytes();
  for (unsigned int i = 0; i < bytes.size(); ++i) bytes[i] &= PrefixByte(prefix_len_, i);
  return IPv6Addr(bytes, addr_.scope());
}

bool IPv6AddrMask::Contains(const IPv6Addr &addr) const {
  return SamePrefix(addr_.bytes(), addr.bytes(), prefix_len_);
}

std::string IPv6AddrMask::Serialize() const {
  return addr_.Serialize() + static_cast<char>(prefix_len_);
}

bool IPv6AddrMask::IsLinkLocal() const {
  return addr_.is_link_local();
}

unsigned int IPv6AddrMask::prefix_len() const {
  return prefix_len_;
}

std::string IPv6AddrMask::to_string() const {
  return addr_.to_string() + "/" + std::to_string(prefix_len_);
}

bool IPv6AddrMask::IsUnspecified() const {
  return addr_.is_unspecified();
}

void IPv6AddrMask::set_prefix_len(unsigned int len) {
  CheckLen(len, "IPv6", kMaxV6Len);
  prefix_len_ = static_cast<uint8_t>(len);
}

bool IPv6AddrMask::operator==(const IPv6AddrMask &other) const {
  return addr_ == other.addr_ && prefix_len_ == other.prefix_len_;
}

}  // namespace addrkit
