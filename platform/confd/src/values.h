// Text forms of ConfD values: parsing by leaf type (path keys, data-tree
// values), printing (paths, traces, confd_pp_value) and the order the store
// keeps list entries in.
#ifndef IPAPP_STORE_VALUES_H
#define IPAPP_STORE_VALUES_H

#include <confd_lib.h>

#include <string>
#include <string_view>

#include "schema_index.h"

namespace ipapp::store {

/// Parses text as a value of type; a union takes the first member type the
/// text parses as. A C_BUF, C_BINARY, C_HEXSTR or C_BITBIG result points
/// into *storage, which must outlive it (and is not touched for other
/// types). Returns false with *error saying why.
bool ParseValue(const LeafType &type, std::string_view text, confd_value_t *v, std::string *storage,
                std::string *error);

/// Appends the text form of v as type writes it (data files, path keys);
/// false for a value without one (C_NOEXISTS, C_LIST, pointers), leaving
/// out as it was. Without a type (null) an enumeration prints as its number,
/// a C_BINARY as colon-separated hex and bits as their mask: the path
/// parser reads all three back.
bool FormatValue(const confd_value_t &v, const LeafType *type, std::string *out);

/// Appends v as confd_pp_value prints it: no schema, every type has a text
/// (confd_lib_lib(3)).
void PrettyValue(const confd_value_t &v, std::string *out);

/// Orders two values of one type: numbers numerically, strings and binaries
/// bytewise, addresses by their bytes and then the prefix length.
int CompareValues(const confd_value_t &a, const confd_value_t &b);

/// Name of a value type, for messages ("C_INT32").
const char *VtypeName(int vtype);

}  // namespace ipapp::store

#endif  // IPAPP_STORE_VALUES_H
