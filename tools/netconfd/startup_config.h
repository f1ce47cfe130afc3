// The running configuration netconfd starts from: a file in netconfd's own
// format, its top-level data wrapped in a NETCONF <config> element, which
// netconfd loads at start-up and writes again after every commit.
#ifndef IPAPP_NETCONFD_STARTUP_CONFIG_H
#define IPAPP_NETCONFD_STARTUP_CONFIG_H

#include <string>

namespace ipapp::netconfd {

/// The configuration file (XML or JSON, by extension, as ipapp-check reads
/// it) as netconfd's start-up text, after checking it against the modules
/// in yang_dir. Throws host::InputError naming the file and, where known,
/// the line.
std::string StartupConfig(const std::string &file, const std::string &yang_dir);

/// The start-up text of an empty configuration.
std::string EmptyStartupConfig();

/// Whether text is one whole XML document. A start-up file that netconfd's
/// save left cut short never is: its root element is not closed.
bool IsWholeXml(const std::string &text);

}  // namespace ipapp::netconfd

#endif  // IPAPP_NETCONFD_STARTUP_CONFIG_H
