#ifndef IPAPP_TOOLS_MODULE_NAMES_H
#define IPAPP_TOOLS_MODULE_NAMES_H

#include <filesystem>
#include <string>
#include <vector>

namespace ipapp::tools {

/// The names of the modules in dir, as its files NAME.yang and
/// NAME@REVISION.yang name them: sorted, each once however many revisions
/// the directory holds. Empty when dir holds none or cannot be read.
std::vector<std::string> ModuleNames(const std::filesystem::path &dir);

}  // namespace ipapp::tools

#endif  // IPAPP_TOOLS_MODULE_NAMES_H
