// Server instrumentation library of the module ipapp-netconfd: netconfd loads
// it for --module=ipapp-netconfd (as libipapp-netconfd.so from its run path)
// and calls y_ipapp_netconfd_init once at start-up. The environment names
// what it checks with:
//   IPAPP_NETCONFD_PLUGIN   the validation plug-in (libip_app_validation.so)
//   IPAPP_NETCONFD_YANG     the directory of the element's YANG modules
//   IPAPP_NETCONFD_TIMEOUT  seconds one check may take (default 60)
//   IPAPP_NETCONFD_COMMITTED  where to keep each commit (committed_config.h);
//                           unset: nowhere but netconfd's own start-up file
// Each check runs the plug-in in a commit process of its own (the engine's
// isolated commit), forked by the commit runner the library starts next to
// netconfd (commit_runner.h), in two places:
//   - netconfd's commit-validate callback, made for every <commit> of the
//     candidate (a refusal fails the commit);
//   - the validate step of <validate>, which netconfd offers no hook for:
//     the library takes that step over and runs netconfd's own inside it.
//     netconfd's step spoils the tree it checks (a <commit> after it finds
//     nothing, or only the later edits, to commit), so for the candidate it
//     gets a copy, and the candidate with its edits is left as it was. An
//     inline <config> is checked as if it were the candidate. <validate> of
//     running is netconfd's alone, and so are edits of a writable running
//     configuration (the server runs with the candidate as target).
extern "C" {
#include <agt.h>
#include <agt_commit_complete.h>
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
#include <xml_msg.h>
#include <xml_wr.h>
}

#include <dlfcn.h>
#include <stdio_ext.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <ipapp/tools/failure_text.h>

#include "commit_runner.h"
#include "committed_config.h"
#include "keypath.h"

