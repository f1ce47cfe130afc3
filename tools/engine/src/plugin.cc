// Loading the plug-in and calling its entry points.
#include <cxxabi.h>
#include <dlfcn.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <typeinfo>
#include <utility>

#include "ipapp/check_engine.h"
#include "ipapp/tools/failure_text.h"

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

}  // namespace

const char *EntryName(Entry entry) {
  switch (entry) {
    case Entry::kLoad:
      return "load";
    case Entry::kGetValidationPoint:
      return "get_validation_point";
    case Entry::kLibInit:
      return "lib_init";
    case Entry::kLibFinish:
      return "lib_finish";
  }
  throw std::logic_error("unknown entry point");
}

Plugin::Plugin(const std::string &path, EntryHook entering)
    : path_(path), entering_(std::move(entering)) {
  if (entering_) entering_(Entry::kLoad);
  handle_ = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle_ == nullptr) {
    const char *why = dlerror();
    throw PluginError("cannot load plug-in " + path + ": " + (why ? why : "unknown reason"));
  }
  const char *entry = "";
  std::string failure;
  try {
    auto point =
        Symbol<int (*)(char *, int)>(handle_, path_, EntryName(Entry::kGetValidationPoint));
    auto init = Symbol<int (*)()>(handle_, path_, EntryName(Entry::kLibInit));
    validate_ = Symbol<ValidateFn>(handle_, path_, "validate");
    finish_ = Symbol<FinishFn>(handle_, path_, EntryName(Entry::kLibFinish));

    // One byte more than the plug-in is told: a name that fills its buffer
    // ends without a NUL of its own.
    std::array<char, 257> name{};
    entry = EntryName(Entry::kGetValidationPoint);
    if (entering_) entering_(Entry::kGetValidationPoint);
    if (point(name.data(), static_cast<int>(name.size() - 1)) != 0) {
      throw PluginError(path_ + ": get_validation_point failed");
    }
    if (std::strcmp(name.data(), kValidationPoint) != 0) {
      throw PluginError(path_ + " serves validation point \"" + name.data() + "\", not \"" +
                        kValidationPoint + "\"");
    }
    entry = EntryName(Entry::kLibInit);
    if (entering_) entering_(Entry::kLibInit);
    if (int rc = init(); rc != 0) {
      throw PluginError(path_ + ": lib_init returned " + std::to_string(rc));
    }
  } catch (const PluginError &e) {
    failure = e.what();
  } catch (...) {
    failure = path_ + ": " + tools::EntryExceptionText(entry, CurrentExceptionText());
  }
  if (!failure.empty()) {
    finish_ = nullptr;
    dlclose(handle_);
    throw PluginError(failure);
  }
}

Plugin::~Plugin() {
  Finish();
  dlclose(handle_);
}

int Plugin::Validate(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval) const {
  return validate_(tctx, kp, newval);
}

std::string Plugin::Finish() {
  FinishFn finish = std::exchange(finish_, nullptr);
  if (finish == nullptr) return {};
  try {
    if (entering_) entering_(Entry::kLibFinish);
    finish();
  } catch (...) {
    return tools::EntryExceptionText(EntryName(Entry::kLibFinish), CurrentExceptionText());
  }
  return {};
}

std::string CurrentExceptionText() {
  try {
    throw;
  } catch (const std::exception &e) {
    return e.what();
  } catch (...) {
  }
  const std::type_info *type = abi::__cxa_current_exception_type();
  if (type == nullptr) return "unknown exception";
  int status = -1;
  std::unique_ptr<char, void (*)(void *)> name(
      abi::__cxa_demangle(type->name(), nullptr, nullptr, &status), std::free);
  return std::string("exception of type ") + (status == 0 && name ? name.get() : type->name());
}

}  // namespace ipapp::check
