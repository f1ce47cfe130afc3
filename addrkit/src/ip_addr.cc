// Single IPv4 and IPv6 addresses. Text conversions go through Boost.Asio's
// address types, so parsing, printing and the errors they raise match the
// rest of the element, which uses the same library.
#include "addrkit/ip_addr.h"

#include <arpa/inet.h>

#include <boost/asio/ip/address_v4.hpp>
#include <boost/asio/ip/address_v6.hpp>
#include <boost/system/error_code.hpp>
#include <boost/system/system_error.hpp>
#include <cerrno>
#include <cstring>
#include <typeinfo>

namespace addrkit {

IPAddr::~IPAddr() = default;

// ---------------------------------------------------------------- IPv4Addr

IPv4Addr::IPv4Addr(const std::string &text) {
  set_addr(text);
}

IPv4Addr::~IPv4Addr() = default;

bool IPv4Addr::is_v4() const {
  return true;
}
bool IPv4Addr::is_v6() const {
  return false;
}
bool IPv4Addr::is_multicast() const {
  return (to_host() >> 28) == 0xEu;
}
bool IPv4Addr::is_loopback() const {
  return (to_host() >> 24) == 127u;
}
bool IPv4Addr::is_unspecified() const {
  return addr_ == 0;
}
bool IPv4Addr::is_link_local() const {
  return (to_host() >> 16) == 0xA9FEu;
}

uint32_t IPv4Addr::to_host() const {
  return ntohl(addr_);
}

void IPv4Addr::set_addr(const std::string &text) {
  const auto bytes = boost::asio::ip::make_address_v4(text).to_bytes();
  std::memcpy(&addr_, bytes.data(), sizeof addr_);
}

std::string IPv4Addr::to_string() const {
  boost::asio::ip::address_v4::bytes_type bytes;
  std::memcpy(bytes.data(), &addr_, sizeof addr_);
  return boost::asio::ip::address_v4(bytes).to_string();
}

std::string IPv4Addr::Serialize() const {
  return std::string(reinterpret_cast<const char *>(&addr_), sizeof addr_);
}

// The base class operators take any family; a non-IPv4 operand is never
// equal, lower or higher. An operand that claims IPv4 but is not an IPv4Addr
// throws std::bad_cast.
bool IPv4Addr::operator==(const IPAddr &other) const {
  if (!other.is_v4()) return false;
  return addr_ == dynamic_cast<const IPv4Addr &>(other).addr_;
}

bool IPv4Addr::operator<(const IPAddr &other) const {
  if (!other.is_v4()) return false;
  return to_host() < dynamic_cast<const IPv4Addr &>(other).to_host();
}

bool IPv4Addr::operator>(const IPAddr &other) const {
  if (!other.is_v4()) return false;
  return to_host() > dynamic_cast<const IPv4Addr &>(other).to_host();
}

// ---------------------------------------------------------------- IPv6Addr

IPv6Addr::IPv6Addr(const in6_addr &a, uint32_t scope) : scope_(scope) {
  std::memcpy(bytes_.data(), a.s6_addr, bytes_.size());
}

IPv6Addr::IPv6Addr(const std::string &text) {
  set_addr(text);
}

IPv6Addr::~IPv6Addr() = default;

bool IPv6Addr::is_v4() const {
  return false;
}
bool IPv6Addr::is_v6() const {
  return true;
}
bool IPv6Addr::is_multicast() const {
  return bytes_[0] == 0xFF;
}

bool IPv6Addr::is_loopback() const {
  for (size_t i = 0; i < 15; ++i) {
    if (bytes_[i] != 0) return false;
  }
  return bytes_[15] == 1;
}

bool IPv6Addr::is_unspecified() const {
  for (uint8_t b : bytes_) {
    if (b != 0) return false;
  }
  return true;
}

bool IPv6Addr::is_link_local() const {
  return bytes_[0] == 0xFE && (bytes_[1] & 0xC0) == 0x80;
}

bool IPv6Addr::is_link_local_multicast() const {
  return bytes_[0] == 0xFF && (bytes_[1] & 0x0F) == 0x02;
}

// After "%": an interface name for link-local unicast and multicast
// addresses, else (or when no such interface exists) a decimal number.
// A zone that is neither gives scope 0. The address part before "%" may be
// at most 63 characters.
void IPv6Addr::set_addr(const std::string &text) {
  const auto parsed = boost::asio::ip::make_address_v6(text);
  bytes_ = parsed.to_bytes();
  scope_ = static_cast<uint32_t>(parsed.scope_id());
}

std::string IPv6Addr::to_string() const {
  return boost::asio::ip::address_v6(bytes_, scope_).to_string();
}

std::string IPv6Addr::Serialize() const {
  return std::string(reinterpret_cast<const char *>(bytes_.data()), bytes_.size());
}

bool IPv6Addr::operator==(const IPAddr &other) const {
  if (!other.is_v6()) return false;
  const auto &o = dynamic_cast<const IPv6Addr &>(other);
  return bytes_ == o.bytes_ && scope_ == o.scope_;
}

bool IPv6Addr::operator<(const IPAddr &other) const {
  if (!other.is_v6()) return false;
  const auto &o = dynamic_cast<const IPv6Addr &>(other);
  return bytes_ < o.bytes_ || (bytes_ == o.bytes_ && scope_ < o.scope_);
}

bool IPv6Addr::operator>(const IPAddr &other) const {
  if (!other.is_v6()) return false;
  const auto &o = dynamic_cast<const IPv6Addr &>(other);
  return bytes_ > o.bytes_ || (bytes_ == o.bytes_ && scope_ > o.scope_);
}

}  // namespace addrkit
