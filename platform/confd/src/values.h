// Text forms of ConfD values: parsing by leaf type (path keys, data-tree
// values), printing (confd_pp_value) and the order the store keeps list
// entries in.
#ifndef IPAPP_STORE_VALUES_H
#define IPAPP_STORE_VALUES_H

#include <confd_lib.h>

#include <string>
#include <string_view>

#include "schema_index.h"

namespace ipapp::store {

/// Parses text as a value of type. A C_BUF or C_BINARY result points into
/// *storage, which must outlive it (and is not touched for other types).
/// Returns false with *error saying why.
bool ParseValue(const LeafType &type, std::string_view text, confd_value_t *v, std::string *storage,
                std::string *error);

/// Appends the text form of v; false for a value without one (C_NOEXISTS,
/// unsupported types), leaving out as it was. An enumeration value prints
/// as the name type gives it, as its number when type is null or does not
/// define it: names are never guessed from other leaves' enumerations.
bool FormatValue(const confd_value_t &v, const LeafType *type, std::string *out);

/// Orders two values of one type: numbers numerically, strings and binaries
/// bytewise, addresses by their bytes and then the prefix length.
int CompareValues(const confd_value_t &a, const confd_value_t &b);

/// Name of a value type, for messages ("C_INT32").
const char *VtypeName(int vtype);

}  // namespace ipapp::store

#endif  // IPAPP_STORE_VALUES_H
