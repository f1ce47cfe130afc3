// Runs the built ipapp-check as a user would and collects what it did.
#ifndef IPAPP_TESTS_CHECK_RUN_TOOL_H
#define IPAPP_TESTS_CHECK_RUN_TOOL_H

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

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

/// Runs ipapp-check with args (no quotes inside); env is prepended to the
/// command ("NAME=value ..."), stdout goes to out_to when given.
inline ToolResult RunTool(const std::vector<std::string> &args, const std::string &env = "",
                          const std::string &out_to = "") {
  fs::create_directories(Scratch());
  const fs::path out = Scratch() / "out", err = Scratch() / "err";
  std::string cmd = env.empty() ? "" : env + " ";
  cmd += IPAPP_CHECK_EXE;
  for (const std::string &a : args) cmd += " '" + a + "'";
  cmd += " >" + (out_to.empty() ? out.string() : out_to) + " 2>" + err.string();
  fs::remove(out);
  ToolResult r;
  int rc = std::system(cmd.c_str());
  if (rc != -1 && WIFEXITED(rc)) r.status = WEXITSTATUS(rc);
  r.out = Slurp(out);
  r.err = Slurp(err);
  return r;
}

}  // namespace check_test

#endif  // IPAPP_TESTS_CHECK_RUN_TOOL_H
