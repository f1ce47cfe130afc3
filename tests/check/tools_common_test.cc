// What the tools share: the modules a directory holds and the default places
// of what they load.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ipapp/host.h>
#include <ipapp/tools/failure_text.h>
#include <ipapp/tools/install_paths.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

struct TempDir {
  fs::path path = fs::temp_directory_path() / ("ipapp-tools-test-" + std::to_string(getpid()));
  TempDir() { fs::create_directories(path); }
  ~TempDir() { fs::remove_all(path); }
  fs::path Touch(const std::string &name) const {
    std::ofstream(path / name) << "";
    return path / name;
  }
};

TEST(ModuleNames, EachModuleOnceInOrderWhateverItsRevisions) {
  const TempDir dir;
  for (const char *name : {"zeta.yang", "alpha@2020-01-01.yang", "alpha@2021-06-30.yang",
                           "alpha.yang", "beta@2019-02-03.yang", "notes.txt", "gamma.yin"}) {
    dir.Touch(name);
  }
  EXPECT_THAT(ipapp::host::ModuleNames(dir.path.string()), ElementsAre("alpha", "beta", "zeta"));
  EXPECT_THAT(ipapp::host::ModuleNames((dir.path / "missing").string()), IsEmpty());
}

TEST(FirstExisting, TakesTheFirstThatExistsElseTheFirstNamedNeverAnEmptyOne) {
  const TempDir dir;
  const fs::path there = dir.Touch("there");
  const fs::path missing = dir.path / "sub" / ".." / "missing";
  struct Case {
    const char *what;
    std::vector<fs::path> candidates;
    fs::path expected;
  };
  const std::vector<Case> cases = {
      {"a later one exists", {missing, there}, there},
      {"none exists", {missing, dir.path / "other"}, dir.path / "missing"},
      {"an empty one first", {fs::path(), missing}, dir.path / "missing"},
      {"only empty ones", {fs::path(), fs::path()}, fs::path()},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(ipapp::tools::FirstExisting(c.candidates), c.expected);
  }
}

TEST(FailureText, CallbackFailuresNameThePlaceAndHowTheProcessEnded) {
  EXPECT_EQ(ipapp::tools::CallbackFailureText("v", "/k", "", "boom"),
            "exception from the plug-in in v on /k: boom");
  EXPECT_EQ(ipapp::tools::CallbackFailureText("v", "/k", "crashed", "signal SIGSEGV"),
            "the plug-in crashed in v on /k (signal SIGSEGV)");
  EXPECT_EQ(ipapp::tools::FailureTextWithoutPlace("", "boom"), "boom");
  EXPECT_EQ(ipapp::tools::FailureTextWithoutPlace("aborted", "signal SIGABRT"),
            "the plug-in aborted (signal SIGABRT)");
}

}  // namespace
