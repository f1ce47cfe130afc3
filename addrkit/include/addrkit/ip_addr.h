// Address value types of the element: single IPv4 and IPv6 addresses behind a
// common abstract base, and address/prefix-length pairs.
#ifndef ADDRKIT_IP_ADDR_H
#define ADDRKIT_IP_ADDR_H

#include <netinet/in.h>

#include <array>
#include <cstdint>
#include <string>

namespace addrkit {

/// An IP address of either family. Comparisons across families are all
/// false.
class IPAddr {
 public:
  virtual ~IPAddr();
  /// True for IPv4Addr.
  virtual bool is_v4() const = 0;
  /// True for IPv6Addr.
  virtual bool is_v6() const = 0;
  /// 224.0.0.0/4, ff00::/8.
  virtual bool is_multicast() const = 0;
  /// 127.0.0.0/8, ::1.
  virtual bool is_loopback() const = 0;
  /// All zero.
  virtual bool is_unspecified() const = 0;
  /// 169.254.0.0/16, fe80::/10.
  virtual bool is_link_local() const = 0;
  /// Parses the whole text; throws boost::system::system_error and leaves
  /// the object unchanged when it is not an address.
  virtual void set_addr(const std::string &text) = 0;
  /// Standard text form; throws boost::system::system_error on failure.
  virtual std::string to_string() const = 0;
  /// Raw address bytes in network order (4 or 16; no scope).
  virtual std::string Serialize() const = 0;
  /// Same family and same address (and, for IPv6, same scope).
  virtual bool operator==(const IPAddr &other) const = 0;
  /// Same family and lower (address order; for IPv6 then scope).
  virtual bool operator<(const IPAddr &other) const = 0;
  /// Same family and higher.
  virtual bool operator>(const IPAddr &other) const = 0;
};

/// An IPv4 address, one 32-bit word in network byte order.
class IPv4Addr : public IPAddr {
 public:
  /// 0.0.0.0.
  IPv4Addr() = default;
  /// From a word in network byte order.
  explicit IPv4Addr(uint32_t network_order_word) : addr_(network_order_word) {}
  explicit IPv4Addr(const in_addr &a) : addr_(a.s_addr) {}
  /// Parses text; throws boost::system::system_error.
  explicit IPv4Addr(const std::string &text);
  ~IPv4Addr() override;

  bool is_v4() const override;
  bool is_v6() const override;
  bool is_multicast() const override;
  bool is_loopback() const override;
  bool is_unspecified() const override;
  bool is_link_local() const override;
  void set_addr(const std::string &text) override;
  std::string to_string() const override;
  std::string Serialize() const override;
  bool operator==(const IPAddr &other) const override;
  bool operator<(const IPAddr &other) const override;
  bool operator>(const IPAddr &other) const override;

  /// The word in network byte order.
  uint32_t addr() const { return addr_; }
  /// The word in host byte order.
  uint32_t to_host() const;
  /// Stores a word given in network byte order.
  void set_word(uint32_t network_order_word) { addr_ = network_order_word; }

 private:
  uint32_t addr_ = 0;  // network byte order
};

/// An IPv6 address: 16 bytes in network order and a scope (zone) identifier.
class IPv6Addr : public IPAddr {
 public:
  using Bytes = std::array<uint8_t, 16>;

  /// :: with scope 0.
  IPv6Addr() = default;
  explicit IPv6Addr(const Bytes &bytes, uint32_t scope = 0) : bytes_(bytes), scope_(scope) {}
  explicit IPv6Addr(const in6_addr &a, uint32_t scope = 0);
  /// Parses text (with an optional "%" zone); throws
  /// boost::system::system_error.
  explicit IPv6Addr(const std::string &text);
  ~IPv6Addr() override;

  bool is_v4() const override;
  bool is_v6() const override;
  bool is_multicast() const override;
  bool is_loopback() const override;
  bool is_unspecified() const override;
  bool is_link_local() const override;
  void set_addr(const std::string &text) override;
  std::string to_string() const override;
  std::string Serialize() const override;
  bool operator==(const IPAddr &other) const override;
  bool operator<(const IPAddr &other) const override;
  bool operator>(const IPAddr &other) const override;

  /// Multicast with link-local scope: ffX2::/16 whatever the flags X
  /// (ff02::1, ff12::1). Such addresses, like fe80::/10, print and parse
  /// their scope as an interface name.
  bool is_link_local_multicast() const;
  const Bytes &bytes() const { return bytes_; }
  void set_bytes(const Bytes &bytes) { bytes_ = bytes; }
  uint32_t scope() const { return scope_; }
  void set_scope(uint32_t scope) { scope_ = scope; }

 private:
  Bytes bytes_{};
  uint32_t scope_ = 0;
};

/// An IPv4 address with a prefix length: the address (host bits kept as
/// written) and the network mask.
class IPv4AddrMask {
 public:
  /// 0.0.0.0/0.
  IPv4AddrMask() = default;
  /// Address and prefix length; throws std::invalid_argument for a length
  /// above 32.
  IPv4AddrMask(const IPv4Addr &addr, unsigned int prefix_len);
  /// Parses "a.b.c.d/len": the whole text, a decimal length 0..32 (digits
  /// only; leading zeros allowed). The address keeps its host bits. Throws
  /// std::invalid_argument naming the text otherwise.
  explicit IPv4AddrMask(const std::string &text);
  virtual ~IPv4AddrMask();