namespace {

using ipapp::netconfd::CommitRunner;
using ipapp::netconfd::KeypathStep;
using ipapp::netconfd::ParseKeypath;
using ipapp::netconfd::Verdict;
using ipapp::netconfd::XPathLiteral;

constexpr const char *kModule = "ipapp-netconfd";

std::unique_ptr<CommitRunner> g_hook;

const xmlChar *X(const char *s) {
  return reinterpret_cast<const xmlChar *>(s);
}

// Leaves out what netconfd filled in from the modules' defaults, so that the
// store sees the configuration as the client wrote it.
boolean NotByDefault(ncx_withdefaults_t, boolean, val_value_t *node) {
  return val_set_by_default(node) ? FALSE : TRUE;
}

// What write puts on a stream, as text. Throws std::runtime_error.
template <typename Write>
std::string XmlText(Write write) {
  char *buf = nullptr;
  size_t len = 0;
  FILE *out = open_memstream(&buf, &len);
  if (out == nullptr) throw std::runtime_error("cannot allocate the configuration text");
  // netconfd writes the text a character at a time: without a lock taken
  // for each, in half the time. The stream is this call's alone.
  __fsetlocking(out, FSETLOCKING_BYCALLER);
  const status_t res = write(out);
  fclose(out);
  std::string text(buf, len);
  free(buf);
  if (res != NO_ERR) {
    throw std::runtime_error(std::string("cannot write the configuration as XML: ") +
                             get_error_string(res));
  }
  return text;
}

// The top-level data of root that belongs to the element's modules (ours),
// or to the other modules, as XML text with a namespace on each top-level
// element; test decides which nodes below are written. Throws
// std::runtime_error.
std::string TopLevelData(val_value_t *root, bool ours, val_nodetest_fn_t test) {
  return XmlText([root, ours, test](FILE *out) {
    status_t res = NO_ERR;
    for (val_value_t *top = val_get_first_child(root); top != nullptr && res == NO_ERR;
         top = val_get_next_child(top)) {
      const xmlChar *module = val_get_mod_name(top);
      if (module == nullptr) continue;
      bool element = false;
      for (const std::string &name : g_hook->modules()) {
        element = element || name == reinterpret_cast<const char *>(module);
      }
      if (element != ours) continue;
      // netconfd's save tests each top-level node as well (its state, say).
      if (!ours && !test(NCX_DEF_WITHDEF, TRUE, top)) continue;
      res = xml_wr_check_open_file(out, top, nullptr, FALSE, FALSE, TRUE, 0, 0, test);
    }
    return res;
  });
}

// The element's data in root, as the store reads it.
std::string ElementData(val_value_t *root) {
  return TopLevelData(root, true, NotByDefault);
}

// --- the last commit, kept whole --------------------------------------------

// IPAPP_NETCONFD_COMMITTED: where each commit goes (committed_config.h), or
// empty.
std::string g_committed;

// The element's data of the candidate the <commit> under way was accepted
// with: once applied, it is the element's running configuration.
std::optional<std::string> g_accepted;

// The running configuration of a commit, written where the launcher starts
// from when netconfd's own save of it is cut short. netconfd calls this
// after the commit is applied, before it saves it and answers. The element's
// data is the text the commit was checked with (written again it would cost
// as much as netconfd's own save); the other modules' data is written here.
// A confirmed commit is kept as well: netconfd saves nothing until it is
// confirmed, and the launcher takes this file only when netconfd's is not
// whole. Failing to write fails the commit, as a failed save of netconfd's
// does.
status_t SaveCommitted() {
  std::optional<std::string> element = std::move(g_accepted);
  g_accepted.reset();
  cfg_template_t *running = cfg_get_config_id(NCX_CFGID_RUNNING);
  try {
    if (running == nullptr || running->root == nullptr) {
      throw std::runtime_error("netconfd has no running configuration");
    }
    ipapp::netconfd::ReplaceWhole(
        g_committed,
        ipapp::netconfd::StartupText(TopLevelData(running->root, false, agt_check_save) +
                                     (element ? *element : ElementData(running->root))));
  } catch (const std::exception &e) {
    log_error("\n%s: cannot keep the commit in %s: %s", kModule, g_committed.c_str(), e.what());
    return ERR_NCX_OPERATION_FAILED;
  }
  return NO_ERR;
}

// --- error-path ---------------------------------------------------------------

// The XPath instance identifier of keypath in the element's modules, each
// name with its module's prefix; the prefixes are declared on the reply of
// msghdr. Empty when the keypath names nothing the modules have.
std::string InstanceIdentifier(xml_msg_hdr_t *msghdr, const std::string &keypath) {
  std::string xpath;
  obj_template_t *obj = nullptr;
  for (const KeypathStep &step : ParseKeypath(keypath)) {
    if (obj == nullptr) {
      for (const std::string &module : g_hook->modules()) {
        ncx_module_t *mod = ncx_find_module(X(module.c_str()), nullptr);
        obj = mod ? ncx_find_object(mod, X(step.name.c_str())) : nullptr;
        if (obj != nullptr) break;
      }
    } else {
      obj = obj_find_child(obj, nullptr, X(step.name.c_str()));
    }
    if (obj == nullptr) return {};
    auto qname = [msghdr](obj_template_t *o) -> std::string {
      const xmlChar *prefix = xml_msg_get_prefix_xpath(msghdr, obj_get_nsid(o));
      if (prefix == nullptr) return {};
      return std::string(reinterpret_cast<const char *>(prefix)) + ":" +
             reinterpret_cast<const char *>(obj_get_name(o));
    };
    std::string name = qname(obj);
    if (name.empty()) return {};
    xpath += "/" + name;
    if (!step.entry) continue;
    obj_key_t *key = obj_first_key(obj);
    for (const std::string &value : step.keys) {
      if (key == nullptr || key->keyobj == nullptr) return {};
      std::string key_name = qname(key->keyobj);
      if (key_name.empty()) return {};
      xpath += "[" + key_name + "=" + XPathLiteral(value) + "]";
      key = obj_next_key(key);
    }
  }
  return xpath;
}

// The strings of the last <rpc-error>. netconfd keeps pointers to the
// message and the app tag in its error record and writes them out only after
// the callback has returned, so they must outlive the callback: they stay
// until the next record replaces them (netconfd runs one RPC at a time).
struct LastError {
  std::string message;
  std::string app_tag;
};
LastError g_last_error;

// One <rpc-error>: error-type application, error-tag operation-failed, and
// the refusing node as error-path.
void RecordError(ses_cb_t *scb, xml_msg_hdr_t *msghdr, const std::string &message,
                 const std::string &keypath, const std::string &app_tag) {
  g_last_error = LastError{message, app_tag};
  ncx_errinfo_t errinfo{};
  // netconfd's type lacks const only: nothing writes through these.
  errinfo.error_message = reinterpret_cast<xmlChar *>(g_last_error.message.data());
  errinfo.error_app_tag =
      app_tag.empty() ? nullptr : reinterpret_cast<xmlChar *>(g_last_error.app_tag.data());
  // netconfd copies the path text.
  std::string path = keypath.empty() ? std::string() : InstanceIdentifier(msghdr, keypath);
  if (path.empty() && !keypath.empty()) {
    log_warn("\n%s: no instance identifier for the keypath %s", kModule, keypath.c_str());
  }
  agt_record_error_errinfo(scb, msghdr, NCX_LAYER_CONTENT, ERR_NCX_OPERATION_FAILED, nullptr,
                           NCX_NT_NONE, nullptr, path.empty() ? NCX_NT_NONE : NCX_NT_STRING,
                           path.empty() ? nullptr : path.data(), &errinfo);
}

// The commit that turns running into the configuration at candidate_root:
// NO_ERR, or one <rpc-error> recorded in msghdr and an error status.
// accepted, when given, gets the candidate's element data once accepted.
status_t CheckCandidate(ses_cb_t *scb, xml_msg_hdr_t *msghdr, val_value_t *candidate_root,
                        std::string *accepted = nullptr) {
  Verdict verdict;
  std::string candidate;
  try {
    cfg_template_t *running = cfg_get_config_id(NCX_CFGID_RUNNING);
    if (running == nullptr || running->root == nullptr) {
      throw std::runtime_error("netconfd has no running configuration");
    }
    candidate = ElementData(candidate_root);
    verdict = g_hook->Check(ElementData(running->root), candidate);
  } catch (const std::exception &e) {
    verdict = Verdict{};
    verdict.message = ipapp::tools::UncheckedText(e.what());
  }

  for (const std::string &fault : verdict.faults) {
    log_warn("\n%s: fault recorded by the plug-in: %s", kModule, fault.c_str());
  }
  switch (verdict.kind) {
    case Verdict::Kind::kAccepted:
      if (accepted != nullptr) *accepted = std::move(candidate);
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

// netconfd's commit-validate callback: the check of a <commit>, whose
// accepted candidate SaveCommitted keeps once it is applied.
status_t CheckCommit(ses_cb_t *scb, xml_msg_hdr_t *msghdr, val_value_t *candidate_root) {
  g_accepted.reset();
  std::string accepted;
  const status_t res = CheckCandidate(scb, msghdr, candidate_root, &accepted);
  if (res == NO_ERR && !g_committed.empty()) g_accepted = std::move(accepted);
  return res;
}

// --- <validate> -------------------------------------------------------------

constexpr const char *kValidate = "validate";

// netconfd's own validate step of <validate>, and whether ValidateStep has
// taken its place.
agt_rpc_method_t g_netconfd_validate = nullptr;
bool g_validate_taken = false;

// The copy of the candidate netconfd last validated. Its error records may
// point into it until the reply is out, so it goes at the next <validate>.
val_value_t *g_validated_copy = nullptr;

void DropValidatedCopy() {
  if (g_validated_copy != nullptr) val_free_value(g_validated_copy);
  g_validated_copy = nullptr;
}

// The child of <source>: <candidate/>, <config>, <running/>..., or null.
val_value_t *Source(rpc_msg_t *msg) {
  if (msg->rpc_input == nullptr) return nullptr;
  val_value_t *source =
      val_find_child(msg->rpc_input, val_get_mod_name(msg->rpc_input), X("source"));
  return source ? val_get_first_child(source) : nullptr;
}

status_t NetconfdValidate(ses_cb_t *scb, rpc_msg_t *msg, xml_node_t *methnode) {
  return g_netconfd_validate ? g_netconfd_validate(scb, msg, methnode) : NO_ERR;
}

status_t ValidateStep(ses_cb_t *scb, rpc_msg_t *msg, xml_node_t *methnode) {
  DropValidatedCopy();
  val_value_t *source = Source(msg);
  cfg_template_t *candidate = cfg_get_config_id(NCX_CFGID_CANDIDATE);
  const bool of_candidate = source != nullptr && xml_strcmp(source->name, X("candidate")) == 0 &&
                            candidate != nullptr && candidate->root != nullptr;
  const bool inline_config = source != nullptr && xml_strcmp(source->name, X("config")) == 0;
  if (!of_candidate) {
    status_t res = NetconfdValidate(scb, msg, methnode);
    if (res != NO_ERR || !dlq_empty(&msg->mhdr.errQ) || !inline_config) return res;
    return CheckCandidate(scb, &msg->mhdr, source);
  }

  val_value_t *copy = val_clone(candidate->root);
  if (copy == nullptr) {
    agt_record_error(scb, &msg->mhdr, NCX_LAYER_OPERATION, ERR_INTERNAL_MEM, methnode, NCX_NT_NONE,
                     nullptr, NCX_NT_NONE, nullptr);
    return ERR_INTERNAL_MEM;
  }
  val_value_t *real = candidate->root;
  const uint32 flags = candidate->flags;
  candidate->root = copy;
  status_t res = NetconfdValidate(scb, msg, methnode);
  candidate->root = real;
  candidate->flags = flags;
  g_validated_copy = copy;
  if (res != NO_ERR || !dlq_empty(&msg->mhdr.errQ)) return res;
  return CheckCandidate(scb, &msg->mhdr, real);
}

// Puts ValidateStep in place of netconfd's validate step of <validate>,
// keeping netconfd's to run inside it. netconfd keeps its RPC callbacks in
// the RPC's schema object.
status_t TakeOverValidate() {
  ncx_module_t *netconf = ncx_find_module(NCXMOD_NETCONF, nullptr);
  obj_template_t *rpc = netconf ? ncx_find_object(netconf, X(kValidate)) : nullptr;
  if (rpc == nullptr) return ERR_NCX_DEF_NOT_FOUND;
  if (auto *cbset = static_cast<agt_rpc_cbset_t *>(rpc->rpc_cbset)) {
    g_netconfd_validate = cbset->acb[AGT_RPC_PH_VALIDATE];
  }
  status_t res =
      agt_rpc_register_method(NCXMOD_NETCONF, X(kValidate), AGT_RPC_PH_VALIDATE, ValidateStep);
  g_validate_taken = res == NO_ERR;
  return res;
}

void GiveBackValidate() {
  if (!g_validate_taken) return;
  g_validate_taken = false;
  ncx_module_t *netconf = ncx_find_module(NCXMOD_NETCONF, nullptr);
  obj_template_t *rpc = netconf ? ncx_find_object(netconf, X(kValidate)) : nullptr;
  if (rpc == nullptr || rpc->rpc_cbset == nullptr) return;
  static_cast<agt_rpc_cbset_t *>(rpc->rpc_cbset)->acb[AGT_RPC_PH_VALIDATE] = g_netconfd_validate;
  g_netconfd_validate = nullptr;
}

const char *Env(const char *name) {
  const char *value = std::getenv(name);
  return value != nullptr && *value != '\0' ? value : nullptr;
}

// The commit runner, installed and built next to this library.
std::string RunnerPath() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void *>(&Env), &info) == 0 || info.dli_fname == nullptr) {
    return ipapp::netconfd::kRunnerName;
  }
  return (std::filesystem::path(info.dli_fname).parent_path() / ipapp::netconfd::kRunnerName)
      .string();
}

