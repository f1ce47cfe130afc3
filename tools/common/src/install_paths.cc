#include "ipapp/tools/install_paths.h"

#include <system_error>

namespace fs = std::filesystem;

namespace ipapp::tools {

fs::path ExecutableDir() {
  std::error_code ec;
  fs::path self = fs::read_symlink("/proc/self/exe", ec);
  return ec ? fs::current_path() : self.parent_path();
}

fs::path FirstExisting(const std::vector<fs::path> &candidates) {
  const fs::path *first = nullptr;
  for (const fs::path &p : candidates) {
    if (p.empty()) continue;
    std::error_code ec;
    if (fs::exists(p, ec)) return p.lexically_normal();
    if (first == nullptr) first = &p;
  }
  return first ? first->lexically_normal() : fs::path();
}

fs::path InstalledLibDir() {
  return ExecutableDir() / IPAPP_TOOLS_BIN_TO_LIB;
}

fs::path InstalledDataDir() {
  return ExecutableDir() / IPAPP_TOOLS_BIN_TO_DATA / "ip_app_validation";
}

fs::path DefaultPlugin() {
  const fs::path lib = InstalledLibDir();
  return FirstExisting({lib / "ip_app_validation" / IPAPP_TOOLS_PLUGIN_NAME,
                        lib / IPAPP_TOOLS_PLUGIN_NAME, IPAPP_TOOLS_BUILD_PLUGIN});
}

fs::path DefaultYangDir() {
  return FirstExisting({InstalledDataDir() / "yang", IPAPP_TOOLS_SOURCE_YANG});
}

}  // namespace ipapp::tools
