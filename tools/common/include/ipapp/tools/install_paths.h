// Where the tools find the plug-in and the element's modules when nothing is
// said: in the install tree the executable lives in, or else where this build
// tree made them.
#ifndef IPAPP_TOOLS_INSTALL_PATHS_H
#define IPAPP_TOOLS_INSTALL_PATHS_H

#include <filesystem>
#include <vector>

namespace ipapp::tools {

/// The directory of the running executable; the current directory when the
/// system does not tell.
std::filesystem::path ExecutableDir();

/// The first candidate that exists, else the first one, so that the error
/// that follows names a sensible place. An empty candidate is never taken,
/// not even as that first one: all of them empty gives an empty path.
std::filesystem::path FirstExisting(const std::vector<std::filesystem::path> &candidates);

/// ${libdir} and ${datadir}/ip_app_validation of the install tree holding
/// the executable: what the project installs there goes below these.
std::filesystem::path InstalledLibDir();
std::filesystem::path InstalledDataDir();

/// The validation plug-in: installed in ${libdir}/ip_app_validation or
/// ${libdir}, else this build tree's.
std::filesystem::path DefaultPlugin();

/// The element's YANG modules: installed in ${datadir}/ip_app_validation/yang,
/// else the source tree's.
std::filesystem::path DefaultYangDir();

}  // namespace ipapp::tools

#endif  // IPAPP_TOOLS_INSTALL_PATHS_H
