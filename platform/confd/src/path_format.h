// How a path was formatted from a printf-style format, kept so that the
// next call with the same format can tell what changed without printing
// and parsing the whole path again.
#ifndef IPAPP_STORE_PATH_FORMAT_H
#define IPAPP_STORE_PATH_FORMAT_H

#include <cstdint>
#include <string>

namespace ipapp::store {

/// A format of %s, %d, %i, %u and %% only, its arguments, and where each
/// argument's text stands in the path it made. Formats and "%s" texts are
/// kept as copies (each followed by a NUL) and compared by content: the
/// caller's pointers may be reused for other texts.
struct PathFormat {
  static constexpr int kMaxArgs = 8;
  struct Arg {
    char kind = 0;         ///< 's', 'd' (%d and %i) or 'u'
    int64_t number = 0;    ///< 'd' and 'u'
    uint32_t str_at = 0;   ///< 's': its text in strs
    uint32_t str_len = 0;  ///< 's'
    uint32_t at = 0;       ///< offset of the argument's text in the path
    uint32_t len = 0;
    /// 'd' and 'u': the path element whose "[N]" index the number is, all
    /// of it, with no keys in the elements after it, once a changed number
    /// has been applied there; -1 until then. A number of as many digits
    /// as the last one then only replaces the digits and the index.
    int index_elem = -1;
  };
  /// The path text beside this holds what the format made, and it parsed.
  bool valid = false;
  std::string fmt;
  std::string strs;
  Arg args[kMaxArgs];
  int nargs = 0;
};

}  // namespace ipapp::store

#endif  // IPAPP_STORE_PATH_FORMAT_H
