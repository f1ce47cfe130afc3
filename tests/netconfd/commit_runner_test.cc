// The commit runner netconfd's library starts: every verdict as the commit
// check gives it in process, a runner that dies costing one check, and a
// runner that holds nothing of its server's and does not outlive it.
#include <gtest/gtest.h>

#include <commit_hook.h>
#include <commit_runner.h>

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using ipapp::netconfd::CommitHook;
using ipapp::netconfd::CommitRunner;
using ipapp::netconfd::Verdict;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

std::string Example(const std::string &name) {
  std::stringstream text;
  text << std::ifstream(std::string(IPAPP_SOURCE_DIR) + "/examples/" + name).rdbuf();
  return text.str();
}

std::string Describe(const Verdict &v) {
  std::string text = std::to_string(static_cast<int>(v.kind)) + " [" + v.message + "] [" +
                     v.keypath + "] [" + v.validation + "]";
  for (const std::string &fault : v.faults) text += " {" + fault + "}";
  return text;
}

// Whether pid is gone (or only waits to be reaped) within timeout.
bool Gone(pid_t pid, std::chrono::milliseconds timeout = 5s) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  do {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(stat, line)) return true;
    std::istringstream rest(line.substr(line.rfind(')') + 1));
    std::string state;
    rest >> state;
    if (state == "Z" || state == "X") return true;
    std::this_thread::sleep_for(10ms);
  } while (std::chrono::steady_clock::now() < deadline);
  return false;
}

// The targets of pid's open descriptors, by number.
std::vector<std::pair<int, std::string>> Descriptors(pid_t pid) {
  std::vector<std::pair<int, std::string>> fds;
  const fs::path dir = "/proc/" + std::to_string(pid) + "/fd";
  std::error_code ec;
  for (const fs::directory_entry &entry : fs::directory_iterator(dir, ec)) {
    std::error_code link_ec;
    fds.emplace_back(std::stoi(entry.path().filename().string()),
                     fs::read_symlink(entry.path(), link_ec).string());
  }
  return fds;
}

