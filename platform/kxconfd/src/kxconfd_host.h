// What the test host needs of the host framework: host instances bound to
// one transaction of the data store.
#ifndef IPAPP_KXCONFD_HOST_H
#define IPAPP_KXCONFD_HOST_H

#include <kxconfd.h>

/// The host interface of one transaction: CDB sessions open on its running
/// store.
class KxConfdInterface {
 public:
  explicit KxConfdInterface(int thandle) : thandle_(thandle) {}
  int thandle() const { return thandle_; }

 private:
  int thandle_;
};

struct kxconfd {
  explicit kxconfd(int thandle) : iface(thandle) {}
  KxConfdInterface iface;
};

#endif  // IPAPP_KXCONFD_HOST_H
