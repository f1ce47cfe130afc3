// Input and output that are not what they should be: ipapp-check gives no
// verdict, exits 2 and names the file (with the line where it can) or
// stdout, and the reason.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "run_tool.h"

namespace check_test {
namespace {

using ::testing::HasSubstr;

// Runs ipapp-check against every candidate once as the candidate and once as
// the running configuration: both must be refused alike.
void ExpectRefusedInput(const fs::path &file, const std::string &where, const std::string &why) {
  const ToolResult as_candidate =
      RunTool({"--running", Example("running.xml"), "--candidate", file.string()});
  EXPECT_EQ(as_candidate.status, 2);
  EXPECT_EQ(as_candidate.out, "");
  EXPECT_THAT(as_candidate.err, HasSubstr("ipapp-check: " + where + ": "));
  EXPECT_THAT(as_candidate.err, HasSubstr(why));
  const ToolResult as_running =
      RunTool({"--running", file.string(), "--candidate", Example("running.xml")});
  EXPECT_EQ(as_running.status, 2);
  EXPECT_THAT(as_running.err, HasSubstr("ipapp-check: " + where + ": "));
}

TEST(BadFiles, DirectoryIsNoConfiguration) {
  // Read as a file, a directory would be an empty configuration: a commit
  // that deletes everything.
  const fs::path dir = Scratch() / "candidate.xml";
  fs::create_directories(dir);
  ExpectRefusedInput(dir, dir.string(), "is a directory");
}

TEST(BadFiles, NumberOverflowingJsonNamesTheLine) {
  const fs::path file = WriteFile("overflow.json", R"({"shellcfg:config": {"interface": {
  "ipapp:l3": [{"name": "a",
    "lower-layer-if": {"vlan": 1e400}}]}}}
)");
  ExpectRefusedInput(file, file.string() + ":3", "number overflow");
}

// A route table with a good entry and, below it, the entry under test, one
// leaf a line: its prefix length on line 8 of the XML, 9 of the JSON.
std::string RouteXml(const std::string &type, const std::string &net, const std::string &len) {
  auto leaves = [](const std::string &type, const std::string &net, const std::string &len,
                   const char *end) {
    auto leaf = [&](const char *name, const std::string &value) {
      return std::string("<") + name + ">" + value + "</" + name + ">" + end;
    };
    return leaf("rtmStaticRtFteIndex", "0") + leaf("rtmStaticRtNetworkAddrType", type) +
           leaf("rtmStaticRtNetworkAddr", net) + leaf("rtmStaticRtNetworkPrefixLen", len) +
           leaf("rtmStaticRtNextHopAddrType", type) + leaf("rtmStaticRtNextHopAddr", net);
  };
  return "<QX-RTM-MIB xmlns=\"urn:ipapp:QX-RTM-MIB\">\n<rtmStaticRtTable>\n"
         "<rtmStaticRtEntry>" +
         leaves("ipv4", "0a:00:00:00", "8", "") + "</rtmStaticRtEntry>\n<rtmStaticRtEntry>\n" +
         leaves(type, net, len, "\n") + "</rtmStaticRtEntry>\n</rtmStaticRtTable>\n</QX-RTM-MIB>\n";
}

std::string RouteJson(const std::string &type, const std::string &net, const std::string &len) {
  return R"({"QX-RTM-MIB:QX-RTM-MIB": {"rtmStaticRtTable": {"rtmStaticRtEntry": [
  {"rtmStaticRtFteIndex": 0, "rtmStaticRtNetworkAddrType": "ipv4",
   "rtmStaticRtNetworkAddr": "0a:00:00:00", "rtmStaticRtNetworkPrefixLen": 8,
   "rtmStaticRtNextHopAddrType": "ipv4", "rtmStaticRtNextHopAddr": "0a:00:00:01"},
  {
    "rtmStaticRtFteIndex": 0,
    "rtmStaticRtNetworkAddrType": ")" +
         type + R"(",
    "rtmStaticRtNetworkAddr": ")" +
         net + R"(",
    "rtmStaticRtNetworkPrefixLen": )" +
         len + R"(,
    "rtmStaticRtNextHopAddrType": ")" +
         type + R"(",
    "rtmStaticRtNextHopAddr": ")" +
         net + R"("
  }]}}}
)";
}

