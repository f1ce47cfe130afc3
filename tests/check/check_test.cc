// ipapp-check end to end: the bundled examples with the verdicts their table
// documents, the JSON report, which validations a commit runs, bad input and
// plug-in failures.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "run_tool.h"

namespace {

using check_test::Example;
using check_test::RunTool;
using check_test::Slurp;
using check_test::ToolResult;
using check_test::WriteFile;
using nlohmann::json;
using ::testing::HasSubstr;
namespace fs = std::filesystem;

ToolResult Check(const std::string &candidate, std::vector<std::string> more = {},
                 const std::string &fake_mode = "") {
  more.insert(more.begin(), {"--running", Example("running.xml"), "--candidate", candidate});
  return RunTool(more, fake_mode.empty()
                           ? std::vector<std::string>{}
                           : std::vector<std::string>{"IPAPP_FAKE_MODE=" + fake_mode});
}

// --- The examples, as the table of examples/README.md documents them -------

TEST(CheckExamples, GiveTheVerdictsTheirTableDocuments) {
  std::ifstream in(Example("README.md"));
  int rows = 0;
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("| `", 0) != 0) continue;
    // "", file, what it shows, first line, command; all but the third as code.
    std::vector<std::string> cells;
    std::istringstream row(line);
    for (std::string cell; std::getline(row, cell, '|');) cells.push_back(cell);
    ASSERT_EQ(cells.size(), 5u) << line;
    auto code = [&](int i) { return cells[i].substr(2, cells[i].size() - 4); };  // " `x` "
    SCOPED_TRACE(code(1));
    ++rows;
    std::vector<std::string> args;
    std::istringstream words(code(4));
    std::string word;
    words >> word;  // the executable
    while (words >> word) {
      args.push_back(word.rfind("examples/", 0) == 0 ? IPAPP_SOURCE_DIR "/" + word : word);
    }
    ToolResult r = RunTool(args);
    EXPECT_EQ(r.FirstLine(), code(3)) << r.out << r.err;
    EXPECT_EQ(r.status, code(3) == "accepted" ? 0 : 1) << r.err;
  }
  EXPECT_GT(rows, 20);
}

// Only the named members of each object of a list.
json Pick(const json &list, const std::vector<std::string> &members) {
  json picked = json::array();
  for (const json &object : list) {
    json one = json::object();
    for (const std::string &m : members) {
      if (object.contains(m)) one[m] = object[m];
    }
    picked.push_back(one);
  }
  return picked;
}

TEST(CheckExamples, KeepGoingGivesTheWholeOutcomeTheyState) {
  std::ifstream in(Example("expected.json"));
  const json expected = json::parse(in);
  std::set<std::string> stated, candidates;
  for (const auto &[file, outcome] : expected.items()) stated.insert(file);
  for (const auto &entry : fs::directory_iterator(Example(""))) {
    const std::string file = entry.path().filename().string();
    const std::string ext = entry.path().extension().string();
    if ((ext == ".xml" || ext == ".json") && file != "running.xml" && file != "expected.json") {
      candidates.insert(file);
    }
  }
  EXPECT_EQ(stated, candidates);  // every candidate has its outcome stated

  for (const auto &[file, want] : expected.items()) {
    SCOPED_TRACE(file);
    ToolResult r = Check(Example(file), {"--keep-going", "--format", "json"});
    EXPECT_EQ(r.status, want["verdict"] == "accepted" ? 0 : 1) << r.err;
    if (r.status != 0 && r.status != 1) continue;
    const json doc = r.Json();
    EXPECT_EQ(doc["verdict"], want["verdict"]);
    // As indented text, so that a failure shows which refusal differs.
    EXPECT_EQ(Pick(doc["refusals"], {"validation", "keypath", "error"}).dump(1),
              want["refusals"].dump(1));
    EXPECT_EQ(Pick(doc["faults"], {"function", "file", "line", "message"}).dump(1),
              want["faults"].dump(1));
    if (want["faults"].empty()) continue;
    // The text report states each fault once, with how often it was recorded.
    std::vector<std::string> texts;  // in the order first recorded
    std::map<std::string, int> times;
    for (const json &f : want["faults"]) {
      const std::string text =
          f["function"].get<std::string>() + " (" + f["file"].get<std::string>() + ":" +
          std::to_string(f["line"].get<int>()) + "): " + f["message"].get<std::string>();
      if (times[text]++ == 0) texts.push_back(text);
    }
    std::string stated;
    for (const std::string &t : texts) {
      stated += "fault: " + t +
                (times[t] > 1 ? " (recorded " + std::to_string(times[t]) + " times)" : "") + "\n";
    }
    const ToolResult text = Check(Example(file), {"--keep-going"});
    std::string lines;
    std::istringstream out(text.out);
    for (std::string line; std::getline(out, line);) {
      if (line.rfind("fault: ", 0) == 0) lines += line + "\n";
    }
    EXPECT_EQ(lines, stated);
  }
}

