// CDB reads of a transaction's running configuration, through sockets the
// host framework opens on the transaction.
#include <confd_cdb.h>

#include <cstring>

#include "call.h"
#include "values.h"

using ipapp::store::Call;
using ipapp::store::DNode;
using ipapp::store::NodeKind;
using ipapp::store::Target;

int cdb_start_session(int sock, enum cdb_db_type db) {
  Call call("cdb_start_session");
  std::shared_ptr<ipapp::store::Txn> txn;
  std::string why;
  int err = CONFD_ERR_PROTOUSAGE;
  {
    std::lock_guard<std::mutex> lock(ipapp::store::StoreMutex());
    txn = ipapp::store::FindCdbSocketLocked(sock);
    if (!txn) {
      err = CONFD_ERR_NOSESSION;
      why = "socket " + std::to_string(sock) + " is not a CDB socket";
    } else if (txn->fail_cdb_sessions()) {
      why = "the data store refuses CDB sessions for this transaction";
    } else if (db == CDB_PRE_COMMIT_RUNNING) {
      // confd_lib_cdb(3): only between a subscription notification and the
      // final sync, and a validation callback is neither.
      err = CONFD_ERR_NOEXISTS;
      why =
          "CDB_PRE_COMMIT_RUNNING is readable only while a subscription notification is "
          "handled";
    } else if (db != CDB_RUNNING) {
      why = "only the running database can be read (asked for " + std::to_string(db) + ")";
    } else {
      ipapp::store::CdbSocket &info = txn->cdb_sockets.at(sock);
      if (info.session) {
        why = "a session is already started on socket " + std::to_string(sock);
      } else {
        info.session = true;
        info.tree = &txn->running();
        info.serial = txn->NextSerialLocked();
        ipapp::store::CdbSocketsChangedLocked();
      }
    }
  }
  if (txn) call.Use(txn);
  if (!why.empty()) return call.Fail(err, why);
  return call.Done(CONFD_OK);
}

int cdb_end_session(int sock) {
  Call call("cdb_end_session");
  bool ended = false;
  std::shared_ptr<ipapp::store::Txn> txn;
  {
    std::lock_guard<std::mutex> lock(ipapp::store::StoreMutex());
    txn = ipapp::store::FindCdbSocketLocked(sock);
    if (txn) {
      ipapp::store::CdbSocket &info = txn->cdb_sockets.at(sock);
      ended = info.session;
      info.session = false;
      info.tree = nullptr;
      ipapp::store::CdbSocketsChangedLocked();
    }
  }
  if (!txn) {
    ipapp::store::SetLastError(
        CONFD_ERR_NOSESSION,
        "cdb_end_session: socket " + std::to_string(sock) + " is not a CDB socket");
    return CONFD_ERR;
  }
  call.Use(txn);
  if (!ended) return call.Fail(CONFD_ERR_PROTOUSAGE, "no session started on this socket");
  return call.Done(CONFD_OK);
}

int cdb_num_instances(int sock, const char *fmt, ...) {
  Call call("cdb_num_instances");
  IPAPP_CDB_PATH(call, sock, fmt);
  Target t;
  if (!call.ok() || !call.List(&t)) return CONFD_ERR;
  return call.Done(t.list ? static_cast<int>(t.list->entries.size()) : 0);
}

int cdb_exists(int sock, const char *fmt, ...) {
  Call call("cdb_exists");
  IPAPP_CDB_PATH(call, sock, fmt);
  if (!call.ok() || !call.Parse()) return CONFD_ERR;
  Target t = Resolve(call.tree(), call.parsed());
  return call.Done(t.present ? 1 : 0);
}

int cdb_get(int sock, confd_value_t *v, const char *fmt, ...) {
  Call call("cdb_get");
  IPAPP_CDB_PATH(call, sock, fmt);
  if (!call.ok()) return CONFD_ERR;
  const DNode *leaf = call.Leaf();
  if (leaf == nullptr) return CONFD_ERR;
  if (v == nullptr) return call.Fail(CONFD_ERR_PROTOUSAGE, "null value pointer");
  void *dup;
  *v = ipapp::store::DupValue(leaf->value, &dup);
  return call.DoneWithDup(CONFD_OK, dup, leaf->text);
}

int cdb_get_int32(int sock, int32_t *rval, const char *fmt, ...) {
  Call call("cdb_get_int32");
  IPAPP_CDB_PATH(call, sock, fmt);
  if (!call.ok()) return CONFD_ERR;
  return call.ReadTyped<int32_t>(C_INT32, rval, [](const confd_value_t &v) { return v.val.i32; });
}

int cdb_get_u_int32(int sock, u_int32_t *rval, const char *fmt, ...) {
  Call call("cdb_get_u_int32");
  IPAPP_CDB_PATH(call, sock, fmt);
  if (!call.ok()) return CONFD_ERR;
  return call.ReadTyped<u_int32_t>(C_UINT32, rval,
                                   [](const confd_value_t &v) { return v.val.u32; });
}

int cdb_get_str(int sock, char *rval, int n, const char *fmt, ...) {
  Call call("cdb_get_str");
  IPAPP_CDB_PATH(call, sock, fmt);
  if (!call.ok()) return CONFD_ERR;
  const DNode *leaf = call.Leaf();
  if (leaf == nullptr) return CONFD_ERR;
  if (leaf->value.type != C_BUF) return call.WrongType(*leaf, C_BUF);
  if (rval == nullptr || n <= 0) return call.Fail(CONFD_ERR_PROTOUSAGE, "no room for the string");
  size_t len = leaf->value.val.buf.size;
  if (len >= static_cast<size_t>(n)) {
    return call.Fail(CONFD_ERR_PROTOUSAGE, "string of " + std::to_string(len) +
                                               " bytes does not fit a buffer of " +
                                               std::to_string(n));
  }
  std::memcpy(rval, leaf->value.val.buf.ptr, len);
  rval[len] = '\0';
  return call.Done(CONFD_OK, leaf->text);
}

int cdb_get_ipv4_and_plen(int sock, struct confd_ipv4_prefix *rval, const char *fmt, ...) {
  Call call("cdb_get_ipv4_and_plen");
  IPAPP_CDB_PATH(call, sock, fmt);
  if (!call.ok()) return CONFD_ERR;
  return call.ReadTyped<confd_ipv4_prefix>(C_IPV4_AND_PLEN, rval,
                                           [](const confd_value_t &v) { return v.val.ipv4prefix; });
}
