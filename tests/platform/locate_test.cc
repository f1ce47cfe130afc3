// The line of the node a libyang data path names in the text it was parsed
// from: what a data file error that comes without a line is reported with.
#include <gtest/gtest.h>

#include <string>

#include "locate.h"

namespace ipapp::host {
namespace {

struct Case {
  const char *what;
  bool json;
  std::string text;
  std::string path;
  int line;
};

TEST(LocateTest, LineOfThePathInXmlAndJson) {
  const std::string xml =
      "<?xml version=\"1.0\"?>\n"                     // 1
      "<!-- <l3><name>x</name></l3> -->\n"            // 2
      "<config xmlns=\"urn:a\"><interface>\n"         // 3
      "  <l3 xmlns=\"urn:b\"><name>a&amp;b</name>\n"  // 4
      "    <vrf>red</vrf></l3>\n"                     // 5
      "  <l3><name><![CDATA[<c>]]></name>\n"          // 6
      "    <vlan>007</vlan>\n"                        // 7
      "    <tag>x</tag>\n"                            // 8
      "    <tag>&#x79;</tag></l3>\n"                  // 9
      "  <l3 a='>'><name>D</name></l3>\n"             // 10
      "</interface></config>\n";
  const std::string json =
      "{\"m:config\": {\"interface\": {\n"                  // 1
      "  \"b:l3\": [\n"                                     // 2
      "    {\"name\": \"a\\u0026b\", \"vrf\": \"red\"},\n"  // 3
      "    {\"name\": \"\\\"q\\\"\",\n"                     // 4
      "     \"vlan\": 7,\n"                                 // 5
      "     \"empty\": [null],\n"                           // 6
      "     \"deep\": [[[{\"l3\": {}}]]],\n"                // 7
      "     \"tag\": [\"x\",\n"                             // 8
      "             \"y\"]}\n"                              // 9
      "  ]}}}\n";
  const Case cases[] = {
      {"entity in a key", false, xml, "/m:config/interface/b:l3[name='a&b']/vrf", 5},
      {"CDATA key", false, xml, "/m:config/interface/l3[name='<c>']", 6},
      {"leading zeros", false, xml, "/m:config/interface/l3[vlan='7']/vlan", 7},
      {"leaf-list value by character reference", false, xml,
       "/m:config/interface/l3[name='<c>']/tag[.='y']", 9},
      {"position", false, xml, "/m:config/interface/l3[3]", 10},
      {"position counts entries of the name only", false, xml, "/m:config/interface/l3[2]/tag[2]",
       9},
      {"case of a key", false, xml, "/m:config/interface/l3[name='d']", 10},
      {"comments are not data", false, xml, "/m:config/interface/l3[name='x']", 3},
      {"deepest step found", false, xml, "/m:config/interface/l3[name='a&b']/nosuch", 4},
      {"nothing found", false, xml, "/other", 0},
      {"\\u escape in a key", true, json, "/m:config/interface/l3[name='a&b']/vrf", 3},
      {"escaped quotes", true, json, "/m:config/interface/l3[name='\"q\"']", 4},
      {"number with a written key", true, json, "/m:config/interface/l3[vlan='7']", 4},
      {"leaf-list entry", true, json, "/m:config/interface/l3[2]/tag[.='y']", 9},
      {"nested arrays are skipped whole", true, json, "/m:config/interface/l3[2]/tag[1]", 8},
      {"position past the entries", true, json, "/m:config/interface/l3[3]", 1},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(LineOfPath(c.text, c.json, c.path), c.line) << c.path;
  }
}

TEST(LocateTest, MalformedTextsEndTheSearchWithoutHarm) {
  const std::string deep(100000, '[');
  EXPECT_EQ(LineOfPath("{\"a\": " + deep, true, "/a"), 1);
  EXPECT_EQ(LineOfPath("{\"a\": {\"b\": \"\\u12", true, "/a/b"), 1);
  EXPECT_EQ(LineOfPath("<a><b>&#xZZ;&unknown;</b", false, "/a/b[.='&unknown;']"), 1);
  EXPECT_EQ(LineOfPath("<a><![CDATA[ never closed", false, "/a"), 1);
}

}  // namespace
}  // namespace ipapp::host