  // Four operations this system does not call, kept for the slot order.
  /// The address with all host bits zero.
  virtual IPv4Addr network() const;
  /// The address with all host bits one.
  virtual IPv4Addr broadcast() const;
  /// addr lies in this prefix.
  virtual bool Contains(const IPv4Addr &addr) const;
  /// The 4 address bytes followed by one byte holding the prefix length.
  virtual std::string Serialize() const;

  /// The prefix length, 0..32.
  virtual unsigned int prefix_len() const;
  /// "a.b.c.d/len".
  virtual std::string to_string() const;
  /// The address is 0.0.0.0.
  virtual bool IsUnspecified() const;
  /// All host bits of the address are zero. A /32 has no host bits, so
  /// every /32 is both a network and a broadcast address; of a /31 pair the
  /// even address is the network and the odd one the broadcast address.
  /// Callers that follow RFC 3021 skip lengths above 30.
  virtual bool IsNetworkAddress() const;
  /// All host bits of the address are one (see IsNetworkAddress for /31
  /// and /32).
  virtual bool IsBroadcastAddress() const;

  /// Sets the prefix length (host bits of the address are kept); throws
  /// std::invalid_argument above 32.
  void set_prefix_len(unsigned int len);
  /// The two prefixes share at least one address.
  bool Overlap(const IPv4AddrMask &other) const {
    // Prefix masks nest, so the AND of the two masks is the shorter one.
    const uint32_t shorter = mask_.addr() & other.mask_.addr();
    return ((addr_.addr() ^ other.addr_.addr()) & shorter) == 0;
  }
  /// "a.b.c.d/len", like to_string().
  std::string addr_prefix_len() const;

  IPv4Addr &addr() { return addr_; }
  const IPv4Addr &addr() const { return addr_; }
  /// The mask word: the top prefix_len bits set.
  const IPv4Addr &mask() const { return mask_; }

  /// Same address word and same mask word.
  bool operator==(const IPv4AddrMask &other) const;
  bool operator!=(const IPv4AddrMask &other) const { return !(*this == other); }

 private:
  IPv4Addr addr_;
  IPv4Addr mask_;
};

/// An IPv6 address (with scope) with a prefix length.
class IPv6AddrMask {
 public:
  /// ::/0.
  IPv6AddrMask() = default;
  /// Throws std::invalid_argument for a length above 128.
  IPv6AddrMask(const IPv6Addr &addr, unsigned int prefix_len);
  /// Parses "address/len", split at the last "/": the whole text, a decimal
  /// length 0..128, the address (with an optional "%" zone) as
  /// IPv6Addr::set_addr takes it. Throws std::invalid_argument
  /// naming the text otherwise.
  explicit IPv6AddrMask(const std::string &text);
  virtual ~IPv6AddrMask();

  // Four operations this system does not call, kept for the slot order.
  /// The address with all host bits zero, scope kept.
  virtual IPv6Addr network() const;
  /// The bytes of addr lie in this prefix (scopes are not compared).
  virtual bool Contains(const IPv6Addr &addr) const;
  /// The 16 address bytes followed by one byte holding the prefix length.
  virtual std::string Serialize() const;
  /// The address is in fe80::/10.
  virtual bool IsLinkLocal() const;

  /// The prefix length, 0..128.
  virtual unsigned int prefix_len() const;
  /// "<address text>/len", the address as IPv6Addr::to_string prints it.
  virtual std::string to_string() const;
  /// The 16 address bytes are zero.
  virtual bool IsUnspecified() const;

  /// Throws std::invalid_argument above 128.
  void set_prefix_len(unsigned int len);
  /// The two prefixes share at least one address (scopes are not compared).
  bool Overlap(const IPv6AddrMask &other) const {
    const unsigned int shorter = prefix_len_ < other.prefix_len_ ? prefix_len_ : other.prefix_len_;
    const IPv6Addr::Bytes &a = addr_.bytes();
    const IPv6Addr::Bytes &b = other.addr_.bytes();
    const unsigned int whole = shorter / 8;  // 0..16
    for (unsigned int i = 0; i < whole; ++i) {
      if (a[i] != b[i]) return false;
    }
    // The partial byte; a shift by 8 would be undefined, hence the test.
    const unsigned int rest = shorter % 8;
    return rest == 0 || ((a[whole] ^ b[whole]) & (0xFFu << (8 - rest)) & 0xFFu) == 0;
  }

  IPv6Addr &addr() { return addr_; }
  const IPv6Addr &addr() const { return addr_; }

  /// Same bytes, scope and prefix length.
  bool operator==(const IPv6AddrMask &other) const;
  bool operator!=(const IPv6AddrMask &other) const { return !(*this == other); }

 private:
  IPv6Addr addr_;
  uint8_t prefix_len_ = 0;
};

}  // namespace addrkit

#endif  // ADDRKIT_IP_ADDR_H
