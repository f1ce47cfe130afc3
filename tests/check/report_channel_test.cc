// The report is ipapp-check's alone: a plug-in that prints, leaves a process
// behind or finds the standard descriptors closed cannot change it or hold it
// up, and no name or text in the data can forge a line of it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>

#include "run_tool.h"

namespace check_test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

std::vector<std::string> Lines(const std::string &text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// The pipes this process holds above the standard descriptors (the tests'
// own runner may hand some down): "pipe:[inode]".
std::vector<std::string> OwnPipes() {
  std::vector<std::string> pipes;
  for (const auto &entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code ec;
    const std::string target = fs::read_symlink(entry.path(), ec).string();
    if (!ec && std::stoi(entry.path().filename().string()) > 2 && target.rfind("pipe:", 0) == 0) {
      pipes.push_back(target);
    }
  }
  return pipes;
}

std::string UnrulyCommand(const std::string &candidate) {
  return std::string(IPAPP_CHECK_EXE) + " --running " + Example("running.xml") + " --candidate " +
         Example(candidate) + " --plugin " + IPAPP_UNRULY_PLUGIN;
}

// Whether pid is gone: no such process, or one that has ended and waits to
// be reaped by whoever adopted it.
bool Gone(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  if (!std::getline(stat, text)) return true;
  const size_t paren = text.rfind(')');
  return paren != std::string::npos && text.compare(paren + 2, 1, "Z") == 0;
}

TEST(ReportChannel, ProcessThePluginLeavesBehindCostsNothing) {
  // escape: out of the commit's process group, its parent gone.
  for (const auto &[fake_mode, unruly_mode] : {std::pair{"accept", "linger"},
                                               {"refuse", "linger"},
                                               {"accept", "escape"},
                                               {"refuse", "escape"}}) {
    SCOPED_TRACE(std::string(fake_mode) + " " + unruly_mode);
    fs::create_directories(Scratch());
    const fs::path record = Scratch() / "lingering";
    fs::remove(record);
    // Read to the end, as `ipapp-check ... 2>&1 | cat` does: the end comes
    // only when every process holding the pipe has gone.
    const std::string cmd = std::string("IPAPP_FAKE_MODE=") + fake_mode +
                            " IPAPP_UNRULY_MODE=" + unruly_mode +
                            " IPAPP_UNRULY_FILE=" + record.string() + " " +
                            UnrulyCommand("vrf-ospf.xml") + " --timeout 30 2>&1";
    const auto start = std::chrono::steady_clock::now();
    FILE *pipe = popen(cmd.c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    std::string out;
    bool ended = false;
    for (;;) {
      pollfd p{fileno(pipe), POLLIN, 0};
      if (poll(&p, 1, 15000) <= 0) break;  // held open: the end would never come
      char buf[4096];
      const ssize_t n = read(fileno(pipe), buf, sizeof buf);
      if (n <= 0) {
        ended = n == 0;
        break;
      }
      out.append(buf, static_cast<size_t>(n));
    }
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_TRUE(ended) << "the output did not end with ipapp-check";

    std::vector<std::string> lingering = Lines(Slurp(record));
    const pid_t pid = lingering.empty() ? -1 : std::stoi(lingering[0]);
    // Whatever happened, nothing is left behind, and pclose can reap.
    if (!ended && pid > 0) kill(pid, SIGKILL);
    const int status = pclose(pipe);
    const bool accepted = std::string(fake_mode) == "accept";
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), accepted ? 0 : 1) << out;
    EXPECT_THAT(out,
                StartsWith(accepted ? "accepted\n" : "refused: intf_l3_name_validation refused\n"));
    EXPECT_THAT(out, Not(HasSubstr("plug-in failure")));
    EXPECT_LT(took, std::chrono::seconds(10));

    ASSERT_GT(pid, 0) << "the plug-in's child did not start";
    // It held no pipe but those handed down to this test: not the report's.
    lingering.erase(lingering.begin());
    for (const std::string &own : OwnPipes()) {
      lingering.erase(std::remove(lingering.begin(), lingering.end(), own), lingering.end());
    }
    EXPECT_THAT(lingering, IsEmpty());
    for (int i = 0; i < 100 && !Gone(pid); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_TRUE(Gone(pid)) << "pid " << pid;
    if (!Gone(pid)) kill(pid, SIGKILL);
  }
}

TEST(ReportChannel, WhatThePluginPrintsStaysOutOfTheReport) {
  const std::vector<std::string> args = {"--running",   Example("running.xml"),
                                         "--candidate", Example("vrf-ospf.xml"),
                                         "--plugin",    IPAPP_UNRULY_PLUGIN};
  const ToolResult text = RunTool(args, {"IPAPP_FAKE_MODE=refuse", "IPAPP_UNRULY_MODE=print"});
  EXPECT_EQ(text.status, 1);
  EXPECT_THAT(text.out, StartsWith("refused: intf_l3_name_validation refused\n"));
  EXPECT_THAT(Lines(text.out), Not(::testing::Contains("accepted")));
  EXPECT_THAT(text.err, HasSubstr("accepted\n{\"verdict\": \"accepted\"}\n"));
  EXPECT_THAT(text.err, HasSubstr("unruly plug-in loading\n"));

  std::vector<std::string> json_args = args;
  json_args.insert(json_args.end(), {"--format", "json", "--trace"});
  const ToolResult json = RunTool(json_args, {"IPAPP_FAKE_MODE=refuse", "IPAPP_UNRULY_MODE=print"});
  EXPECT_EQ(json.status, 1);
  ASSERT_NO_THROW(json.Json()) << json.out;
  EXPECT_EQ(json.Json()["verdict"], "refused");
}

// Runs ipapp-check with descriptors 0 and 2 closed, standard output to out;
// the plug-in prints.
int RunWithoutStdinAndStderr(const std::vector<std::string> &args, const std::string &fake_mode,
                             const fs::path &out) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addclose(&actions, STDIN_FILENO);
  posix_spawn_file_actions_addclose(&actions, STDERR_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0644);
  const pid_t pid =
      SpawnTool(args, {"IPAPP_UNRULY_MODE=print", "IPAPP_FAKE_MODE=" + fake_mode}, &actions);
  posix_spawn_file_actions_destroy(&actions);
  return pid > 0 ? ExitStatus(pid) : -1;
}

