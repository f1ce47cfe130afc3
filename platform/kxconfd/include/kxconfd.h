// Host framework of the element's data-model daemon, as the validation
// plug-ins see it: the host instance handed over as the validation callback's
// private data, the MAAPI socket of the transaction, and CDB read sessions.
#ifndef KXCONFD_H
#define KXCONFD_H

#include <confd_cdb.h>

/// Host instance; plug-ins pass it on and never look inside.
typedef struct kxconfd kxconfd_t;

/// The host's interface object, needed to open CDB sessions.
class KxConfdInterface;

/// MAAPI socket attached to the transaction under validation; negative on
/// failure.
extern "C" int kxconfd_maapi_socket_get(kxconfd_t *host);

/// The host interface of a host instance.
extern "C" KxConfdInterface *kxconfd_instance_get(kxconfd_t *host);

/// A CDB read session on one database, open for the object's lifetime.
/// Construction throws std::runtime_error, with the reason as its text, when
/// no session can be opened.
class KxConfdCdbSessionBase {
 public:
  KxConfdCdbSessionBase(KxConfdInterface *iface, cdb_db_type db, bool read_only);
  virtual ~KxConfdCdbSessionBase();
  KxConfdCdbSessionBase(const KxConfdCdbSessionBase &) = delete;
  KxConfdCdbSessionBase &operator=(const KxConfdCdbSessionBase &) = delete;

  /// The CDB socket for cdb_* calls.
  int Socket() const { return sock_; }

 private:
  KxConfdInterface *iface_;
  int sock_;
};

/// The session class handlers use.
class KxConfdCdbSession : public KxConfdCdbSessionBase {
 public:
  using KxConfdCdbSessionBase::KxConfdCdbSessionBase;
  ~KxConfdCdbSession() override;
};

#endif  // KXCONFD_H
