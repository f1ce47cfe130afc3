// A stand-in validation plug-in for the checker's tests. IPAPP_FAKE_MODE
// chooses what it does, so the commit plan and the failure paths can be seen
// without the real rules. The mode is "<behaviour>" (in validate) or
// "<behaviour>@<entry>", entry one of load (while the library loads),
// get_validation_point, lib_init, validate, lib_finish, unload (while the
// library is unloaded):
//   (unset) accept  every callback accepts
//   refuse          every callback refuses with "<validation> refused"
//   throw           throws std::runtime_error("fake failure in <validation or entry>")
//   throw-own       throws an exception class defined here, derived from std::exception
//   throw-int       throws an int
//   abort           aborts the process, as a failed assertion does
//   segv            dies of SIGSEGV
//   exit0           ends the process with exit(0)
//   exit3           ends the process with exit(3)
//   hang            never returns
//   no-nul          (get_validation_point) fills the buffer without a NUL
//   wrong-point     get_validation_point answers "other_point"
//   leak            validate opens a cursor on the l3 list and never destroys it
//   fault-then-abort  every callback records the fault "fake fault in <validation>"
//                   and accepts; the second aborts instead
//   hang-on-stall   validate never returns when the candidate has an L3
//                   interface "stall" (one element of a batch overruns)
#include <confd_lib.h>
#include <confd_maapi.h>
#include <kxconfd.h>
#include <kxmw_fault.h>

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

namespace {

class FakeOwnError : public std::exception {
 public:
  const char *what() const noexcept override { return "fake own failure"; }
};

std::string Mode() {
  const char *mode = std::getenv("IPAPP_FAKE_MODE");
  return mode ? mode : "accept";
}

// The behaviour asked for at entry, or "".
std::string At(const std::string &entry) {
  const std::string mode = Mode();
  const size_t at = mode.find('@');
  if (at == std::string::npos) return entry == "validate" ? mode : "";
  return mode.substr(at + 1) == entry ? mode.substr(0, at) : "";
}

// Does what the behaviour says when it is one of the hostile ones.
void Misbehave(const std::string &behaviour, const std::string &where) {
  if (behaviour == "throw") throw std::runtime_error("fake failure in " + where);
  if (behaviour == "throw-own") throw FakeOwnError();
  if (behaviour == "throw-int") throw 42;
  if (behaviour == "abort") std::abort();
  if (behaviour == "segv") std::raise(SIGSEGV);
  if (behaviour == "exit0") std::exit(0);
  if (behaviour == "exit3") std::exit(3);
  if (behaviour == "hang") {
    for (;;) pause();
  }
}

[[maybe_unused]] const bool kLoaded = [] {
  Misbehave(At("load"), "load");
  return true;
}();

__attribute__((destructor)) void Unloading() {
  Misbehave(At("unload"), "unload");
}

}  // namespace

extern "C" int get_validation_point(char *dst, int n) {
  const std::string behaviour = At("get_validation_point");
  Misbehave(behaviour, "get_validation_point");
  if (behaviour == "no-nul") {
    std::memset(dst, 'x', n);
    return 0;
  }
  std::snprintf(dst, n, "%s", Mode() == "wrong-point" ? "other_point" : "ip_app_validation");
  return 0;
}

extern "C" int lib_init(void) {
  Misbehave(At("lib_init"), "lib_init");
  return 0;
}

extern "C" int lib_finish(void) {
  Misbehave(At("lib_finish"), "lib_finish");
  return 0;
}

extern "C" int validate(confd_trans_ctx *tctx, confd_hkeypath_t *, confd_value_t *) {
  const std::string behaviour = At("validate");
  Misbehave(behaviour, tctx->validate_opaque);
  if (behaviour == "leak") {
    maapi_cursor mc;
    maapi_init_cursor(kxconfd_maapi_socket_get(static_cast<kxconfd_t *>(tctx->vcb_opaque)),
                      tctx->thandle, &mc, "/config/interface/ipapp:l3");
  }
  if (behaviour == "fault-then-abort") {
    static int calls = 0;
    if (++calls == 2) std::abort();
    const std::string fault = std::string("fake fault in ") + tctx->validate_opaque;
    kxmw_gen_fault(0, "validate", "fake_plugin", 1, fault.c_str());
  }
  if (behaviour == "hang-on-stall") {
    const int sock = kxconfd_maapi_socket_get(static_cast<kxconfd_t *>(tctx->vcb_opaque));
    if (maapi_exists(sock, tctx->thandle, "/config/interface/ipapp:l3{stall}") == 1) {
      for (;;) pause();
    }
  }
  if (behaviour == "refuse") {
    confd_trans_seterr(tctx, "%s refused", tctx->validate_opaque);
    return CONFD_ERR;
  }
  return CONFD_OK;
}
