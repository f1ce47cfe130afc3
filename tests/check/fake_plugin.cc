// A stand-in validation plug-in for the checker's tests. IPAPP_FAKE_MODE
// chooses what it does, so the commit plan and the failure paths can be seen
// without the real rules:
//   (unset) accept  every callback accepts
//   refuse          every callback refuses with "<validation> refused"
//   throw           validate throws std::runtime_error("fake failure in <validation>")
//   wrong-point     get_validation_point answers "other_point"
//   abort           validate aborts the process, as a failed assertion does
//   leak            validate opens a cursor on the l3 list and never destroys it
#include <confd_lib.h>
#include <confd_maapi.h>
#include <kxconfd.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>

namespace {
std::string Mode() {
  const char *mode = std::getenv("IPAPP_FAKE_MODE");
  return mode ? mode : "accept";
}
}  // namespace

extern "C" int get_validation_point(char *dst, int n) {
  std::snprintf(dst, n, "%s", Mode() == "wrong-point" ? "other_point" : "ip_app_validation");
  return 0;
}

extern "C" int lib_init(void) {
  return 0;
}

extern "C" int lib_finish(void) {
  return 0;
}

extern "C" int validate(confd_trans_ctx *tctx, confd_hkeypath_t *, confd_value_t *) {
  const std::string mode = Mode();
  if (mode == "throw") {
    throw std::runtime_error(std::string("fake failure in ") + tctx->validate_opaque);
  }
  if (mode == "abort") std::abort();
  if (mode == "leak") {
    maapi_cursor mc;
    maapi_init_cursor(kxconfd_maapi_socket_get(static_cast<kxconfd_t *>(tctx->vcb_opaque)),
                      tctx->thandle, &mc, "/config/interface/ipapp:l3");
  }
  if (mode == "refuse") {
    confd_trans_seterr(tctx, "%s refused", tctx->validate_opaque);
    return CONFD_ERR;
  }
  return CONFD_OK;
}
