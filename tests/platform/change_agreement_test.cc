// What the commit plan counts as a change (Transaction::Changed) and what the
// plug-in sees of it (maapi_keypath_diff_iterate) must agree: a validation
// that runs on a change its callback cannot see, or misses one it could,
// reads as a plug-in fault on the element.
#include <string>
#include <vector>

#include "platform_fixture.h"

namespace ipapp::test {
namespace {

maapi_iter_ret Collect(confd_hkeypath_t *kp, maapi_iter_op, confd_value_t *, confd_value_t *,
                       void *paths) {
  static_cast<std::vector<std::string> *>(paths)->push_back(KeypathText(*kp));
  return ITER_RECURSE;
}

class ChangeAgreementTest : public StoreTest {
 protected:
  // Whether diff iteration of the whole list reports a change at or below
  // a node whose keypath holds part.
  bool Reported(const std::string &part) {
    std::vector<std::string> paths;
    EXPECT_EQ(maapi_keypath_diff_iterate(sock_, th_, Collect, 0, &paths, "/st:item"), CONFD_OK)
        << confd_lasterr();
    for (const std::string &p : paths) {
      if (p.find(part) != std::string::npos) return true;
    }
    return false;
  }
};

TEST_F(ChangeAgreementTest, CommitPlanAndDiffIterationSeeTheSameChanges) {
  const std::string a = "<name>a</name>";
  struct Case {
    const char *what;
    std::string running;
    std::string candidate;
    bool changed;  // anything below /st:item
  };
  const Case cases[] = {
      {"nothing", Item(a + "<size>1</size>"), Item(a + "<size>1</size>"), false},
      {"a leaf", Item(a + "<size>1</size>"), Item(a + "<size>2</size>"), true},
      {"an empty container is an absent one", Item(a), Item(a + "<inner/>"), false},
      {"a leaf in a container", Item(a + "<inner/>"), Item(a + "<inner><depth>1</depth></inner>"),
       true},
      {"an empty presence container", Item(a), Item(a + "<box/>"), true},
      {"a leaf in a presence container", Item(a + "<box><on>true</on></box>"),
       Item(a + "<box><on>false</on></box>"), true},
      {"a leaf-list value", Item(a + "<tag>x</tag>"), Item(a + "<tag>x</tag><tag>y</tag>"), true},
      {"leaf-list values in another order", Item(a + "<tag>x</tag><tag>y</tag>"),
       Item(a + "<tag>y</tag><tag>x</tag>"), false},
      {"a nested entry", Item(a + "<sub><id>1</id></sub>"), Item(a + "<sub><id>2</id></sub>"),
       true},
      {"an entry renamed", Item(a), Item("<name>b</name>"), true},
      {"an entry added", Item(a), Item(a) + Item("<name>b</name>"), true},
      {"all entries removed", Item(a), "", true},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    LoadTypes(c.running, c.candidate);
    EXPECT_EQ(tx_->Changed("/st:item"), c.changed);
    EXPECT_EQ(Reported("item"), c.changed);
    for (const char *below : {"inner", "box", "tag", "sub"}) {
      SCOPED_TRACE(below);
      EXPECT_EQ(tx_->Changed(std::string("/st:item/") + below), Reported(std::string("/") + below));
    }
  }
}

}  // namespace
}  // namespace ipapp::test
