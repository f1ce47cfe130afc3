// Names and number of L3 interfaces: "/config/interface/ipapp:l3".
// Every call re-checks the whole list; keypath and new value are not used.
#include <confd_lib.h>
#include <confd_maapi.h>

#include <cstring>
#include <string>

#include "confd_assert.h"
#include "ip_app_validation.h"
#include "maapi_cursor_guard.h"
#include "maapi_read.h"
#include "store_paths.h"

namespace {

using ip_application::store_paths::kL3List;
constexpr int kMaxL3Interfaces = 256;
constexpr std::string::size_type kMaxNameLen = 60;
constexpr std::string::size_type kMinNameLen = 1;
constexpr char kAllowedChars[] = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ-_";

// The refusal text for one name, or "" when the name is acceptable. Length
// is judged before the characters.
std::string CheckName(const std::string &name) {
  if (name.size() > kMaxNameLen) {
    return "L3 interface name " + name +
           " is too long (maximum length: " + std::to_string(static_cast<int>(kMaxNameLen)) +
           " characters)";
  }
  if (name.size() < kMinNameLen) {
    // Two blanks after "name" for the empty name: the text is kept as is.
    return "L3 interface name " + name +
           " is too short (minimum length: " + std::to_string(static_cast<int>(kMinNameLen)) +
           " character)";
  }
  if (name.find_first_not_of(kAllowedChars) != std::string::npos) {
    return "L3 interface name " + name +
           " contains invalid characters (allowed characters: 0-9, a-z, A-Z, _, -)";
  }
  return std::string();
}

}  // namespace

int validate_intf_l3_name(int32_t sock, confd_trans_ctx *tctx, confd_hkeypath_t * /*kp*/,
                          confd_value_t * /*newval*/) {
  // A failed count (-1) passes this step; the cursor below then finds what
  // it finds.
  const int count = maapi_num_instances(sock, tctx->thandle, "%s", kL3List);
  if (count > kMaxL3Interfaces) {
    const std::string text = "too many 'interface l3', " + std::to_string(count) +
                             " configured, at most " + std::to_string(kMaxL3Interfaces) +
                             " must be configured";
    confd_trans_seterr(tctx, "%s", text.c_str());
    return CONFD_ERR;
  }

  struct maapi_cursor cursor = {};
  maapi_init_cursor(sock, tctx->thandle, &cursor, "%s", kL3List);
  MaapiCursorGuard guard(&cursor);  // destroyed after any error text is set
  maapi_get_next(&cursor);
  while (cursor.n != 0) {
    ASSERT_CONFD_TYPE(&cursor.keys[0], C_BUF);
    // The text up to its first NUL; the stated size only bounds the scan.
    const std::string name = ip_application::config_valid::BufText(cursor.keys[0]);
    const std::string text = CheckName(name);
    if (!text.empty()) {
      confd_trans_seterr(tctx, "%s", text.c_str());
      return CONFD_ERR;
    }
    maapi_get_next(&cursor);
  }
  return CONFD_OK;
}
