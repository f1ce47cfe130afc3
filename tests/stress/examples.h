// The bundled example commits, for tests that run them all.
#ifndef IPAPP_TESTS_STRESS_EXAMPLES_H
#define IPAPP_TESTS_STRESS_EXAMPLES_H

#include <ipapp/host.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "host_fixture.h"

namespace stress_test {

inline std::string ExampleDir() {
  return std::string(IPAPP_SOURCE_DIR) + "/examples/";
}

/// Every candidate of examples/, sorted by name.
inline std::vector<std::string> Candidates() {
  std::vector<std::string> names;
  for (const auto &entry : std::filesystem::directory_iterator(ExampleDir())) {
    const std::string name = entry.path().filename().string();
    const std::string ext = entry.path().extension().string();
    if (name == "running.xml" || name == "expected.json") continue;  // no candidates
    if (ext == ".xml" || ext == ".json") names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

/// The commit of one candidate on the examples' running configuration.
inline std::unique_ptr<ipapp::host::Transaction> ExampleCommit(const std::string &candidate) {
  return ipapp::host::Transaction::Create(
      ipapp::test::TestSchema(), ipapp::host::DataSource::File(ExampleDir() + "running.xml"),
      ipapp::host::DataSource::File(ExampleDir() + candidate));
}

}  // namespace stress_test

#endif  // IPAPP_TESTS_STRESS_EXAMPLES_H