// IPAPP_NETCONFD_TIMEOUT in milliseconds; 60 s when unset, 0 when malformed.
std::chrono::milliseconds Timeout() {
  const char *text = Env("IPAPP_NETCONFD_TIMEOUT");
  if (text == nullptr) return std::chrono::seconds(60);
  char *end = nullptr;
  const double seconds = std::strtod(text, &end);
  if (*end != '\0' || !(seconds > 0) || seconds > 86400) return {};
  return std::chrono::milliseconds(std::llround(seconds * 1000));
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
  const std::chrono::milliseconds timeout = Timeout();
  if (plugin == nullptr || yang == nullptr || timeout.count() == 0) {
    log_error(
        "\n%s: IPAPP_NETCONFD_PLUGIN and IPAPP_NETCONFD_YANG must name the plug-in and "
        "the directory of the element's modules, IPAPP_NETCONFD_TIMEOUT (if set) a number "
        "of seconds",
        kModule);
    return ERR_NCX_OPERATION_FAILED;
  }
  try {
    g_hook = std::make_unique<CommitRunner>(RunnerPath(), plugin, yang, timeout);
  } catch (const std::exception &e) {
    log_error("\n%s: %s", kModule, e.what());
    return ERR_NCX_OPERATION_FAILED;
  }
  log_info("\n%s: plug-in %s, modules from %s, %lld ms per check, commit runner pid %d", kModule,
           plugin, yang, static_cast<long long>(timeout.count()), static_cast<int>(g_hook->pid()));
  res = agt_commit_validate_register(X(kModule), CheckCommit);
  if (res == NO_ERR) res = TakeOverValidate();
  if (const char *committed = Env("IPAPP_NETCONFD_COMMITTED"); res == NO_ERR && committed) {
    g_committed = committed;
    res = agt_commit_complete_register(X(kModule), SaveCommitted);
  }
  return res;
}

__attribute__((visibility("default"))) status_t y_ipapp_netconfd_init2(void) {
  return NO_ERR;
}

__attribute__((visibility("default"))) void y_ipapp_netconfd_cleanup(void) {
  agt_commit_validate_unregister(X(kModule));
  if (!g_committed.empty()) agt_commit_complete_unregister(X(kModule));
  GiveBackValidate();
  DropValidatedCopy();
  g_hook.reset();
}

}  // extern "C"
