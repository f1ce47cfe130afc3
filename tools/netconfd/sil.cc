// Server instrumentation library of the module ipapp-netconfd: netconfd loads
// it for --module=ipapp-netconfd (as libipapp-netconfd.so from its run path)
// and calls y_ipapp_netconfd_init once at start-up. It loads the plug-in and
// the element's modules named by the environment:
//   IPAPP_NETCONFD_PLUGIN  the validation plug-in (libip_app_validation.so)
//   IPAPP_NETCONFD_YANG    the directory of the element's YANG modules
// and checks the commit as the element would, in two places:
//   - netconfd's commit-validate callback, made for every <commit> of the
//     candidate (a refusal fails the commit);
//   - the invoke step of <validate> with <source><candidate/></source>, which
//     netconfd offers no hook for: the library takes over that step and runs
//     netconfd's own first. <validate> of an inline <config> or of running is
//     left as netconfd answers it, and so are edits of a writable running
//     configuration (the server runs with the candidate as target).
extern "C" {
#include <agt.h>
#include <agt_commit_validate.h>
#include <agt_rpc.h>
#include <agt_util.h>
#include <cfg.h>
#include <log.h>
#include <ncx.h>
#include <ncxmod.h>
#include <obj.h>
#include <rpc.h>
#include <val.h>
#include <val_util.h>
#include <xml_wr.h>
}

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>

#include "commit_hook.h"

namespace {

using ipapp::netconfd::CommitHook;
using ipapp::netconfd::Verdict;

constexpr const char *kModule = "ipapp-netconfd";

std::unique_ptr<CommitHook> g_hook;

const xmlChar *X(const char *s) {
  return reinterpret_cast<const xmlChar *>(s);
}

// Leaves out what netconfd filled in from the modules' defaults, so that the
// store sees the configuration as the client wrote it.
boolean NotByDefault(ncx_withdefaults_t, boolean, val_value_t *node) {
  return val_set_by_default(node) ? FALSE : TRUE;
}

// The top-level data of root that belongs to the element's modules, as XML
// text with a namespace on each top-level element. Throws std::runtime_error.
std::string ElementData(val_value_t *root) {
  char *buf = nullptr;
  size_t len = 0;
  FILE *out = open_memstream(&buf, &len);
  if (out == nullptr) throw std::runtime_error("cannot allocate the configuration text");
  status_t res = NO_ERR;
  for (val_value_t *top = val_get_first_child(root); top != nullptr && res == NO_ERR;
       top = val_get_next_child(top)) {
    const xmlChar *module = val_get_mod_name(top);
    if (module == nullptr) continue;
    bool ours = false;
    for (const std::string &name : g_hook->modules()) {
      ours = ours || name == reinterpret_cast<const char *>(module);
    }
    if (!ours) continue;
    res = xml_wr_check_open_file(out, top, nullptr, FALSE, FALSE, TRUE, 0, 0, NotByDefault);
  }
  fclose(out);
  std::string text(buf, len);
  free(buf);
  if (res != NO_ERR) {
    throw std::runtime_error(std::string("cannot write the configuration as XML: ") +
                             get_error_string(res));
  }
  return text;
}

// The strings of the last <rpc-error>. netconfd keeps pointers to the
// message and the app tag in its error record and writes them out only after
// the callback has returned, so they must outlive the callback: they stay
// until the next record replaces them (netconfd runs one RPC at a time).
struct LastError {
  std::string message;
  std::string app_tag;
  std::string path;
};
LastError g_last_error;

// One <rpc-error>: error-type application, error-tag operation-failed.
void RecordError(ses_cb_t *scb, xml_msg_hdr_t *msghdr, const std::string &message,
                 const std::string &keypath, const std::string &app_tag) {
  g_last_error = LastError{message, app_tag, keypath};
  ncx_errinfo_t errinfo{};
  // netconfd's type lacks const only: nothing writes through these.
  errinfo.error_message = reinterpret_cast<xmlChar *>(g_last_error.message.data());
  errinfo.error_app_tag =
      app_tag.empty() ? nullptr : reinterpret_cast<xmlChar *>(g_last_error.app_tag.data());
  void *path = keypath.empty() ? nullptr : g_last_error.path.data();
  agt_record_error_errinfo(scb, msghdr, NCX_LAYER_CONTENT, ERR_NCX_OPERATION_FAILED, nullptr,
                           NCX_NT_NONE, nullptr, path ? NCX_NT_STRING : NCX_NT_NONE, path,
                           &errinfo);
}

// The commit that turns running into the candidate at candidate_root: NO_ERR,
// or one <rpc-error> recorded in msghdr and an error status.
status_t CheckCandidate(ses_cb_t *scb, xml_msg_hdr_t *msghdr, val_value_t *candidate_root) {
  Verdict verdict;
  try {
    cfg_template_t *running = cfg_get_config_id(NCX_CFGID_RUNNING);
    if (running == nullptr || running->root == nullptr) {
      throw std::runtime_error("netconfd has no running configuration");
    }
    verdict = g_hook->Check(ElementData(running->root), ElementData(candidate_root));
  } catch (const std::exception &e) {
    verdict = Verdict{};
    verdict.message = std::string("the configuration could not be checked: ") + e.what();
  }

  for (const std::string &fault : verdict.faults) {
    log_warn("\n%s: fault recorded by the plug-in: %s", kModule, fault.c_str());
  }
  switch (verdict.kind) {
    case Verdict::Kind::kAccepted:
      return NO_ERR;
    case Verdict::Kind::kRefused:
      log_info("\n%s: refused by %s on %s: %s", kModule, verdict.validation.c_str(),
               verdict.keypath.c_str(), verdict.message.c_str());
      RecordError(scb, msghdr, verdict.message, verdict.keypath, verdict.validation);
      return ERR_NCX_OPERATION_FAILED;
    case Verdict::Kind::kFailed:
      break;
  }
  log_error("\n%s: %s", kModule, verdict.message.c_str());
  RecordError(scb, msghdr, verdict.message, verdict.keypath, "");
  return ERR_NCX_OPERATION_FAILED;
}

// --- <validate> -------------------------------------------------------------

constexpr const char *kValidate = "validate";

// netconfd's own invoke step of <validate>, run before the check, and
// whether ValidateInvoke has taken its place.
agt_rpc_method_t g_netconfd_validate = nullptr;
bool g_validate_taken = false;

bool SourceIsCandidate(rpc_msg_t *msg) {
  if (msg->rpc_input == nullptr) return false;
  val_value_t *source =
      val_find_child(msg->rpc_input, val_get_mod_name(msg->rpc_input), X("source"));
  if (source == nullptr) return false;
  val_value_t *which = val_get_first_child(source);
  return which != nullptr && xml_strcmp(which->name, X("candidate")) == 0;
}

status_t ValidateInvoke(ses_cb_t *scb, rpc_msg_t *msg, xml_node_t *methnode) {
  status_t res = g_netconfd_validate ? g_netconfd_validate(scb, msg, methnode) : NO_ERR;
  if (res != NO_ERR || !dlq_empty(&msg->mhdr.errQ) || !SourceIsCandidate(msg)) return res;
  cfg_template_t *candidate = cfg_get_config_id(NCX_CFGID_CANDIDATE);
  if (candidate == nullptr || candidate->root == nullptr) return NO_ERR;
  return CheckCandidate(scb, &msg->mhdr, candidate->root);
}

// Puts ValidateInvoke in place of netconfd's invoke step of <validate>,
// keeping netconfd's to run first. netconfd keeps its RPC callbacks in the
// RPC's schema object.
status_t TakeOverValidate() {
  ncx_module_t *netconf = ncx_find_module(NCXMOD_NETCONF, nullptr);
  obj_template_t *rpc = netconf ? ncx_find_object(netconf, X(kValidate)) : nullptr;
  if (rpc == nullptr) return ERR_NCX_DEF_NOT_FOUND;
  if (auto *cbset = static_cast<agt_rpc_cbset_t *>(rpc->rpc_cbset)) {
    g_netconfd_validate = cbset->acb[AGT_RPC_PH_INVOKE];
  }
  status_t res =
      agt_rpc_register_method(NCXMOD_NETCONF, X(kValidate), AGT_RPC_PH_INVOKE, ValidateInvoke);
  g_validate_taken = res == NO_ERR;
  return res;
}

void GiveBackValidate() {
  if (!g_validate_taken) return;
  g_validate_taken = false;
  ncx_module_t *netconf = ncx_find_module(NCXMOD_NETCONF, nullptr);
  obj_template_t *rpc = netconf ? ncx_find_object(netconf, X(kValidate)) : nullptr;
  if (rpc == nullptr || rpc->rpc_cbset == nullptr) return;
  static_cast<agt_rpc_cbset_t *>(rpc->rpc_cbset)->acb[AGT_RPC_PH_INVOKE] = g_netconfd_validate;
  g_netconfd_validate = nullptr;
}

const char *Env(const char *name) {
  const char *value = std::getenv(name);
  return value != nullptr && *value != '\0' ? value : nullptr;
}

}  // namespace

