// Runs the built ipapp-check as a user would and collects what it did.
#ifndef IPAPP_TESTS_CHECK_RUN_TOOL_H
#define IPAPP_TESTS_CHECK_RUN_TOOL_H

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

extern char **environ;

namespace check_test {

namespace fs = std::filesystem;

/// A scratch directory of this test process, removed at the end.
inline const fs::path &Scratch() {
  static const fs::path dir = [] {
    fs::path d = fs::temp_directory_path() / ("ipapp-check-test-" + std::to_string(getpid()));
    struct Cleanup : ::testing::Environment {
      explicit Cleanup(fs::path p) : path(std::move(p)) {}
      void TearDown() override { fs::remove_all(path); }
      fs::path path;
    };
    ::testing::AddGlobalTestEnvironment(new Cleanup(d));
    return d;
  }();
  return dir;
}

inline std::string Slurp(const fs::path &path) {
  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

inline fs::path WriteFile(const std::string &name, const std::string &text) {
  fs::create_directories(Scratch());
  std::ofstream(Scratch() / name) << text;
  return Scratch() / name;
}

inline std::string Example(const std::string &name) {
  return std::string(IPAPP_SOURCE_DIR) + "/examples/" + name;
}

struct ToolResult {
  int status = -12345;  // pre-filled: a run that never finished is caught
  std::string out, err;
  std::string FirstLine() const { return out.substr(0, out.find('\n')); }
  nlohmann::json Json() const { return nlohmann::json::parse(out); }
};

/// Starts ipapp-check with args and, added to this process's environment, env
/// ("NAME=value" each), its descriptors set up by actions. The pid, or -1.
inline pid_t SpawnTool(const std::vector<std::string> &args, const std::vector<std::string> &env,
                       const posix_spawn_file_actions_t *actions) {
  std::vector<std::string> argv_text = {IPAPP_CHECK_EXE};
  argv_text.insert(argv_text.end(), args.begin(), args.end());
  std::vector<char *> argv;
  for (std::string &a : argv_text) argv.push_back(a.data());
  argv.push_back(nullptr);
  std::vector<std::string> env_text = env;
  for (char **e = environ; *e != nullptr; ++e) {
    const std::string entry = *e;
    const std::string name = entry.substr(0, entry.find('=') + 1);
    bool replaced = false;
    for (const std::string &given : env) replaced = replaced || given.rfind(name, 0) == 0;
    if (!replaced) env_text.push_back(entry);
  }
  std::vector<char *> envp;
  for (std::string &e : env_text) envp.push_back(e.data());
  envp.push_back(nullptr);
  pid_t pid = -1;
  if (posix_spawn(&pid, IPAPP_CHECK_EXE, actions, nullptr, argv.data(), envp.data()) != 0) {
    return -1;
  }
  return pid;
}

/// Waits for pid; its exit status, or -12345 when it did not exit.
inline int ExitStatus(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -12345;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -12345;
}

/// Runs ipapp-check with args, env as for SpawnTool. Standard output goes to
/// out_to when given (else it is collected), standard input comes from
/// in_from when given (else /dev/null).
inline ToolResult RunTool(const std::vector<std::string> &args,
                          const std::vector<std::string> &env = {}, const std::string &out_to = "",
                          const std::string &in_from = "") {
  fs::create_directories(Scratch());
  const fs::path out = Scratch() / "out", err = Scratch() / "err";
  fs::remove(out);
  const std::string out_path = out_to.empty() ? out.string() : out_to;
  const std::string in_path = in_from.empty() ? "/dev/null" : in_from;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, in_path.c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out_path.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0644);
  const pid_t pid = SpawnTool(args, env, &actions);
  posix_spawn_file_actions_destroy(&actions);
  ToolResult r;
  if (pid > 0) r.status = ExitStatus(pid);
  r.out = Slurp(out);
  r.err = Slurp(err);
  return r;
}

}  // namespace check_test

#endif  // IPAPP_TESTS_CHECK_RUN_TOOL_H
