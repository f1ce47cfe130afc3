// The store's path parser, through every MAAPI and CDB call that takes a
// path, on the example configuration. Whatever the path, a call answers; no
// read leaves anything open; a keypath the host builds prints to text that
// names the same keypath.
#include <confd_cdb.h>
#include <confd_maapi.h>
#include <ipapp/host.h>
#include <kxconfd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace {

struct Store {
  std::unique_ptr<ipapp::host::Transaction> tx;
  confd_trans_ctx *ctx = nullptr;
  int sock = -1;
};

Store &TheStore() {
  static Store *store = [] {
    auto *s = new Store;
    const std::string running = std::string(IPAPP_SOURCE_DIR) + "/examples/running.xml";
    s->tx = ipapp::host::Transaction::Create(
        ipapp::host::Schema::Load(std::string(IPAPP_SOURCE_DIR) + "/yang"),
        ipapp::host::DataSource::File(running), ipapp::host::DataSource::File(running));
    s->ctx = s->tx->Context("fuzz");
    s->sock = kxconfd_maapi_socket_get(static_cast<kxconfd_t *>(s->ctx->vcb_opaque));
    return s;
  }();
  return *store;
}

std::string PrintKeypath(const confd_hkeypath_t &kp) {
  std::array<char, 8192> buf{};
  return confd_pp_kpath(buf.data(), static_cast<int>(buf.size()), &kp) < 0 ? "" : buf.data();
}

void Maapi(const Store &s, const char *path) {
  const int th = s.ctx->thandle;
  maapi_exists(s.sock, th, "%s", path);
  maapi_num_instances(s.sock, th, "%s", path);
  confd_value_t v{};
  if (maapi_get_elem(s.sock, th, &v, "%s", path) == CONFD_OK) confd_free_dup_to_value(&v);
  int32_t i32;
  maapi_get_int32_elem(s.sock, th, &i32, "%s", path);
  confd_ipv4_prefix p4;
  maapi_get_ipv4_and_plen_elem(s.sock, th, &p4, "%s", path);
  maapi_cursor mc;
  if (maapi_init_cursor(s.sock, th, &mc, "%s", path) == CONFD_OK) {
    for (int i = 0; i < 64 && maapi_get_next(&mc) == CONFD_OK && mc.n != 0; ++i) {
    }
    maapi_destroy_cursor(&mc);
  }
  if (maapi_init_cursor(s.sock, th, &mc, "%s", path) == CONFD_OK) {
    std::array<confd_value_t, 4 * 8> values;
    int nobj = 4;
    // confd_lib_maapi(3): the result is the largest number of values of an
    // entry read, or CONFD_ERR.
    if (maapi_get_objects(&mc, values.data(), 8, &nobj) >= 0) {
      for (int i = 0; i < nobj * 8; ++i) confd_free_dup_to_value(&values[i]);
    }
    maapi_destroy_cursor(&mc);
  }
}

void Cdb(const Store &s, const char *path) {
  try {
    KxConfdCdbSession session(kxconfd_instance_get(static_cast<kxconfd_t *>(s.ctx->vcb_opaque)),
                              CDB_RUNNING, true);
    const int cdb = session.Socket();
    cdb_exists(cdb, "%s", path);
    cdb_num_instances(cdb, "%s", path);
    confd_value_t v{};
    if (cdb_get(cdb, &v, "%s", path) == CONFD_OK) confd_free_dup_to_value(&v);
    char text[64];
    cdb_get_str(cdb, text, sizeof text, "%s", path);
  } catch (const std::runtime_error &) {
    __builtin_trap();  // the transaction is alive: a session must open
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  Store &s = TheStore();
  const std::string path(reinterpret_cast<const char *>(data), size);
  Maapi(s, path.c_str());  // up to the first NUL, as C callers pass it
  Cdb(s, path.c_str());
  try {
    const confd_hkeypath_t kp = s.tx->Keypath(path);
    const std::string printed = PrintKeypath(kp);
    if (printed.empty() || PrintKeypath(s.tx->Keypath(printed)) != printed) __builtin_trap();
  } catch (const ipapp::host::InputError &) {
  }
  if (!s.tx->Open().empty()) __builtin_trap();
  s.tx->ClearTrace();
  return 0;
}