TEST(ReportChannel, ClosedStandardDescriptorsDoNotCarryTheReport) {
  // The plug-in writes to standard error, which would otherwise be the
  // report pipe.
  const fs::path out = Scratch() / "closed-out";
  fs::create_directories(Scratch());
  for (const auto &[fake_mode, status, first] :
       std::vector<std::tuple<std::string, int, std::string>>{
           {"accept", 0, "accepted\n"},
           {"refuse", 1, "refused: intf_l3_name_validation refused\n"}}) {
    SCOPED_TRACE(fake_mode);
    EXPECT_EQ(RunWithoutStdinAndStderr({"--running", Example("running.xml"), "--candidate",
                                        Example("vrf-ospf.xml"), "--plugin", IPAPP_UNRULY_PLUGIN},
                                       fake_mode, out),
              status);
    EXPECT_THAT(Slurp(out), StartsWith(first));
  }
}

TEST(ForgedLines, ControlCharactersInDataAreEscapedInText) {
  // The element's plug-in quotes the bad name in its refusal. (The parser
  // takes no C0 controls but these in data.)
  std::string xml = Slurp(Example("name-bad-chars.xml"));
  xml.replace(xml.find("edge.1"), 6, "edge&#10;accepted&#13;&#x9b;&#9;.1");
  const fs::path file = WriteFile("forged.xml", xml);
  const std::vector<std::string> args = {"--running",   Example("running.xml"), "--candidate",
                                         file.string(), "--keep-going",         "--trace"};
  const ToolResult text = RunTool(args);
  EXPECT_EQ(text.status, 1);
  const std::string escaped = "edge\\naccepted\\r\\u009b\\t.1";
  EXPECT_THAT(text.out, StartsWith("refused: L3 interface name " + escaped + " contains invalid"));
  for (const std::string &line : Lines(text.out)) {
    EXPECT_NE(line, "accepted");
    for (const char c : line) ASSERT_FALSE(c >= 0 && c < 0x20) << "in: " << line;
  }

  // JSON escapes them itself: the text there is the plug-in's, exactly.
  std::vector<std::string> json_args = args;
  json_args.insert(json_args.end(), {"--format", "json"});
  const ToolResult json = RunTool(json_args);
  EXPECT_EQ(json.status, 1);
  EXPECT_THAT(json.Json()["refusals"][0]["error"].get<std::string>(),
              StartsWith("L3 interface name edge\naccepted\r\xc2\x9b\t.1 contains"));

  // Messages about the input: one line on standard error.
  const fs::path bad = WriteFile("forged-value.xml", R"(<config xmlns="urn:ipapp:shellcfg">
  <interface><l3 xmlns="urn:ipapp:ipapp"><name>x</name>
    <lower-layer-if><vlan>1&#10;ipapp-check: accepted</vlan></lower-layer-if></l3></interface>
</config>
)");
  const ToolResult input = RunTool({"--candidate", bad.string()});
  EXPECT_EQ(input.status, 2);
  EXPECT_THAT(Lines(input.err), ElementsAre(StartsWith("ipapp-check: " + bad.string() + ":3: ")));
}

}  // namespace
}  // namespace check_test