// The element names interfaces core3, core30, core31: a commit that changes
// one of them is refused for that one.
TEST(CheckReport, KeysThatBeginOtherKeysNameTheirOwnEntry) {
  struct Intf {
    std::string name;
    int vlan;
    std::string address;
  };
  const std::vector<Intf> intfs = {{"core3", 300, "10.3.0.1/24"},
                                   {"core30", 330, "10.30.0.1/24"},
                                   {"core31", 331, "10.31.0.1/24"}};
  // Every interface in the LDP table, one with its VLAN changed.
  auto config = [&](const std::string &changed) {
    std::string l3, ldp;
    for (const Intf &i : intfs) {
      const std::string vlan = std::to_string(i.name == changed ? 400 : i.vlan);
      l3 += "<l3 xmlns=\"urn:ipapp:ipapp\"><name>" + i.name + "</name><ipv4><address><ip>" +
            i.address + "</ip></address></ipv4><lower-layer-if><vlan>" + vlan +
            "</vlan></lower-layer-if></l3>";
      ldp += "<int-ldp-intf-l3><if-name>l3-" + i.name + "</if-name><lower-layer>l3-vlan" +
             "</lower-layer><vlan>" + std::to_string(i.vlan) + "</vlan><address>" + i.address +
             "</address></int-ldp-intf-l3>";
    }
    return "<config xmlns=\"urn:ipapp:shellcfg\"><interface>" + l3 +
           "</interface></config><internal xmlns=\"urn:ipapp:shellcfg-internal\">" + ldp +
           "</internal>\n";
  };
  const std::string running = WriteFile("running.xml", config(""));
  for (const Intf &i : intfs) {
    SCOPED_TRACE(i.name);
    const std::string candidate = WriteFile("candidate.xml", config(i.name));
    ToolResult r = RunTool({"--running", running, "--candidate", candidate});
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_EQ(r.out, "refused: Cannot be modified because lower-layer-if with VLAN-Id " +
                         std::to_string(i.vlan) +
                         " is assigned to a MPLS LDP interface\n"
                         "  validation: lower_layer_prot_cross_validation\n"
                         "  keypath: /config/interface/ipapp:l3{" +
                         i.name + "}\n");
  }
}

// --- Reports -----------------------------------------------------------------

TEST(CheckReport, KeepGoingRunsPastTheRefusals) {
  // Which ones they are is stated in examples/expected.json.
  ToolResult r = Check(Example("several-faults.xml"), {"--keep-going", "--format", "json"});
  ASSERT_EQ(r.status, 1) << r.err;
  json doc = r.Json();
  EXPECT_EQ(doc["refusals"].size(), 3u);
  EXPECT_GT(doc["invocations"].size(), 3u);
  for (const json &inv : doc["invocations"]) EXPECT_TRUE(inv["result"].is_number_integer());
}

TEST(CheckReport, JsonCarriesFaultsAndTrace) {
  ToolResult r = Check(Example("accept-zero-mgmt-address.xml"), {"--trace", "--format", "json"});
  ASSERT_EQ(r.status, 0) << r.err;
  const json doc = r.Json();
  ASSERT_FALSE(doc["faults"].empty());
  const json fault = {{"function", "ReadConfig"},
                      {"file", "src/lib/config"},
                      {"line", 452},
                      {"message", "Unspecified IPv4 address for key '0'"}};
  for (const json &f : doc["faults"]) EXPECT_EQ(f, fault);
  std::vector<std::string> paths;
  for (const json &inv : doc["invocations"]) {
    for (const json &e : inv["trace"]) paths.push_back(e["path"]);
  }
  EXPECT_THAT(paths, ::testing::Contains("/config/interface/ipapp:mgmt{0}/ipv4/address/ip"));
}

