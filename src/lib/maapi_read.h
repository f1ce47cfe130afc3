// Reads of the transaction shared by the configuration readers and the VRF
// validators: the same calls in the same order wherever they are used.
#ifndef IPAPP_SRC_LIB_MAAPI_READ_H
#define IPAPP_SRC_LIB_MAAPI_READ_H

#include <confd_lib.h>

#include <addrkit/ip_addr.h>

#include <cstddef>
#include <cstring>
#include <list>
#include <string>

namespace ip_application {
namespace config_valid {

/// Bytes of a C_BUF value up to its first NUL (never past its size); empty
/// for a null buffer.
inline std::string BufText(const confd_value_t &v) {
  const char *p = CONFD_GET_CBUFPTR(&v);
  if (p == nullptr) return std::string();
  return std::string(p, strnlen(p, CONFD_GET_BUFSIZE(&v)));
}

/// BufText of a value that a MAAPI read duplicated, then released with
/// confd_free_dup_to_value: released too when making the text throws.
inline std::string TakeBufText(confd_value_t *v) {
  struct Release {
    confd_value_t *v;
    ~Release() { confd_free_dup_to_value(v); }
  } release{v};
  return BufText(*v);
}

/// The address-and-prefix leaf at path: maapi_exists, then (when it answers
/// 1) maapi_get_ipv4_and_plen_elem. Unspecified when absent or unreadable.
addrkit::IPv4AddrMask ReadIpv4AddrMask(int sock, confd_trans_ctx *tctx, const std::string &path);

/// The first key of every entry of the list at path, in data-store order,
/// each printed with confd_pp_value into key_text_size bytes. maapi_exists
/// first: anything but 1 gives an empty list.
std::list<std::string> ReadFirstKeys(int sock, confd_trans_ctx *tctx, const std::string &path,
                                     size_t key_text_size);

}  // namespace config_valid
}  // namespace ip_application

#endif  // IPAPP_SRC_LIB_MAAPI_READ_H
