#include "ipapp/check_engine.h"

#include <dlfcn.h>

#include <array>
#include <cstring>

namespace ipapp::check {
namespace {

template <typename Fn>
Fn Symbol(void *handle, const std::string &path, const char *name) {
  dlerror();
  void *sym = dlsym(handle, name);
  if (sym == nullptr) {
    const char *why = dlerror();
    throw PluginError(path + ": no entry point " + name +
                      (why ? std::string(" (") + why + ")" : ""));
  }
  return reinterpret_cast<Fn>(sym);
}

std::string KeypathText(const confd_hkeypath_t &kp) {
  std::array<char, 8192> buf{};
  int n = confd_pp_kpath(buf.data(), static_cast<int>(buf.size()), &kp);
  if (n < 0) return "<unprintable keypath>";
  return std::string(buf.data());
}

}  // namespace

Plugin::Plugin(const std::string &path) : path_(path) {
  handle_ = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle_ == nullptr) {
    const char *why = dlerror();
    throw PluginError("cannot load plug-in " + path + ": " + (why ? why : "unknown reason"));
  }
  try {
    auto point = Symbol<int (*)(char *, int)>(handle_, path_, "get_validation_point");
    auto init = Symbol<int (*)()>(handle_, path_, "lib_init");
    validate_ = Symbol<ValidateFn>(handle_, path_, "validate");
    finish_ = Symbol<FinishFn>(handle_, path_, "lib_finish");

    std::array<char, 256> name{};
    if (point(name.data(), static_cast<int>(name.size())) != 0) {
      throw PluginError(path_ + ": get_validation_point failed");
    }
    if (std::strcmp(name.data(), kValidationPoint) != 0) {
      throw PluginError(path_ + " serves validation point \"" + name.data() + "\", not \"" +
                        kValidationPoint + "\"");
    }
    if (int rc = init(); rc != 0) {
      throw PluginError(path_ + ": lib_init returned " + std::to_string(rc));
    }
  } catch (...) {
    dlclose(handle_);
    throw;
  }
}

Plugin::~Plugin() {
  finish_();
  dlclose(handle_);
}

int Plugin::Validate(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval) const {
  return validate_(tctx, kp, newval);
}

std::vector<Call> PlanCommit(const host::Schema &schema, const host::Transaction &tx) {
  std::vector<Call> calls;
  for (const host::BoundNode &node : schema.bound_nodes()) {
    bool triggered = tx.Changed(node.path);
    for (auto dep = node.dependencies.begin(); !triggered && dep != node.dependencies.end();
         ++dep) {
      triggered = tx.Changed(*dep);
    }
    if (!triggered) continue;
    for (const host::Binding &binding : node.bindings) {
      if (binding.kind == host::Binding::Kind::kOnce) {
        calls.push_back({binding.opaque, node.path});
        continue;
      }
      for (std::string &entry : tx.Instances(node.path)) {
        calls.push_back({binding.opaque, std::move(entry)});
      }
    }
  }
  return calls;
}

bool Report::accepted() const {
  return failure() == nullptr && refusals().empty();
}

const Invocation *Report::failure() const {
  for (const Invocation &inv : invocations) {
    if (inv.failed) return &inv;
  }
  return nullptr;
}

std::vector<const Invocation *> Report::refusals() const {
  std::vector<const Invocation *> out;
  for (const Invocation &inv : invocations) {
    if (!inv.failed && inv.result != 0) out.push_back(&inv);
  }
  return out;
}

Report RunCommit(const Plugin &plugin, const host::Schema &schema, host::Transaction &tx,
                 const Options &options) {
  // Calls are recorded only for a trace that was asked for; the
  // transaction's setting is given back however the commit ends.
  struct TraceSetting {
    host::Transaction &tx;
    bool before;
    ~TraceSetting() { tx.RecordTrace(before); }
  } restore{tx, tx.RecordingTrace()};
  tx.RecordTrace(options.trace);
  Report report;
  for (const Call &call : PlanCommit(schema, tx)) {
    Invocation inv;
    inv.validation = call.validation;
    // Each callback gets its own keypath and context, as the daemon hands out.
    confd_hkeypath_t kp = tx.Keypath(call.path);
    inv.keypath = KeypathText(kp);
    confd_value_t newval{};
    newval.type = C_NOEXISTS;
    tx.ClearError();
    tx.ClearTrace();
    if (options.before_each) options.before_each(inv.validation, inv.keypath);
    try {
      inv.result = plugin.Validate(tx.Context(call.validation), &kp, &newval);
      inv.error = tx.ErrorText();
    } catch (const std::exception &e) {
      inv.failed = true;
      inv.error = e.what();
    } catch (...) {
      inv.failed = true;
      inv.error = "unknown exception";
    }
    if (options.trace) inv.trace = tx.Trace();
    bool stop = inv.failed || (inv.result != 0 && !options.keep_going);
    report.invocations.push_back(std::move(inv));
    if (stop) break;
  }
  report.faults = tx.Faults();
  return report;
}

}  // namespace ipapp::check
