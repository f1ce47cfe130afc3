// Text forms of ConfD values: parsing by leaf type (path keys, data-tree
// values), printing (paths, traces, confd_pp_value) and the order the store
// keeps list entries in.
#ifndef IPAPP_STORE_VALUES_H
#define IPAPP_STORE_VALUES_H

#include <confd_lib.h>

#include <array>
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

/// Everything the store knows of one value type. ParseValue, FormatValue,
/// PrettyValue and CompareValues dispatch through these rows; a new type is
/// one more row in values.cc.
struct ValueType {
  int vtype;
  const char *name;   ///< "C_INT32"; "C_?" for numbers the enumeration skips
  bool holds_buffer;  ///< val.buf points at bytes (that a copy must copy)
  /// ParseValue for a leaf of this type (a union's row tries its members).
  /// Types without a text form parse as strings.
  bool (*parse)(const LeafType &type, std::string_view text, confd_value_t *v, std::string *storage,
                std::string *error);
  /// FormatValue with type resolved to the union member (may be null).
  bool (*format)(const confd_value_t &v, const LeafType *type, std::string *out);
  void (*pretty)(const confd_value_t &v, std::string *out);
  /// CompareValues for two values of this type; 0 for types without order.
  int (*compare)(const confd_value_t &a, const confd_value_t &b);
};

/// Indexed by vtype; row 0 stands for every number outside the enumeration.
extern const std::array<ValueType, C_MAXTYPE> kValueTypes;

inline const ValueType &TypeOf(int vtype) {
  return kValueTypes[vtype > 0 && vtype < C_MAXTYPE ? vtype : 0];
}

/// Whether v's val.buf holds bytes (C_BUF, C_BINARY, C_HEXSTR, C_BITBIG).
inline bool HoldsBuffer(const confd_value_t &v) {
  return TypeOf(v.type).holds_buffer;
}

/// ParseValue for a value that must outlive text's parse: a string value
/// points at text itself (which must live as long as the value), other
/// bytes (binary, bits) are parsed into *scratch and handed to
/// keep(std::string_view), which answers the copy the value points at.
template <typename Keep>
bool ParseKeptValue(const LeafType &type, std::string_view text, confd_value_t *v,
                    std::string *scratch, std::string *error, Keep keep) {
  if (type.vtype == C_BUF) {
    CONFD_SET_BUF(v, text.data(), text.size());
    return true;
  }
  if (!ParseValue(type, text, v, scratch, error)) return false;
  if (HoldsBuffer(*v)) {
    const std::string_view kept = keep(std::string_view(*scratch));
    v->val.buf.ptr = reinterpret_cast<unsigned char *>(const_cast<char *>(kept.data()));
    v->val.buf.size = static_cast<unsigned int>(kept.size());
  }
  return true;
}

}  // namespace ipapp::store

#endif  // IPAPP_STORE_VALUES_H