// The live children of pid.
std::vector<pid_t> Children(pid_t pid) {
  std::vector<pid_t> children;
  std::ifstream list("/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) + "/children");
  for (pid_t child; list >> child;) children.push_back(child);
  return children;
}

// Every example commit, refused and accepted, with its faults: the runner
// hands back exactly what the check gives in process.
TEST(CommitRunnerTest, VerdictsAreTheCommitChecksOwn) {
  CommitHook hook(IPAPP_PLUGIN, IPAPP_YANG_DIR, 60s);
  CommitRunner runner(IPAPP_NETCONFD_RUNNER, IPAPP_PLUGIN, IPAPP_YANG_DIR, 60s);
  EXPECT_EQ(runner.modules(), hook.modules());
  const std::string running = Example("running.xml");
  std::set<Verdict::Kind> kinds;
  bool faults = false;
  for (const fs::directory_entry &entry :
       fs::directory_iterator(std::string(IPAPP_SOURCE_DIR) + "/examples")) {
    if (entry.path().extension() != ".xml") continue;
    SCOPED_TRACE(entry.path().filename().string());
    const std::string candidate = Example(entry.path().filename().string());
    const Verdict want = hook.Check(running, candidate);
    EXPECT_EQ(Describe(runner.Check(running, candidate)), Describe(want));
    kinds.insert(want.kind);
    faults = faults || !want.faults.empty();
  }
  // Bad data too: the check's own failure, naming the side.
  EXPECT_EQ(Describe(runner.Check(running, "<config xmlns=\"urn:ipapp:shellcfg\"><interface>")),
            Describe(hook.Check(running, "<config xmlns=\"urn:ipapp:shellcfg\"><interface>")));
  EXPECT_EQ(kinds.size(), 2u);  // accepted and refused
  EXPECT_TRUE(faults);
}

// Whatever the plug-in does costs the check, as in process; the runner goes on.
TEST(CommitRunnerTest, FailingPluginFailsTheCheckAndTheRunnerServesOn) {
  const std::string running = Example("running.xml");
  const std::string candidate = Example("vrf-ospf.xml");
  for (const char *mode : {"abort", "hang", "exit3", "fault-then-abort"}) {
    SCOPED_TRACE(mode);
    setenv("IPAPP_FAKE_MODE", mode, 1);
    CommitHook hook(IPAPP_FAKE_PLUGIN, IPAPP_YANG_DIR, 1s);
    CommitRunner runner(IPAPP_NETCONFD_RUNNER, IPAPP_FAKE_PLUGIN, IPAPP_YANG_DIR, 1s);
    unsetenv("IPAPP_FAKE_MODE");
    const pid_t pid = runner.pid();
    const Verdict failed = runner.Check(running, candidate);
    EXPECT_EQ(failed.kind, Verdict::Kind::kFailed);
    setenv("IPAPP_FAKE_MODE", mode, 1);
    EXPECT_EQ(Describe(failed), Describe(hook.Check(running, candidate)));
    unsetenv("IPAPP_FAKE_MODE");
    EXPECT_EQ(Describe(runner.Check(running, candidate)), Describe(failed));
    EXPECT_EQ(runner.pid(), pid);
  }
}

// A runner that dies fails the one check it was asked, saying how, and a new
// one takes the next.
TEST(CommitRunnerTest, DeadRunnerFailsOneCheckAndIsStartedAgain) {
  CommitRunner runner(IPAPP_NETCONFD_RUNNER, IPAPP_PLUGIN, IPAPP_YANG_DIR, 60s);
  const std::string running = Example("running.xml");
  const std::string candidate = Example("vrf-ospf.xml");
  const pid_t first = runner.pid();
  ASSERT_GT(first, 0);
  kill(first, SIGKILL);
  const Verdict lost = runner.Check(running, candidate);
  EXPECT_EQ(lost.kind, Verdict::Kind::kFailed);
  EXPECT_EQ(lost.message,
            "the commit runner was killed (signal SIGKILL, Killed); it starts again for the next "
            "check");
  EXPECT_TRUE(Gone(first, 0ms));  // reaped
  EXPECT_EQ(runner.Check(running, candidate).kind, Verdict::Kind::kRefused);
  EXPECT_GT(runner.pid(), 0);
  EXPECT_NE(runner.pid(), first);
}

TEST(CommitRunnerTest, RunnerThatCannotStartSaysWhy) {
  try {
    CommitRunner runner("/nonexistent/ipapp-netconfd-commit", IPAPP_PLUGIN, IPAPP_YANG_DIR, 60s);
    ADD_FAILURE() << "started";
  } catch (const std::runtime_error &e) {
    EXPECT_STREQ(e.what(),
                 "cannot start the commit runner /nonexistent/ipapp-netconfd-commit: No such file "
                 "or directory");
  }
  // The modules' error, in the words CommitHook has for it.
  const std::string no_modules = "/nonexistent/yang";
  std::string want;
  try {
    CommitHook hook(IPAPP_PLUGIN, no_modules, 60s);
  } catch (const std::exception &e) {
    want = e.what();
  }
  ASSERT_FALSE(want.empty());
  try {
    CommitRunner runner(IPAPP_NETCONFD_RUNNER, IPAPP_PLUGIN, no_modules, 60s);
    ADD_FAILURE() << "started";
  } catch (const std::runtime_error &e) {
    EXPECT_EQ(e.what(), want);
  }
}

// The runner holds its socket and the standard descriptors, nothing else of
// the server's; the plug-in's process does not hold the socket.
TEST(CommitRunnerTest, NeitherRunnerNorPluginHoldsTheServersDescriptors) {
  const int stray = open("/dev/null", O_RDONLY);  // inheritable, as a server's may be
  ASSERT_GE(stray, 0);
  setenv("IPAPP_FAKE_MODE", "hang", 1);
  CommitRunner runner(IPAPP_NETCONFD_RUNNER, IPAPP_FAKE_PLUGIN, IPAPP_YANG_DIR, 3s);
  unsetenv("IPAPP_FAKE_MODE");
  close(stray);
  std::vector<std::pair<int, std::string>> fds = Descriptors(runner.pid());
  std::string socket;
  std::set<int> numbers;
  for (const auto &[fd, target] : fds) {
    numbers.insert(fd);
    if (fd == ipapp::netconfd::kRunnerFd) socket = target;
  }
  EXPECT_EQ(numbers, (std::set<int>{0, 1, 2, ipapp::netconfd::kRunnerFd}));
  EXPECT_EQ(socket.rfind("socket:", 0), 0u) << socket;

  auto check = std::async(std::launch::async, [&] {
    return runner.Check(Example("running.xml"), Example("vrf-ospf.xml"));
  });
  // The commit's process, hanging in the plug-in.
  std::vector<pid_t> commit;
  for (int i = 0; i < 200 && commit.empty(); ++i) {
    std::this_thread::sleep_for(10ms);
    commit = Children(runner.pid());
  }
  ASSERT_EQ(commit.size(), 1u);
  std::this_thread::sleep_for(300ms);  // well into the plug-in
  for (const auto &[fd, target] : Descriptors(commit[0])) {
    SCOPED_TRACE(fd);
    EXPECT_NE(target, socket);
  }
  EXPECT_EQ(check.get().kind, Verdict::Kind::kFailed);
  EXPECT_TRUE(Gone(commit[0]));
}

// Its server killed outright in the middle of a check, the runner dies at
// once, and so does the commit's process; a server that ends normally takes
// the runner along.
TEST(CommitRunnerTest, RunnerEndsWithItsServer) {
  int report[2];
  ASSERT_EQ(pipe(report), 0);
  const pid_t server = fork();
  ASSERT_GE(server, 0);
  if (server == 0) {
    close(report[0]);
    setenv("IPAPP_FAKE_MODE", "hang", 1);
    CommitRunner runner(IPAPP_NETCONFD_RUNNER, IPAPP_FAKE_PLUGIN, IPAPP_YANG_DIR, 60s);
    const pid_t pid = runner.pid();
    if (write(report[1], &pid, sizeof pid) != sizeof pid) _exit(1);
    runner.Check(Example("running.xml"), Example("vrf-ospf.xml"));
    _exit(0);
  }
  close(report[1]);
  pid_t killed_with_server = -1;
  ASSERT_EQ(read(report[0], &killed_with_server, sizeof killed_with_server),
            static_cast<ssize_t>(sizeof killed_with_server));
  close(report[0]);
  std::vector<pid_t> commit;
  for (int i = 0; i < 500 && commit.empty(); ++i) {
    std::this_thread::sleep_for(10ms);
    commit = Children(killed_with_server);
  }
  ASSERT_EQ(commit.size(), 1u);
  kill(server, SIGKILL);
  waitpid(server, nullptr, 0);
  EXPECT_TRUE(Gone(killed_with_server));
  EXPECT_TRUE(Gone(commit[0]));

  pid_t stopped = -1;
  {
    CommitRunner runner(IPAPP_NETCONFD_RUNNER, IPAPP_PLUGIN, IPAPP_YANG_DIR, 60s);
    stopped = runner.pid();
  }
  EXPECT_TRUE(Gone(stopped, 0ms));  // reaped before the destructor returned
}

// The runner gets its malloc setting on top of the server's, and puts the
// server's environment back before any commit runs.
TEST(CommitRunnerTest, RunnerRunsCommitsInTheServersEnvironment) {
  const char *var = "IPAPP_NETCONFD_SERVER_TUNABLES";
  struct Case {
    const char *server;  // the server's GLIBC_TUNABLES, or null
    std::string runner;  // the runner's, as started
  } cases[] = {
      {nullptr, "glibc.malloc.hugetlb=1"},
      {"glibc.malloc.hugetlb=0", "glibc.malloc.hugetlb=1:glibc.malloc.hugetlb=0"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.server ? c.server : "none");
    if (c.server) setenv("GLIBC_TUNABLES", c.server, 1);
    CommitRunner runner(IPAPP_NETCONFD_RUNNER, IPAPP_PLUGIN, IPAPP_YANG_DIR, 60s);
    unsetenv("GLIBC_TUNABLES");
    // As started (later changes do not show here; glibc may cut the value
    // where it has read it).
    std::ifstream in("/proc/" + std::to_string(runner.pid()) + "/environ");
    bool huge_pages = false, server_kept = false;
    for (std::string entry; std::getline(in, entry, '\0');) {
      huge_pages = huge_pages || entry.rfind("GLIBC_TUNABLES=glibc.malloc.hugetlb=1", 0) == 0;
      server_kept = server_kept || (c.server && entry == std::string(var) + "=" + c.server);
    }
    EXPECT_TRUE(huge_pages);
    EXPECT_EQ(server_kept, c.server != nullptr);

    // What the runner then does with it.
    setenv("GLIBC_TUNABLES", c.runner.c_str(), 1);
    if (c.server) setenv(var, c.server, 1);
    ipapp::netconfd::RestoreEnvironment();
    const char *restored = std::getenv("GLIBC_TUNABLES");
    EXPECT_EQ(restored ? std::string(restored) : "none", c.server ? c.server : "none");
    EXPECT_EQ(std::getenv(var), nullptr);
    unsetenv("GLIBC_TUNABLES");
  }
}

// The wire carries any bytes, and a frame cut short reads as nothing.
TEST(CommitRunnerTest, FramesCarryAnyBytesAndCutFramesReadAsNothing) {
  using ipapp::netconfd::ReadFrame;
  using ipapp::netconfd::VerdictFrame;
  using ipapp::netconfd::VerdictOf;
  using ipapp::netconfd::WriteFrame;
  Verdict v;
  v.kind = Verdict::Kind::kRefused;
  v.message = std::string("a\0b\xe9\n", 5);
  v.keypath = "/config/interface/ipapp:l3{core1}";
  v.faults = {"f (x.cc:1): one", "", "f (x.cc:2): two (recorded 3 times)"};
  int fds[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
  ASSERT_TRUE(WriteFrame(fds[0], VerdictFrame(v)));
  std::optional<std::vector<std::string>> frame = ReadFrame(fds[1]);
  ASSERT_TRUE(frame);
  std::optional<Verdict> back = VerdictOf(*frame);
  ASSERT_TRUE(back);
  EXPECT_EQ(Describe(*back), Describe(v));

  const std::uint32_t count = 2;
  const std::uint64_t size = 10;
  ASSERT_EQ(write(fds[0], &count, sizeof count), static_cast<ssize_t>(sizeof count));
  ASSERT_EQ(write(fds[0], &size, sizeof size), static_cast<ssize_t>(sizeof size));
  ASSERT_EQ(write(fds[0], "short", 5), 5);
  close(fds[0]);
  EXPECT_FALSE(ReadFrame(fds[1]));
  close(fds[1]);
  EXPECT_FALSE(VerdictOf({"maybe", "", "", ""}));
  EXPECT_FALSE(VerdictOf({"accepted", ""}));
}

}  // namespace
