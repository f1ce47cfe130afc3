// The configuration of the last commit, kept where a save cut short cannot
// reach it.
//
// netconfd saves the running configuration after each commit by writing its
// start-up file (DIR/running.xml) over in place: a server stopped in the
// middle of that (the launcher killed, the machine losing power) leaves the
// file cut short, and netconfd refuses to start from it. So the server's
// library also writes every commit, before netconfd saves it and answers,
// to a file of its own that is only ever replaced whole, and the launcher
// starts from that file when running.xml is not whole.
#ifndef IPAPP_NETCONFD_COMMITTED_CONFIG_H
#define IPAPP_NETCONFD_COMMITTED_CONFIG_H

#include <filesystem>
#include <string>

namespace ipapp::netconfd {

/// The file in DIR that holds the configuration of the last commit.
inline constexpr const char *kCommittedFile = "committed.xml";

/// A start-up file's text: data (top-level elements, each with its
/// namespace) in a NETCONF <config> element, as netconfd loads it.
std::string StartupText(const std::string &data);

/// Replaces file by one holding text (mode 0600) so that, whenever the
/// process or the machine stops, file holds either its old text or the new
/// one, whole and on disk: the text goes to a new file beside it (file's
/// name and ".new"; whatever stood there is removed, never followed), is
/// flushed to disk and renamed over file, and the directory is flushed too.
/// Throws std::system_error saying which step failed on which path.
void ReplaceWhole(const std::filesystem::path &file, const std::string &text);

}  // namespace ipapp::netconfd

#endif  // IPAPP_NETCONFD_COMMITTED_CONFIG_H