// What the element would leak is shown per validation: an empty XPath
// result the VRF handler never frees, a cursor left undestroyed.
TEST(CheckReport, WhatAValidationLeavesOpenIsReported) {
  ToolResult text = Check(Example("accept-vrf-reuse.xml"));
  ASSERT_EQ(text.status, 0) << text.err;
  EXPECT_THAT(text.out,
              HasSubstr("\nwarning: intf_vrf_validation /config/interface/ipapp:l3 left open: "
                        "XPath result of maapi_xpath_eval_expr "
                        "ospf-interface-l3[ospf-pm-if-name='l3-green-1']/ospf-pm-if-name in "
                        "/internal; XPath result of maapi_xpath_eval_expr "
                        "ospfv3-interface-l3[ospfv3-pm-if-name='l3-green-1']/ospfv3-pm-if-name in "
                        "/internal\n"));
  const json doc = Check(Example("accept-vrf-reuse.xml"), {"--format", "json"}).Json();
  int leaks = 0;
  for (const json &inv : doc["invocations"]) {
    ASSERT_TRUE(inv["leaks"].is_array());
    for (const json &leak : inv["leaks"]) {
      EXPECT_EQ(inv["validation"], "intf_vrf_validation");
      EXPECT_EQ(leak["kind"], "XPath result");
      ++leaks;
    }
  }
  EXPECT_EQ(leaks, 2);

  // Each callback is charged with its own: one cursor per invocation.
  const std::string running = WriteFile("running.xml", "");
  const std::string candidate = WriteFile(
      "candidate.xml",
      R"(<config xmlns="urn:ipapp:shellcfg"><interface><l3 xmlns="urn:ipapp:ipapp"><name>a</name>)"
      "</l3></interface></config>");
  ToolResult r = RunTool({"--running", running, "--candidate", candidate, "--plugin",
                          IPAPP_FAKE_PLUGIN, "--format", "json"},
                         {"IPAPP_FAKE_MODE=leak"});
  ASSERT_EQ(r.status, 0) << r.err;
  const json fake = r.Json();
  ASSERT_GT(fake["invocations"].size(), 1u);
  for (const json &inv : fake["invocations"]) {
    EXPECT_EQ(inv["leaks"], json::parse(R"([{"kind": "cursor", "call": "maapi_init_cursor",
                                              "path": "/config/interface/ipapp:l3"}])"));
  }
}

// --- Which validations a commit runs (fake plug-in, no rules) ---------------

std::string Config(const std::string &mgmt_address, const std::string &ldp_address) {
  return R"(<config xmlns="urn:ipapp:shellcfg"><interface>
  <l3 xmlns="urn:ipapp:ipapp"><name>a</name><lower-layer-if><vlan>10</vlan></lower-layer-if></l3>
  <l3 xmlns="urn:ipapp:ipapp"><name>b</name></l3>
  <mgmt xmlns="urn:ipapp:ipapp"><name>0</name><ipv4><address><ip>)" +
         mgmt_address + R"(</ip></address></ipv4></mgmt></interface></config>
<internal xmlns="urn:ipapp:shellcfg-internal"><int-ldp-intf-l3><if-name>l3-a</if-name>
  <lower-layer>l3-vlan</lower-layer><vlan>10</vlan><address>)" +
         ldp_address + "</address></int-ldp-intf-l3></internal>\n";
}

TEST(CommitPlan, RunsBoundPointsOfChangedNodesAndTheirDependents) {
  const std::string l3 = " /config/interface/ipapp:l3";
  const std::vector<std::string> l3_points = {"intf_l3_name_validation" + l3,
                                              "ipv4_addr_validation" + l3,
                                              "ipv6_addr_validation" + l3,
                                              "ipv4_addr_prot_cross_validation" + l3,
                                              "intf_vrf_validation" + l3,
                                              "static_route_l3_intf_validation" + l3,
                                              "lower_layer_prot_cross_validation" + l3 + "{a}",
                                              "lower_layer_prot_cross_validation" + l3 + "{b}"};
  auto after_l3 = [&](std::vector<std::string> tail) {
    tail.insert(tail.begin(), l3_points.begin(), l3_points.end());
    return tail;
  };
  const std::string lo = " /config/interface/ipapp:loopback";
  const std::string route = " /QX-RTM-MIB/rtmStaticRtTable/rtmStaticRtEntry";
  struct Case {
    const char *name;
    std::string candidate;
    std::vector<std::string> expected;  // "validation keypath"
  };
  const std::vector<Case> cases = {
      {"nothing changed", Config("192.168.1.1/24", "10.0.0.1/24"), {}},
      // The management list triggers l3 and loopback, itself, and the routes.
      {"mgmt address", Config("192.168.1.2/24", "10.0.0.1/24"),
       after_l3({"ipv4_addr_validation" + lo, "ipv6_addr_validation" + lo,
                 "ipv4_addr_prot_cross_validation" + lo, "intf_vrf_validation" + lo,
                 "ipv4_addr_validation /config/interface/ipapp:mgmt",
                 "ipv6_addr_validation /config/interface/ipapp:mgmt",
                 "ipv4_addr_route_validation" + route, "ipv6_addr_route_validation" + route})},
      // The LDP table triggers l3 and itself only.
      {"ldp table", Config("192.168.1.1/24", "10.0.0.2/24"),
       after_l3({"ldp_interface_validation /internal/int-ldp-intf-l3"})},
  };
  const std::string running = WriteFile("running.xml", Config("192.168.1.1/24", "10.0.0.1/24"));
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    const std::string candidate = WriteFile("candidate.xml", c.candidate);
    ToolResult r = RunTool({"--running", running, "--candidate", candidate, "--plugin",
                            IPAPP_FAKE_PLUGIN, "--format", "json"});
    ASSERT_EQ(r.status, 0) << r.err;
    std::vector<std::string> ran;
    const json doc = r.Json();
    for (const json &inv : doc["invocations"]) {
      ran.push_back(inv["validation"].get<std::string>() + " " + inv["keypath"].get<std::string>());
    }
    EXPECT_EQ(ran, c.expected);
  }
  // Without --keep-going the first refusal ends the commit.
  ToolResult refused = Check(Example("vrf-ospf.xml"), {"--plugin", IPAPP_FAKE_PLUGIN}, "refuse");
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.out,
            "refused: intf_l3_name_validation refused\n"
            "  validation: intf_l3_name_validation\n"
            "  keypath: /config/interface/ipapp:l3\n");
}

