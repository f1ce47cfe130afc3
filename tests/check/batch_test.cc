// ipapp-check --edit and --batch end to end: an edit gives the verdict of
// the same change given whole, and a batch gives every element the report
// its single run gives, in each output format, whatever its neighbours do.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "run_tool.h"

namespace check_test {
namespace {

using nlohmann::json;
using ::testing::HasSubstr;

const char *const kNc = "xmlns:nc=\"urn:ietf:params:xml:ns:netconf:base:1.0\"";

std::string InterfacesEdit(const std::string &body) {
  return std::string("<config xmlns=\"urn:ipapp:shellcfg\" ") + kNc + "><interface>" + body +
         "</interface></config>\n";
}

std::vector<std::string> Lines(const std::string &text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

TEST(CheckEdit, GivesTheVerdictOfTheSameChangeAsAWholeCandidate) {
  struct Case {
    const char *example;  // the same change as a whole candidate
    std::string edit;
    const char *default_operation;
  };
  const std::string core2_in_red =
      "<name>core2</name><ipv4><address><ip>10.1.2.1/24</ip></address></ipv4>"
      "<lower-layer-if><vlan>200</vlan></lower-layer-if><vrf>red</vrf>";
  const Case cases[] = {
      {"vrf-ospf.xml",
       InterfacesEdit("<l3 xmlns=\"urn:ipapp:ipapp\"><name>core2</name><vrf>red</vrf></l3>"),
       "merge"},
      {"vrf-ospf.xml",
       InterfacesEdit("<l3 xmlns=\"urn:ipapp:ipapp\" nc:operation=\"replace\">" + core2_in_red +
                      "</l3>"),
       "none"},
      {"lower-layer-removed.xml",
       InterfacesEdit("<l3 xmlns=\"urn:ipapp:ipapp\"><name>uplink</name>"
                      "<lower-layer-if nc:operation=\"delete\"/></l3>"),
       "merge"},
      {"ldp-secondary.xml",
       InterfacesEdit("<l3 xmlns=\"urn:ipapp:ipapp\"><name>core1</name><ipv4><address>"
                      "<ip>10.1.1.1/24</ip><secondary nc:operation=\"create\">"
                      "<ip>10.1.11.1/24</ip></secondary></address></ipv4></l3>"),
       "none"},
      {"name-bad-chars.xml",
       InterfacesEdit("<l3 xmlns=\"urn:ipapp:ipapp\" nc:operation=\"create\"><name>edge.1</name>"
                      "<ipv4><address><ip>10.1.4.1/24</ip></address></ipv4>"
                      "<lower-layer-if><vlan>600</vlan></lower-layer-if></l3>"),
       "merge"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(std::string(c.example) + " with default " + c.default_operation);
    const fs::path edit = WriteFile("edit.xml", c.edit);
    const ToolResult whole = RunTool(
        {"--running", Example("running.xml"), "--candidate", Example(c.example), "--keep-going"});
    const ToolResult edited = RunTool({"--running", Example("running.xml"), "--edit", edit.string(),
                                       "--default-operation", c.default_operation, "--keep-going"});
    EXPECT_EQ(edited.status, whole.status) << edited.err;
    EXPECT_EQ(edited.out, whole.out);
    EXPECT_THAT(whole.out, HasSubstr("refused: "));
  }
}

TEST(CheckEdit, AnEditThatCannotBeAppliedIsBadInputWithTheTagAndLine) {
  struct Case {
    const char *what;
    std::string edit;
    std::string where_and_tag;
  };
  const Case cases[] = {
      {"create of an existing interface",
       InterfacesEdit("\n<l3 xmlns=\"urn:ipapp:ipapp\" nc:operation=\"create\">\n"
                      "<name>core1</name></l3>"),
       ":2: data-exists: "},
      {"delete of a missing secondary address",
       InterfacesEdit("<l3 xmlns=\"urn:ipapp:ipapp\"><name>core1</name>\n<ipv4><address>"
                      "<ip>10.1.1.1/24</ip>\n<secondary nc:operation=\"delete\">"
                      "<ip>10.9.9.9/24</ip></secondary></address></ipv4></l3>"),
       ":3: data-missing: "},
      {"an unknown element",
       InterfacesEdit("\n\n<l3 xmlns=\"urn:ipapp:ipapp\"><nmae>x</nmae></l3>"),
       ":3: unknown-element: "},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    const fs::path edit = WriteFile("bad-edit.xml", c.edit);
    const ToolResult r = RunTool({"--running", Example("running.xml"), "--edit", edit.string()});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "");
    EXPECT_THAT(r.err, HasSubstr("ipapp-check: " + edit.string() + c.where_and_tag)) << r.err;
  }
}

// --- Batches -----------------------------------------------------------------

// A batch directory of every bundled example: one element per candidate,
// each with the running configuration.
const fs::path &ExampleFleet() {
  static const fs::path dir = [] {
    const fs::path d = Scratch() / "examples-fleet";
    for (const auto &entry : fs::directory_iterator(Example(""))) {
      const fs::path p = entry.path();
      const std::string name = p.filename().string();
      if (name == "running.xml" || name == "expected.json" ||
          (p.extension() != ".xml" && p.extension() != ".json")) {
        continue;
      }
      const fs::path element = d / p.stem();
      fs::create_directories(element);
      fs::copy_file(Example("running.xml"), element / "running.xml");
      fs::copy_file(p, element / ("candidate" + p.extension().string()));
    }
    return d;
  }();
  return dir;
}

struct Single {
  ToolResult text, json;
};

// Each example element's single runs, by element name.
const std::map<std::string, Single> &SingleRuns() {
  static const std::map<std::string, Single> runs = [] {
    std::map<std::string, Single> out;
    for (const auto &entry : fs::directory_iterator(ExampleFleet())) {
      const fs::path element = entry.path();
      fs::path candidate = element / "candidate.xml";
      if (!fs::exists(candidate)) candidate = element / "candidate.json";
      const std::vector<std::string> args = {"--running", (element / "running.xml").string(),
                                             "--candidate", candidate.string()};
      Single s;
      s.text = RunTool(args);
      std::vector<std::string> as_json = args;
      as_json.insert(as_json.end(), {"--format", "json"});
      s.json = RunTool(as_json);
      out[element.filename().string()] = s;
    }
    return out;
  }();
  return runs;
}

TEST(CheckBatch, GivesEachExampleItsSingleRunsVerdictAndTextInEveryFormat) {
  const auto &single = SingleRuns();
  ASSERT_GT(single.size(), 20u);
  int worst = 0;
  size_t refused = 0;
  for (const auto &[name, s] : single) worst = std::max(worst, s.text.status);

  const ToolResult text = RunTool({"--batch", ExampleFleet().string(), "-j", "2"});
  EXPECT_EQ(text.status, worst) << text.err;
  const std::vector<std::string> lines = Lines(text.out);
  ASSERT_EQ(lines.size(), single.size() + 1) << text.out;
  size_t i = 0;
  for (const auto &[name, s] : single) {
    SCOPED_TRACE(name);
    EXPECT_EQ(lines[i++], name + ": " + s.text.FirstLine());
    refused += s.text.status == 1;
  }
  EXPECT_EQ(lines.back(), std::to_string(single.size()) + " elements: " +
                              std::to_string(single.size() - refused) + " accepted, " +
                              std::to_string(refused) + " refused, 0 bad input, 0 failed");

  const ToolResult jsonl = RunTool({"--batch", ExampleFleet().string(), "--format", "json"});
  EXPECT_EQ(jsonl.status, worst);
  const std::vector<std::string> objects = Lines(jsonl.out);
  ASSERT_EQ(objects.size(), single.size());
  i = 0;
  for (const auto &[name, s] : single) {
    SCOPED_TRACE(name);
    json object = json::parse(objects[i++]);
    EXPECT_EQ(object["element"], name);
    EXPECT_EQ(object["exit"], s.json.status);
    object.erase("element");
    object.erase("exit");
    EXPECT_EQ(object, s.json.Json());
  }
  EXPECT_THAT(jsonl.err, HasSubstr(std::to_string(single.size()) + " elements: "));

  // The JUnit report, read back by an XML parser.
  const fs::path junit = Scratch() / "junit.xml";
  const ToolResult r =
      RunTool({"--batch", ExampleFleet().string(), "--format", "junit"}, {}, junit.string());
  EXPECT_EQ(r.status, worst);
  const fs::path parsed = Scratch() / "junit.json";
  const std::string read_back =
      "/usr/bin/python3 -c 'import json, sys, xml.etree.ElementTree as ET\n"
      "root = ET.parse(sys.argv[1]).getroot()\n"
      "suite = root.find(\"testsuite\")\n"
      "cases = {c.get(\"name\"): [(k.tag, k.get(\"message\")) for k in c] "
      "for c in suite.iter(\"testcase\")}\n"
      "print(json.dumps({\"tests\": suite.get(\"tests\"), \"failures\": suite.get(\"failures\"),"
      " \"errors\": suite.get(\"errors\"), \"cases\": cases}))' " +
      junit.string() + " >" + parsed.string();
  ASSERT_EQ(std::system(read_back.c_str()), 0) << Slurp(junit);
  const json report = json::parse(Slurp(parsed));
  EXPECT_EQ(report["tests"], std::to_string(single.size()));
  EXPECT_EQ(report["failures"], std::to_string(refused));
  EXPECT_EQ(report["errors"], "0");
  for (const auto &[name, s] : single) {
    SCOPED_TRACE(name);
    const json &failures = report["cases"][name];
    if (s.text.status == 0) {
      EXPECT_TRUE(failures.empty());
    } else {
      ASSERT_EQ(failures.size(), 1u);
      EXPECT_EQ(failures[0][0], "failure");
      EXPECT_EQ("refused: " + failures[0][1].get<std::string>(), s.text.FirstLine());
    }
  }
}

TEST(CheckBatch, OneOrFourAtATimeGiveTheSameReports) {
  for (const char *format : {"text", "json"}) {
    SCOPED_TRACE(format);
    const ToolResult one =
        RunTool({"--batch", ExampleFleet().string(), "-j", "1", "--format", format});
    const ToolResult four =
        RunTool({"--batch", ExampleFleet().string(), "-j", "4", "--format", format});
    EXPECT_EQ(one.status, four.status);
    EXPECT_EQ(one.out, four.out);
    EXPECT_FALSE(one.out.empty());
  }
}

TEST(CheckBatch, BadElementsAndAnOverrunningCommitDoNotStopTheOthers) {
  const fs::path dir = Scratch() / "mixed-fleet";
  const std::string running = Slurp(Example("running.xml"));
  auto element = [&](const std::string &name, std::map<std::string, std::string> files) {
    fs::create_directories(dir / name);
    for (const auto &[file, text] : files) std::ofstream(dir / name / file) << text;
  };
  std::string stall = running;
  stall.insert(stall.find("<l3 "),
               "<l3 xmlns=\"urn:ipapp:ipapp\"><name>stall</name>"
               "<lower-layer-if><vlan>900</vlan></lower-layer-if></l3>\n");
  element("a-good", {{"running.xml", running}, {"candidate.xml", running}});
  element("b-no-candidate", {{"running.xml", running}});
  element("c-both", {{"running.xml", running}, {"candidate.xml", running}, {"edit.xml", ""}});
  element("d-malformed", {{"running.xml", running}, {"candidate.xml", "<config>\n<oops"}});
  element("e-stall", {{"running.xml", running}, {"candidate.xml", stall}});
  element("f-edit", {{"running.xml", running},
                     {"edit.xml", InterfacesEdit("<l3 xmlns=\"urn:ipapp:ipapp\">"
                                                 "<name>core2</name><vrf>red</vrf></l3>")}});
  fs::create_directories(dir / ".hidden");  // not an element
  std::ofstream(dir / "README") << "not an element either\n";

  const ToolResult r =
      RunTool({"--batch", dir.string(), "--plugin", IPAPP_FAKE_PLUGIN, "--timeout", "1", "-j", "2"},
              {"IPAPP_FAKE_MODE=hang-on-stall"});
  EXPECT_EQ(r.status, 3) << r.err;
  const std::vector<std::string> lines = Lines(r.out);
  ASSERT_EQ(lines.size(), 7u) << r.out;
  EXPECT_EQ(lines[0], "a-good: accepted");
  EXPECT_THAT(lines[1],
              HasSubstr("b-no-candidate: bad input: " + (dir / "b-no-candidate").string() +
                        ": no candidate.xml, candidate.json or edit.xml"));
  EXPECT_THAT(lines[2], HasSubstr("c-both: bad input: "));
  EXPECT_THAT(lines[2], HasSubstr("holds both candidate.xml and edit.xml"));
  EXPECT_THAT(lines[3], HasSubstr("d-malformed: bad input: " +
                                  (dir / "d-malformed" / "candidate.xml").string() + ":"));
  EXPECT_THAT(lines[4], HasSubstr("e-stall: plug-in failure: the plug-in did not return"));
  EXPECT_THAT(lines[4], HasSubstr("(stopped after 1 s)"));  // the element's own time limit
  EXPECT_EQ(lines[5], "f-edit: accepted");
  EXPECT_EQ(lines[6], "6 elements: 2 accepted, 0 refused, 3 bad input, 1 failed");
}

TEST(CheckBatch, AnElementsNameOrTextCannotForgeALine) {
  const fs::path dir = Scratch() / "forging-fleet";
  const std::string name = "x\nforged: accepted\x1b[2K";
  fs::create_directories(dir / name);
  std::ofstream(dir / name / "running.xml") << Slurp(Example("running.xml"));
  std::ofstream(dir / name / "candidate.xml") << Slurp(Example("vrf-ospf.xml"));
  const ToolResult r = RunTool({"--batch", dir.string()});
  EXPECT_EQ(r.status, 1);
  const std::vector<std::string> lines = Lines(r.out);
  ASSERT_EQ(lines.size(), 2u) << r.out;
  EXPECT_THAT(lines[0], HasSubstr("x\\nforged: accepted\\x1b[2K: refused: "));

  const fs::path junit = Scratch() / "forging.xml";
  RunTool({"--batch", dir.string(), "--format", "junit"}, {}, junit.string());
  const std::string parse =
      "/usr/bin/python3 -c 'import sys, xml.etree.ElementTree as ET; "
      "ET.parse(sys.argv[1])' " +
      junit.string();
  EXPECT_EQ(std::system(parse.c_str()), 0) << Slurp(junit);
}

TEST(CheckBatch, ShowsProgressOnlyOnATerminal) {
  const ToolResult plain = RunTool({"--batch", ExampleFleet().string()});
  EXPECT_EQ(plain.err, "");
  // script(1) gives the run a terminal; its transcript is the terminal's output.
  const fs::path transcript = Scratch() / "terminal";
  const std::string command = "script -qec \"" + std::string(IPAPP_CHECK_EXE) + " --batch " +
                              ExampleFleet().string() + " >/dev/null\" /dev/null >" +
                              transcript.string();
  if (std::system(command.c_str()) != 0 && Slurp(transcript).empty()) {
    GTEST_SKIP() << "no script(1) to give the run a terminal";
  }
  const std::string shown = Slurp(transcript);
  const std::string total = std::to_string(SingleRuns().size());
  EXPECT_THAT(shown, HasSubstr("\r\033[K1/" + total + " checked, "));
  EXPECT_THAT(shown, HasSubstr(total + "/" + total + " checked, "));
  EXPECT_THAT(shown, HasSubstr(" elements/s, "));
}

TEST(CheckBatch, WhatIsNoBatchIsBadUsage) {
  const fs::path empty = Scratch() / "empty-fleet";
  fs::create_directories(empty);
  const std::vector<std::vector<std::string>> usages = {
      {"--batch", empty.string()},
      {"--batch", (Scratch() / "no-such-fleet").string()},
      {"--batch", ExampleFleet().string(), "--running", Example("running.xml")},
      {"--running", Example("running.xml"), "--candidate", Example("vrf-ospf.xml"), "--format",
       "junit"},
      {"--running", Example("running.xml")},
  };
  for (const auto &args : usages) {
    SCOPED_TRACE(args[1]);
    const ToolResult r = RunTool(args);
    EXPECT_EQ(r.status, 2) << r.out;
    EXPECT_EQ(r.out, "");
    EXPECT_THAT(r.err, ::testing::AnyOf(HasSubstr("ipapp-check: "), HasSubstr("--")));
  }
}

}  // namespace
}  // namespace check_test