// The output-interface table, its entry under test on line 3.
std::string RouteIntfXml(const std::string &net, const std::string &len) {
  return "<rtmStaticRtEntry-global xmlns=\"urn:ipapp:rtm-global\">\n"
         "<fte-index>0</fte-index><network>" +
         net +
         "</network>\n"
         "<prefix-len>" +
         len + "</prefix-len><next-hop>" + net +
         "</next-hop><interface-name>l3-a</interface-name>\n"
         "</rtmStaticRtEntry-global>\n";
}

TEST(BadFiles, RoutePrefixLengthMustFitTheFamily) {
  const std::string v4 = "0b:00:00:00";
  const std::string v6 = "20:01:0d:b8:00:00:00:00:00:00:00:00:00:00:00:00";
  struct Case {
    const char *type;
    std::string net, len;
    bool refused;
  };
  const std::vector<Case> cases = {
      {"ipv4", v4, "33", true},  {"ipv4", v4, "-1", true},   {"ipv4z", v4, "33", true},
      {"ipv6", v6, "129", true}, {"ipv6z", v6, "-1", true},  {"ipv4", v4, "32", false},
      {"ipv4", v4, "0", false},  {"ipv6", v6, "128", false},
  };
  for (const Case &c : cases) {
    for (const bool json : {false, true}) {
      SCOPED_TRACE(std::string(c.type) + " /" + c.len + (json ? " json" : " xml"));
      const fs::path file = json ? WriteFile("routes.json", RouteJson(c.type, c.net, c.len))
                                 : WriteFile("routes.xml", RouteXml(c.type, c.net, c.len));
      const ToolResult r = RunTool({"--candidate", file.string()});
      if (!c.refused) {
        EXPECT_NE(r.status, 2) << r.err;
        continue;
      }
      EXPECT_EQ(r.status, 2);
      EXPECT_EQ(r.out, "");
      EXPECT_THAT(r.err, HasSubstr(file.string() + (json ? ":9: " : ":8: ") + "an IPv" +
                                   (c.net == v4 ? "4" : "6") + " prefix length is 0.."));
    }
  }
  // The output-interface table: a 4-byte network takes 0..32, any 0..128.
  for (const auto &[net, len, refused] : std::vector<std::tuple<std::string, std::string, bool>>{
           {v4, "33", true}, {v6, "129", true}, {v6, "-1", true}, {v6, "33", false}}) {
    SCOPED_TRACE(net + " /" + len);
    const fs::path file = WriteFile("intf.xml", RouteIntfXml(net, len));
    const ToolResult r = RunTool({"--candidate", file.string()});
    if (!refused) {
      EXPECT_NE(r.status, 2) << r.err;
      continue;
    }
    EXPECT_EQ(r.status, 2);
    EXPECT_THAT(r.err, HasSubstr(file.string() + ":3: "));
  }
}

TEST(BadOutput, ReportThatCannotBeWrittenIsNoVerdict) {
  const std::vector<std::string> args = {"--running", Example("running.xml"), "--candidate",
                                         Example("vrf-ospf.xml")};
  const ToolResult full = RunTool(args, {}, "/dev/full");
  EXPECT_EQ(full.status, 2);
  EXPECT_EQ(full.err, "ipapp-check: cannot write the report to stdout: No space left on device\n");

  // A reader that has gone: the write end of a pipe whose read end is closed.
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  close(fds[0]);
  const std::string err_path = (Scratch() / "pipe-err").string();
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err_path.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0644);
  const pid_t pid = SpawnTool(args, {}, &actions);
  posix_spawn_file_actions_destroy(&actions);
  close(fds[1]);
  ASSERT_GT(pid, 0);
  EXPECT_EQ(ExitStatus(pid), 2);
  EXPECT_EQ(Slurp(err_path), "ipapp-check: cannot write the report to stdout: Broken pipe\n");
}

}  // namespace
}  // namespace check_test
