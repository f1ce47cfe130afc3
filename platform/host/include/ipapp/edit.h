// A NETCONF <edit-config> applied to a configuration: what automation sends
// to the element, turned into the candidate a commit would check.
#ifndef IPAPP_HOST_EDIT_H
#define IPAPP_HOST_EDIT_H

#include <ipapp/host.h>

#include <memory>
#include <optional>
#include <string>

namespace ipapp::host {

/// The <default-operation> of an <edit-config>.
enum class DefaultOperation { kMerge, kReplace, kNone };

/// "merge", "replace" or "none"; nullopt for anything else.
std::optional<DefaultOperation> ParseDefaultOperation(const std::string &text);

/// The candidate that the edit makes of running. edit is the content of an
/// <edit-config>'s <config> (XML, top-level elements of the modules, with
/// operation attributes of the NETCONF base namespace: merge, replace,
/// create, delete, remove). Nodes are matched by schema node and, for list
/// entries and leaf-list values, by keys and value; a node that exists only
/// as a default counts as absent. default_operation replace replaces the
/// whole configuration with the edit's.
///
/// Throws InputError: for running, the error the transaction would report;
/// for an edit that cannot be applied, one naming the edit's source and the
/// line of the offending element, the message beginning with the NETCONF
/// error tag ("data-exists: ...", "data-missing: ...", "unknown-element: ...",
/// "bad-attribute: ...", "invalid-value: ...", "malformed-message: ...",
/// "operation-not-supported: ..."); for a result that does not validate, one
/// naming the edit. The candidate's name is the edit's.
DataSource ApplyEdit(const std::shared_ptr<const Schema> &schema, const DataSource &running,
                     const DataSource &edit, DefaultOperation default_operation);

}  // namespace ipapp::host

#endif  // IPAPP_HOST_EDIT_H
