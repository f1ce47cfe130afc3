// What the edit unit and the rest of the host share.
#ifndef IPAPP_HOST_EDIT_INTERNAL_H
#define IPAPP_HOST_EDIT_INTERNAL_H

#include <ipapp/host.h>
#include <libyang/libyang.h>

#include <string>
#include <vector>

#include "schema_index.h"

namespace ipapp::host {

/// The first line libyang names in its messages, or 0.
int LineOf(const std::vector<store::LibyangMessage> &messages);
/// The first line of what the first message says, or fallback.
std::string FirstError(const std::vector<store::LibyangMessage> &messages,
                       const std::string &fallback);

/// The libyang context of a schema loaded by Schema::Load.
const ly_ctx *ContextOf(const Schema &schema);

/// Makes the NETCONF operation attributes known to ctx: libyang attaches its
/// own definition of the annotations to a module named ietf-netconf. Call it
/// before anything keeps pointers into the compiled modules (adding a module
/// recompiles them). Does nothing when ctx already has such a module.
void AddEditAnnotations(ly_ctx *ctx);

/// Throws InputError when a whole configuration carries an edit's operation
/// attributes: taken as data they would silently mean nothing.
void RefuseEditOperations(const DataSource &source, const lyd_node *tree);

}  // namespace ipapp::host

#endif  // IPAPP_HOST_EDIT_INTERNAL_H
