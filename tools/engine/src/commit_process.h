// The commit process of an isolated commit: the child that loads the plug-in,
// runs the commit and reports it, message by message, on the report pipe.
#ifndef IPAPP_CHECK_COMMIT_PROCESS_H
#define IPAPP_CHECK_COMMIT_PROCESS_H

#include <functional>
#include <string>

#include "ipapp/check_engine.h"
#include "journal.h"

namespace ipapp::check::isolation {

/// Hands the commit's schema and transaction to a function.
using Commit = std::function<void(const host::Schema &, host::Transaction &)>;
using WithInput = std::function<void(const Commit &)>;

/// The exit status of a commit process whose report could not be written
/// (the caller has gone).
inline constexpr int kChildLost = 125;

/// Runs in the child right after fork: reports the commit of with_input's
/// schema and transaction through the plug-in at plugin_path in journal
/// and on fd, then ends the process. options' callbacks are replaced by the
/// report's.
[[noreturn]] void RunChild(int fd, Journal *journal, const std::string &plugin_path,
                           const WithInput &with_input, Options options);

}  // namespace ipapp::check::isolation

#endif  // IPAPP_CHECK_COMMIT_PROCESS_H
