#include "ipapp/tools/module_names.h"

#include <algorithm>
#include <system_error>

namespace fs = std::filesystem;

namespace ipapp::tools {

std::vector<std::string> ModuleNames(const fs::path &dir) {
  std::vector<std::string> names;
  std::error_code ec;
  for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
    if (it->path().extension() != ".yang") continue;
    const std::string stem = it->path().stem().string();
    names.push_back(stem.substr(0, stem.find('@')));
  }
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
  return names;
}

}  // namespace ipapp::tools
