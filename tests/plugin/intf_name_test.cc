// "intf_l3_name_validation" on the l3 list.
#include "plugin_test.h"

namespace plugin_test {
namespace {

using IntfNameTest = PluginTest;

TEST_F(IntfNameTest, NamesAndNumber) {
  const std::string bad = " contains invalid characters (allowed characters: 0-9, a-z, A-Z, _, -)";
  const std::string long61 = std::string(60, 'a') + ".";
  std::string l3_256, l3_257;
  for (int i = 0; i < 256; ++i) l3_256 += L3("if" + std::to_string(i));
  l3_257 = l3_256 + L3("if256");
  RunCases("intf_l3_name_validation",
           {
               {"every allowed character",
                Interfaces(L3("0123456789abcdefghijklmnopqrstuvwxyz") +
                           L3("ABCDEFGHIJKLMNOPQRSTUVWXYZ-_")),
                kL3Path, ""},
               {"60 characters", Interfaces(L3(std::string(60, 'a'))), kL3Path, ""},
               {"61, length first", Interfaces(L3(long61)), kL3Path,
                "L3 interface name " + long61 + " is too long (maximum length: 60 characters)"},
               {"empty", Interfaces(L3("")), kL3Path,
                "L3 interface name  is too short (minimum length: 1 character)"},
               {"dot", Interfaces(L3("eth.1")), kL3Path, "L3 interface name eth.1" + bad},
               {"blank", Interfaces(L3("a b")), kL3Path, "L3 interface name a b" + bad},
               {"non-ASCII", Interfaces(L3("caf\xc3\xa9")), kL3Path,
                "L3 interface name caf\xc3\xa9" + bad},
               // The store keeps the list sorted, whatever the order written.
               {"first in store order", Interfaces(L3("c.d") + L3("ok") + L3("a.b")), kL3Path,
                "L3 interface name a.b" + bad},
               {"no interfaces", Interfaces(""), kL3Path, ""},
               {"256 interfaces", Interfaces(l3_256), kL3Path, ""},
               {"257 interfaces", Interfaces(l3_257), kL3Path,
                "too many 'interface l3', 257 configured, at most 256 must be configured"},
           });
}

}  // namespace
}  // namespace plugin_test
