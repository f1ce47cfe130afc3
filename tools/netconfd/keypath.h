// ConfD keypaths as the store prints them (confd_pp_kpath), read back into
// their steps so that a server can name the same node in its own syntax.
#ifndef IPAPP_NETCONFD_KEYPATH_H
#define IPAPP_NETCONFD_KEYPATH_H

#include <string>
#include <vector>

namespace ipapp::netconfd {

/// One step of a keypath: [prefix:]name, then for a list entry its keys in
/// braces, blank-separated, "quoted" (with \" and \\) where a key holds a
/// blank, a brace, a quote or a backslash, or is empty.
struct KeypathStep {
  std::string name;  ///< without its prefix
  bool entry = false;
  std::vector<std::string> keys;  ///< unquoted
};

/// The steps of keypath, or none when it is not one.
std::vector<KeypathStep> ParseKeypath(const std::string &keypath);

/// value as an XPath string literal.
std::string XPathLiteral(const std::string &value);

}  // namespace ipapp::netconfd

#endif  // IPAPP_NETCONFD_KEYPATH_H
