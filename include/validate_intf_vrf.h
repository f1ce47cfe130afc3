// VRF assignment of L3 and loopback interfaces: the changes below one
// interface list are walked, and a vrf leaf that is set on an interface
// used by OSPF, OSPFv3 or MPLS LDP is refused. The first refusal stops the
// walk and is the only one reported.
#ifndef IPAPP_VALIDATE_INTF_VRF_H
#define IPAPP_VALIDATE_INTF_VRF_H

#include <addrkit/ip_addr.h>
#include <confd_lib.h>
#include <confd_maapi.h>

#include <cstdint>
#include <list>
#include <string>
#include <utility>

/// Walks the transaction's changes below one interface list and reports
/// the first refusal a subclass records.
class ValidateIntfVrf {
 public:
  ValidateIntfVrf(int32_t sock, confd_trans_ctx *tctx, std::string list_path)
      : sock_(sock), tctx_(tctx), list_path_(std::move(list_path)) {}
  virtual ~ValidateIntfVrf();
  ValidateIntfVrf(const ValidateIntfVrf &) = delete;
  ValidateIntfVrf &operator=(const ValidateIntfVrf &) = delete;

  /// One changed node of the walk; ITER_STOP after recording a refusal.
  virtual confd_iter_ret IterValidate(confd_hkeypath_t *kp, confd_iter_op op, confd_value_t *oldv,
                                      confd_value_t *newv) = 0;

  /// 0, or -1 with the recorded refusal set as the transaction's error.
  int RunValidation();

  /// First key of every entry of the list at path, printed.
  std::list<std::string> get_key_list(const std::string &path) const;
  /// The address and prefix length at path; unspecified when absent or
  /// unreadable.
  addrkit::IPv4AddrMask get_ipv4_addr_mask(const std::string &path) const;

 protected:
  // Diff-iterate callback; state is the validator.
  static confd_iter_ret Iterate(confd_hkeypath_t *kp, confd_iter_op op, confd_value_t *oldv,
                                confd_value_t *newv, void *state);

  int32_t sock_;
  confd_trans_ctx *tctx_;  // not owned
  std::string list_path_;
  std::string error_;
};

/// "/config/interface/l3": OSPF, OSPFv3, then MPLS (primary address and
/// VLAN against the LDP interface table).
class ValidateIntfL3Vrf : public ValidateIntfVrf {
 public:
  using ValidateIntfVrf::ValidateIntfVrf;
  confd_iter_ret IterValidate(confd_hkeypath_t *kp, confd_iter_op op, confd_value_t *oldv,
                              confd_value_t *newv) override;
};

/// "/config/interface/loopback": OSPF, OSPFv3 (looked up in the l3 OSPF
/// tables by the "loopback-" name), then MPLS (any address against the LDP
/// loopback table).
class ValidateIntfLoVrf : public ValidateIntfVrf {
 public:
  using ValidateIntfVrf::ValidateIntfVrf;
  confd_iter_ret IterValidate(confd_hkeypath_t *kp, confd_iter_op op, confd_value_t *oldv,
                              confd_value_t *newv) override;
};

// Per-protocol validators; declared for the family, not used by the
// handler.
class ValidateIntfVrfOspf : public ValidateIntfVrf {
 public:
  using ValidateIntfVrf::ValidateIntfVrf;
  confd_iter_ret IterValidate(confd_hkeypath_t *kp, confd_iter_op op, confd_value_t *oldv,
                              confd_value_t *newv) override;
};

class ValidateIntfVrfOspfv3 : public ValidateIntfVrf {
 public:
  using ValidateIntfVrf::ValidateIntfVrf;
  confd_iter_ret IterValidate(confd_hkeypath_t *kp, confd_iter_op op, confd_value_t *oldv,
                              confd_value_t *newv) override;
};

class ValidateIntfLoVrfMpls : public ValidateIntfVrf {
 public:
  using ValidateIntfVrf::ValidateIntfVrf;
  confd_iter_ret IterValidate(confd_hkeypath_t *kp, confd_iter_op op, confd_value_t *oldv,
                              confd_value_t *newv) override;
};

class ValidateIntfL3VrfMpls : public ValidateIntfVrf {
 public:
  using ValidateIntfVrf::ValidateIntfVrf;
  confd_iter_ret IterValidate(confd_hkeypath_t *kp, confd_iter_op op, confd_value_t *oldv,
                              confd_value_t *newv) override;
};

#endif  // IPAPP_VALIDATE_INTF_VRF_H
