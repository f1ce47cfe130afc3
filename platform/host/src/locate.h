// The line of a data node in the text it was parsed from. libyang names the
// line of what it refuses while parsing, but a failure found by validation
// afterwards (a must or unique condition, a missing mandatory leaf) only
// comes with the node's data path.
#ifndef IPAPP_HOST_LOCATE_H
#define IPAPP_HOST_LOCATE_H

#include <string>

namespace ipapp::host {

/// The 1-based line of the node that path (libyang's data path syntax:
/// module prefixes, key predicates [k='v'], [.='v'], positions [N]) names in
/// text, XML or JSON, well-formed; of the deepest node found on the way when
/// the rest cannot be told; 0 when not even the first step is found. Key
/// values are compared as libyang prints them and as written (case and
/// leading zeros aside).
int LineOfPath(const std::string &text, bool json, const std::string &path);

}  // namespace ipapp::host

#endif  // IPAPP_HOST_LOCATE_H