// --- Bad input and plug-in failures -----------------------------------------

TEST(CheckInput, BadFilesAreNamedAndExitTwo) {
  // Each fault stands on line 3 of its file.
  const std::string head =
      "<config xmlns=\"urn:ipapp:shellcfg\"><interface>\n<l3 xmlns=\"urn:ipapp:ipapp\">\n";
  const std::string tail = "</l3></interface></config>\n";
  const std::vector<std::pair<std::string, std::string>> cases = {
      // file, text
      {"broken.xml", head + "<name>a</nam>"},
      {"unknown.xml", head + "<name>a</name><speed>10</speed>" + tail},
      {"address.xml",
       head + "<name>a</name><ipv4><address><ip>10.1.1.300/24</ip></address></ipv4>" + tail},
      {"broken.json", R"({"shellcfg:config": {)"},
      {"truncated.json", R"({"shellcfg:config": )"},
      {"config.txt", "<config/>"},
      {"missing.xml", ""}};
  for (const auto &[file, text] : cases) {
    SCOPED_TRACE(file);
    const std::string path = text.empty() ? "/nonexistent/" + file : WriteFile(file, text).string();
    const std::string expected = file.rfind(".xml") != std::string::npos && !text.empty()
                                     ? file + ":3:"  // the line, where the parser knows it
                                     : file;
    ToolResult as_candidate = RunTool({"--candidate", path, "--plugin", IPAPP_FAKE_PLUGIN});
    EXPECT_EQ(as_candidate.status, 2);
    EXPECT_THAT(as_candidate.err, HasSubstr(expected));
    EXPECT_EQ(as_candidate.out, "");
    ToolResult as_running = RunTool({"--running", path, "--candidate", Example("running.xml")});
    EXPECT_EQ(as_running.status, 2);
    EXPECT_THAT(as_running.err, HasSubstr(expected));
  }
}

TEST(CheckInput, BadUsageExitsTwo) {
  for (const auto &args : std::vector<std::vector<std::string>>{
           {}, {"--candidate", Example("running.xml"), "--format", "yaml"}, {"--no-such-flag"}}) {
    SCOPED_TRACE(::testing::PrintToString(args));
    EXPECT_EQ(RunTool(args).status, 2);
  }
}

TEST(CheckPlugin, UnusablePluginExitsThree) {
  struct Case {
    std::string plugin, mode, message;
  };
  for (const Case &c : std::vector<Case>{
           {"/nonexistent/libip_app_validation.so", "", "/nonexistent/libip_app_validation.so"},
           {IPAPP_FAKE_PLUGIN, "wrong-point", "\"other_point\""},
           {IPAPP_FAKE_PLUGIN, "abort", "the plug-in aborted in intf_l3_name_validation"}}) {
    SCOPED_TRACE(c.message);
    ToolResult r = Check(Example("vrf-ospf.xml"), {"--plugin", c.plugin}, c.mode);
    EXPECT_EQ(r.status, 3);
    EXPECT_THAT(r.err, HasSubstr(c.message));
  }
  // An exception leaving validate ends the commit even with --keep-going.
  ToolResult r =
      Check(Example("vrf-ospf.xml"), {"--plugin", IPAPP_FAKE_PLUGIN, "--keep-going"}, "throw");
  EXPECT_EQ(r.status, 3);
  EXPECT_EQ(r.FirstLine(), "plug-in failure: fake failure in intf_l3_name_validation");
  EXPECT_THAT(r.err, HasSubstr("fake failure in intf_l3_name_validation"));
}

}  // namespace