extern "C" {

// netconfd looks these three up by name: y_<module, '-' as '_'>_init, _init2
// and _cleanup.
__attribute__((visibility("default"))) status_t y_ipapp_netconfd_init(const xmlChar *modname,
                                                                      const xmlChar *revision) {
  ncx_module_t *mod = nullptr;
  status_t res = ncxmod_load_module(modname, revision, &agt_get_profile()->agt_savedevQ, &mod);
  if (res != NO_ERR) return res;

  const char *plugin = Env("IPAPP_NETCONFD_PLUGIN");
  const char *yang = Env("IPAPP_NETCONFD_YANG");
  if (plugin == nullptr || yang == nullptr) {
    log_error(
        "\n%s: IPAPP_NETCONFD_PLUGIN and IPAPP_NETCONFD_YANG must name the plug-in and "
        "the directory of the element's modules",
        kModule);
    return ERR_NCX_OPERATION_FAILED;
  }
  try {
    g_hook = std::make_unique<CommitHook>(plugin, yang);
  } catch (const std::exception &e) {
    log_error("\n%s: %s", kModule, e.what());
    return ERR_NCX_OPERATION_FAILED;
  }
  log_info("\n%s: plug-in %s loaded, modules from %s", kModule, plugin, yang);
  res = agt_commit_validate_register(X(kModule), CheckCandidate);
  if (res == NO_ERR) res = TakeOverValidate();
  return res;
}

__attribute__((visibility("default"))) status_t y_ipapp_netconfd_init2(void) {
  return NO_ERR;
}

__attribute__((visibility("default"))) void y_ipapp_netconfd_cleanup(void) {
  agt_commit_validate_unregister(X(kModule));
  GiveBackValidate();
  g_hook.reset();
}

}  // extern "C"
