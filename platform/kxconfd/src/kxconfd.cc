// Host framework, element services and fault log, as the validation plug-in
// sees them, served by the in-process data store.
#include <id_vrf.h>
#include <ifuid.h>
#include <kxconfd.h>
#include <kxmw_fault.h>

#include <stdexcept>
#include <string>

#include "kxconfd_host.h"
#include "store.h"

extern "C" int kxconfd_maapi_socket_get(kxconfd_t *host) {
  if (host == nullptr) return -1;
  std::shared_ptr<ipapp::store::Txn> txn = ipapp::store::FindTxn(host->iface.thandle());
  if (!txn) return -1;
  ipapp::store::SetCurrentTxn(txn->thandle());
  return txn->fail_maapi_socket() ? -1 : txn->maapi_socket();
}

extern "C" KxConfdInterface *kxconfd_instance_get(kxconfd_t *host) {
  return host == nullptr ? nullptr : &host->iface;
}

KxConfdCdbSessionBase::KxConfdCdbSessionBase(KxConfdInterface *iface, cdb_db_type db,
                                             bool read_only)
    : iface_(iface), sock_(-1) {
  (void)read_only;  // the store is read-only whatever the caller asks
  if (iface_ == nullptr) throw std::runtime_error("CDB session: no host interface");
  sock_ = ipapp::store::OpenCdbSocket(iface_->thandle());
  if (sock_ < 0) {
    throw std::runtime_error("CDB session: transaction " + std::to_string(iface_->thandle()) +
                             " has ended");
  }
  // No destructor runs for a constructor that throws: the socket, and the
  // session if it started, go with it.
  try {
    if (cdb_start_session(sock_, db) != CONFD_OK) {
      throw std::runtime_error(std::string("CDB session: ") + confd_lasterr());
    }
  } catch (...) {
    ipapp::store::CloseCdbSocket(sock_);
    throw;
  }
}

KxConfdCdbSessionBase::~KxConfdCdbSessionBase() {
  try {
    cdb_end_session(sock_);
  } catch (...) {  // its record could not be made; the socket goes anyway
  }
  ipapp::store::CloseCdbSocket(sock_);
}

KxConfdCdbSession::~KxConfdCdbSession() = default;

extern "C" int kxmw_gen_fault(int kind, const char *function, const char *file, int line,
                              const char *message) {
  std::shared_ptr<ipapp::store::Txn> txn = ipapp::store::FindTxn(ipapp::store::CurrentTxn());
  if (!txn) return -1;
  txn->AddFault({kind, function ? function : "", file ? file : "", line, message ? message : ""});
  return 0;
}

extern "C" int ifuid_l3_vlan_from_components(ifuid_t *ifuid, int32_t vlan) {
  if (ifuid == nullptr || vlan < 1 || vlan > 4094) return -1;
  *ifuid = 0x0C000000u | static_cast<uint32_t>(vlan);
  return 0;
}

extern "C" int ifuid_to_ifindex(ifuid_t ifuid) {
  uint32_t vlan = ifuid & 0xFFFu;
  if ((ifuid & ~0xFFFu) != 0x0C000000u || vlan < 1 || vlan > 4094) return -1;
  return 1000 + static_cast<int>(vlan);
}

uint32_t IdVrfFromComponent(uint32_t component) {
  return component;
}
