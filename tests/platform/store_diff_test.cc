// The transaction's changes (diff iteration), XPath in the candidate, CDB
// reads of the running store, and what the host records about a call.

#include <cstring>
#include <functional>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <vector>

#include "config_xml.h"
#include "platform_fixture.h"

namespace ipapp::test {
namespace {

const std::string kCore1 = L3("core1", V4("10.0.0.1/24") + Vlan(100) + Vrf("red"));

// Records every reported change as "OP path old->new"; answers with the
// policy's verdict.
struct Recorder {
  std::vector<std::string> changes;
  std::function<maapi_iter_ret(const std::string &path, maapi_iter_op op)> policy;

  static maapi_iter_ret Iter(confd_hkeypath_t *kp, maapi_iter_op op, confd_value_t *oldv,
                             confd_value_t *newv, void *state) {
    auto *self = static_cast<Recorder *>(state);
    static const char *const names[] = {"?", "CREATED", "DELETED", "MODIFIED", "VALUE_SET"};
    std::string path = KeypathText(*kp);
    std::string line = std::string(names[op]) + " " + path;
    if (oldv != nullptr) line += " oldv!";  // confd_lib_maapi(3): always NULL
    if (newv != nullptr) line += " =" + Text(*newv);
    // Callbacks read fixed depths without looking at len: every element
    // beyond the path must read as absent, or they read garbage.
    for (int i = kp->len; i < MAXDEPTH; ++i) {
      if (kp->v[i][0].type != C_NOEXISTS) {
        line += " (v[" + std::to_string(i) + "] not absent)";
        break;
      }
    }
    self->changes.push_back(line);
    return self->policy ? self->policy(path, op) : ITER_RECURSE;
  }
};

// Fills the stack that the next call will use with a pattern, so that a
// keypath element the store leaves unset is not absent by chance.
__attribute__((noinline)) void DirtyStack() {
  volatile unsigned char junk[64 * 1024];
  for (size_t i = 0; i < sizeof junk; ++i) junk[i] = 0xa5;
}

class StoreDiffTest : public StoreTest {
 protected:
  std::vector<std::string> Diff(const std::string &path, Recorder *rec, int flags = 0) {
    DirtyStack();
    EXPECT_EQ(
        maapi_keypath_diff_iterate(sock_, th_, Recorder::Iter, flags, rec, "%s", path.c_str()),
        CONFD_OK)
        << confd_lasterr();
    return rec->changes;
  }
  std::vector<std::string> Diff(const std::string &path, int flags = 0) {
    Recorder rec;
    return Diff(path, &rec, flags);
  }
};

using Lines = std::vector<std::string>;

TEST_F(StoreDiffTest, CreatedEntryIsFollowedByItsContents) {
  Load(Interfaces(kCore1),
       Interfaces(kCore1 + L3("core2", V4("10.0.2.1/24", {"10.0.3.1/24"}) + Vlan(200))));
  EXPECT_EQ(Diff("/config/interface/l3"),
            (Lines{"CREATED /config/interface/ipapp:l3{core2}",
                   "VALUE_SET /config/interface/ipapp:l3{core2}/ipv4/address/ip =10.0.2.1/24",
                   "CREATED /config/interface/ipapp:l3{core2}/ipv4/address/secondary{10.0.3.1/24}",
                   "VALUE_SET /config/interface/ipapp:l3{core2}/lower-layer-if/vlan =200"}));
  // A deleted entry is reported once, at the top.
  Load(Interfaces(kCore1), Interfaces(""));
  EXPECT_EQ(Diff("/config/interface/ipapp:l3"),
            (Lines{"DELETED /config/interface/ipapp:l3{core1}"}));
}

TEST_F(StoreDiffTest, EntriesOfBothTreesMergeInKeyOrder) {
  auto l3s = [](std::initializer_list<const char *> names) {
    std::string body;
    for (const char *name : names) body += L3(name);
    return Interfaces(body);
  };
  auto vrf_indexes = [](std::initializer_list<int> indexes) {
    std::string rows;
    for (int index : indexes) rows += E("indexTOstring", E("index", std::to_string(index)));
    return Internal(E("vrf-config", rows));
  };
  const std::string l3 = "/config/interface/ipapp:l3";
  const std::string vrf = "/internal/vrf-config/indexTOstring";
  const struct {
    const char *name;
    std::string running, candidate, list;
    Lines expected;  // unchanged entries are never reported
  } cases[] = {
      {"created before the others",
       l3s({"core1", "core2"}),
       l3s({"a", "core1", "core2"}),
       l3,
       {"CREATED " + l3 + "{a}"}},
      {"created between", l3s({"a", "c"}), l3s({"a", "b", "c"}), l3, {"CREATED " + l3 + "{b}"}},
      {"created after", l3s({"a", "b"}), l3s({"a", "b", "c"}), l3, {"CREATED " + l3 + "{c}"}},
      {"deleted first",
       l3s({"a", "core1", "core2"}),
       l3s({"core1", "core2"}),
       l3,
       {"DELETED " + l3 + "{a}"}},
      {"one replaces another",
       l3s({"b", "c"}),
       l3s({"a", "c"}),
       l3,
       {"CREATED " + l3 + "{a}", "DELETED " + l3 + "{b}"}},
      {"numeric keys",
       vrf_indexes({10, 100}),
       vrf_indexes({9, 10, 100}),
       vrf,
       {"CREATED " + vrf + "{9}"}},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    Load(c.running, c.candidate);
    EXPECT_EQ(Diff(c.list), c.expected);
  }
}

TEST_F(StoreDiffTest, ChangedLeavesFollowTheirModifiedParents) {
  Load(Interfaces(kCore1 + L3("core2")),
       Interfaces(L3("core1", V4("10.0.0.1/24", {"10.0.1.1/24"}) + Vrf("blue")) + L3("core2")));
  // Siblings in schema order; the unchanged entry and non-presence
  // containers are never reported themselves.
  const Lines expected = {
      "MODIFIED /config/interface/ipapp:l3{core1}",
      "CREATED /config/interface/ipapp:l3{core1}/ipv4/address/secondary{10.0.1.1/24}",
      "DELETED /config/interface/ipapp:l3{core1}/lower-layer-if/vlan",
      "VALUE_SET /config/interface/ipapp:l3{core1}/vrf =blue"};
  EXPECT_EQ(Diff("/config/interface/l3"), expected);
  // Below an entry: the same changes without the entry itself.
  EXPECT_EQ(Diff("/config/interface/ipapp:l3{core1}"), Lines(expected.begin() + 1, expected.end()));
  EXPECT_TRUE(Diff("/config/interface/ipapp:l3{core2}").empty());
  EXPECT_TRUE(Diff("/config/interface/ipapp:loopback").empty());
}

// confd_lib_maapi(3): ITER_CONTINUE skips a node's children, ITER_STOP
// ends the walk, ITER_UP skips the rest of the siblings, and ITER_SUSPEND
// needs maapi_diff_iterate_resume, which the store refuses to pretend.
TEST_F(StoreDiffTest, IteratorVerdictsSteerTheWalk) {
  Load(Interfaces(L3("a", V4("10.0.0.1/24") + Vrf("x")) + L3("b", Vrf("x"))),
       Interfaces(L3("a", V4("10.0.0.2/24", {"10.0.1.1/24"}) + Vrf("y") + Vlan(5)) +
                  L3("b", Vrf("y"))));
  const struct {
    const char *name;
    std::function<maapi_iter_ret(const std::string &, maapi_iter_op)> policy;
    Lines expected;
  } cases[] = {
      {"continue past a",
       [](const std::string &path, maapi_iter_op) {
         return path == "/config/interface/ipapp:l3{a}" ? ITER_CONTINUE : ITER_RECURSE;
       },
       {"MODIFIED /config/interface/ipapp:l3{a}", "MODIFIED /config/interface/ipapp:l3{b}",
        "VALUE_SET /config/interface/ipapp:l3{b}/vrf =y"}},
      {"stop",
       [](const std::string &, maapi_iter_op) { return ITER_STOP; },
       {"MODIFIED /config/interface/ipapp:l3{a}"}},
      {"up from every leaf",  // the secondary, a sibling of the first, is skipped
       [](const std::string &, maapi_iter_op op) {
         return op == MOP_VALUE_SET ? ITER_UP : ITER_RECURSE;
       },
       {"MODIFIED /config/interface/ipapp:l3{a}",
        "VALUE_SET /config/interface/ipapp:l3{a}/ipv4/address/ip =10.0.0.2/24",
        "VALUE_SET /config/interface/ipapp:l3{a}/lower-layer-if/vlan =5",
        "VALUE_SET /config/interface/ipapp:l3{a}/vrf =y", "MODIFIED /config/interface/ipapp:l3{b}",
        "VALUE_SET /config/interface/ipapp:l3{b}/vrf =y"}},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    Recorder rec;
    rec.policy = c.policy;
    EXPECT_EQ(Diff("/config/interface/l3", &rec), c.expected);
  }
  Recorder suspend;
  suspend.policy = [](const std::string &, maapi_iter_op) { return ITER_SUSPEND; };
  EXPECT_EQ(maapi_keypath_diff_iterate(sock_, th_, Recorder::Iter, 0, &suspend, "/config"),
            CONFD_ERR);
  EXPECT_EQ(confd_errno, CONFD_ERR_PROTOUSAGE);
  EXPECT_EQ(suspend.changes.size(), 1u);
  // confd_lib_maapi(3) paths take no "[N]".
  EXPECT_EQ(maapi_keypath_diff_iterate(sock_, th_, Recorder::Iter, 0, &suspend,
                                       "/config/interface/l3[0]"),
            CONFD_ERR);
  EXPECT_EQ(confd_errno, CONFD_ERR_BADPATH);
}

// confd_lib_maapi(3): a modified presence container is reported only with
// ITER_WANT_P_CONTAINER; created and deleted ones always are.
TEST_F(StoreDiffTest, PresenceContainersAreReportedOnRequest) {
  LoadTypes(Item("<name>a</name><box><on>true</on></box>") + Item("<name>b</name>"),
            Item("<name>a</name><box><on>false</on></box>") +
                Item("<name>b</name><box><on>true</on></box>"));
  EXPECT_EQ(Diff("/st:item"),
            (Lines{"MODIFIED /item{a}", "VALUE_SET /item{a}/box/on =false", "MODIFIED /item{b}",
                   "CREATED /item{b}/box", "VALUE_SET /item{b}/box/on =true"}));
  EXPECT_EQ(
      Diff("/st:item", ITER_WANT_P_CONTAINER),
      (Lines{"MODIFIED /item{a}", "MODIFIED /item{a}/box", "VALUE_SET /item{a}/box/on =false",
             "MODIFIED /item{b}", "CREATED /item{b}/box", "VALUE_SET /item{b}/box/on =true"}));
}

// A leaf-list's values are compared, not counted; the store keeps them in
// value order, so the order written is no change.
TEST_F(StoreDiffTest, LeafListValuesAreComparedNotCounted) {
  auto tags = [](std::initializer_list<const char *> values) {
    std::string body = "<name>a</name>";
    for (const char *v : values) body += std::string("<tag>") + v + "</tag>";
    return Item(body);
  };
  const struct {
    const char *name;
    std::string running, candidate;
    Lines expected;
  } cases[] = {
      {"one value replaced",
       tags({"x", "y"}),
       tags({"x", "z"}),
       {"MODIFIED /item{a}", "DELETED /item{a}/tag{y}", "CREATED /item{a}/tag{z}"}},
      {"the first value removed",
       tags({"x", "y"}),
       tags({"y"}),
       {"MODIFIED /item{a}", "DELETED /item{a}/tag{x}"}},
      {"written in another order", tags({"x", "y"}), tags({"y", "x"}), {}},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    LoadTypes(c.running, c.candidate);
    EXPECT_EQ(Diff("/st:item"), c.expected);
    EXPECT_EQ(tx_->Changed("/st:item"), !c.expected.empty());
    EXPECT_EQ(tx_->Changed("/st:item/st:tag"), !c.expected.empty());
  }
}

TEST_F(StoreDiffTest, XpathEvaluatesInTheCandidateWithAContextPath) {
  Load(DataFile("internal.xml"), ExampleConfig());
  struct Case {
    const char *expr;
    const char *context;
    const char *result;
  };
  const Case cases[] = {
      {"ospf-interface-l3[ospf-pm-if-name='l3-core1']/ospf-pm-if-name", "/internal", "l3-core1"},
      {"ospf-interface-l3[ospf-pm-if-name='l3-x']/ospf-pm-if-name", "/internal", ""},
      {"ospfv3-interface-l3[ospfv3-pm-if-name='l3-core1']/ospfv3-pm-if-name", "/internal",
       "l3-core1"},
      {"ospfv3-interface-l3[ospfv3-pm-if-name='l3-core1']/ospfv3-pm-if-index", "/internal", "1100"},
      {"vrf", "/config/interface/l3{core1}", "red"},  // only in the candidate
      {"vrf", "/config/interface/l3{nosuch}", ""},
      // The root as context; an absent context leaves the root.
      {"internal/vrf-config/indexTOstring[index=1]/vname", "/", "red"},
      {"internal/vrf-config/indexTOstring[index=1]/vname", "", "red"},
      {"/internal/vrf-config/indexTOstring[index=1]/vname", "/config/interface/l3{nosuch}", "red"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.expr);
    char *res = nullptr;
    ASSERT_EQ(maapi_xpath_eval_expr(sock_, th_, c.expr, &res, nullptr, "%s", c.context), CONFD_OK)
        << confd_lasterr();
    ASSERT_NE(res, nullptr);
    EXPECT_STREQ(res, c.result);
    if (res[0] != '\0') free(res);  // an empty result stays the transaction's
  }
  // Each empty result is open (on the element it leaks) until the
  // transaction ends, which releases it.
  EXPECT_EQ(tx_->Open().xpath_results, 2);
  std::vector<host::OpenItem> open = tx_->OpenItems();
  ASSERT_EQ(open.size(), 2u);
  EXPECT_EQ(open[0].kind, "XPath result");
  EXPECT_EQ(open[0].call, "maapi_xpath_eval_expr");
  EXPECT_EQ(open[0].path, "ospf-interface-l3[ospf-pm-if-name='l3-x']/ospf-pm-if-name in /internal");
  struct Refused {
    const char *expr;
    const char *context;
    int err;
    const char *why;
  };
  const Refused refused[] = {
      {"ospf-interface-l3[", "/internal", CONFD_ERR_XPATH, "cannot evaluate"},
      {"count(ospf-interface-l3)", "/internal", CONFD_ERR_XPATH,
       "cannot evaluate \"count(ospf-interface-l3)\": the result is not a node set"},
      {"vname", "/internal/vrf-config/indexTOstring", CONFD_ERR_BADPATH,
       "\"/internal/vrf-config/indexTOstring\": a list without keys or index is no context node"},
  };
  for (const Refused &r : refused) {
    SCOPED_TRACE(r.expr);
    char *res = nullptr;
    EXPECT_EQ(maapi_xpath_eval_expr(sock_, th_, r.expr, &res, nullptr, "%s", r.context), CONFD_ERR);
    EXPECT_EQ(confd_errno, r.err);
    EXPECT_NE(std::string(confd_lasterr()).find(r.why), std::string::npos) << confd_lasterr();
    EXPECT_EQ(res, nullptr);
  }
}

TEST_F(StoreDiffTest, CdbSessionsReadTheRunningStore) {
  std::string candidate = ExampleConfig();
  candidate.replace(candidate.find("<vlan>100</vlan></lower"), 16, "<vlan>200</vlan>");
  Load(ExampleConfig(), candidate);
  int32_t vlan = 0;
  ASSERT_EQ(
      maapi_get_int32_elem(sock_, th_, &vlan, "/config/interface/l3{core1}/lower-layer-if/vlan"),
      CONFD_OK);
  EXPECT_EQ(vlan, 200);
  {
    KxConfdCdbSession session(kxconfd_instance_get(host_), CDB_RUNNING, true);
    int cdb = session.Socket();
    EXPECT_EQ(tx_->Open().cdb_sessions, 1);
    EXPECT_EQ(cdb_get_int32(cdb, &vlan, "/config/interface/l3{%s}/lower-layer-if/vlan", "core1"),
              CONFD_OK);
    EXPECT_EQ(vlan, 100);
    // Typed reads are exercised by the handlers; here their failures, and
    // the terminating NUL that must fit the caller's buffer too.
    const struct {
      int size, result;
    } reads[] = {{4, CONFD_ERR}, {8, CONFD_ERR}, {9, CONFD_OK}};  // "l3-core1" has 8 bytes
    for (const auto &[size, result] : reads) {
      SCOPED_TRACE(size);
      char name[16];
      std::memset(name, '#', sizeof name);
      EXPECT_EQ(cdb_get_str(cdb, name, size, "/internal/ospf-interface-l3[0]/ospf-pm-if-name"),
                result);
      if (result == CONFD_ERR) {
        EXPECT_EQ(confd_errno, CONFD_ERR_PROTOUSAGE);
      }
      EXPECT_EQ(std::string(name + size, sizeof name - size), std::string(sizeof name - size, '#'));
      if (result == CONFD_OK) {
        EXPECT_STREQ(name, "l3-core1");
      }
    }
    EXPECT_EQ(cdb_exists(cdb, "/config/interface/l3{core9}"), 0);
    confd_value_t v;
    ASSERT_EQ(cdb_get(cdb, &v, "/config/interface/l3{core1}/vrf"), CONFD_OK);
    EXPECT_EQ(tx_->Open().dup_values, 1);
    confd_free_value(&v);
    EXPECT_EQ(cdb_get_int32(cdb, &vlan, "/config/interface/l3{core1}/vrf"), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_BADTYPE);
    // CDB paths keep "[N]"; a bad index is refused without overflowing on the way.
    for (const char *index : {"x", "99999999999999999999"}) {
      SCOPED_TRACE(index);
      const std::string path = std::string("/config/interface/l3[") + index + "]/vrf";
      EXPECT_EQ(cdb_exists(cdb, "%s", path.c_str()), CONFD_ERR);
      EXPECT_EQ(confd_errno, CONFD_ERR_BADPATH);
      EXPECT_EQ(std::string(confd_lasterr()),
                "cdb_exists: \"" + path + "\": bad path: bad index \"[" + index + "]\"");
    }
  }
  EXPECT_TRUE(tx_->Open().empty());

  // Refused sessions throw with the reason; nothing stays open.
  tx_->FailCdbSessions(true);
  try {
    KxConfdCdbSession session(kxconfd_instance_get(host_), CDB_RUNNING, true);
    ADD_FAILURE() << "session opened";
  } catch (const std::runtime_error &e) {
    EXPECT_STREQ(e.what(),
                 "CDB session: cdb_start_session: the data store refuses CDB sessions for this "
                 "transaction");
  }
  EXPECT_TRUE(tx_->Open().empty());
  EXPECT_EQ(cdb_get_int32(12345, &vlan, "/config/interface/l3{core1}/lower-layer-if/vlan"),
            CONFD_ERR);

  // confd_lib_cdb(3): CDB_PRE_COMMIT_RUNNING outside a subscription
  // notification fails with CONFD_ERR_NOEXISTS.
  tx_->FailCdbSessions(false);
  EXPECT_THROW(KxConfdCdbSession(kxconfd_instance_get(host_), CDB_PRE_COMMIT_RUNNING, true),
               std::runtime_error);
  EXPECT_EQ(confd_errno, CONFD_ERR_NOEXISTS);
  EXPECT_TRUE(tx_->Open().empty());
}

TEST_F(StoreDiffTest, HostRecordsErrorsAndCalls) {
  Load(ExampleConfig());
  EXPECT_FALSE(tx_->HasError());
  confd_trans_seterr(ctx_, "%s", "first");
  confd_trans_seterr(ctx_, "%s", "50% of %d");
  EXPECT_TRUE(tx_->HasError());
  EXPECT_EQ(tx_->ErrorText(), "50% of %d");
  tx_->ClearError();
  EXPECT_FALSE(tx_->HasError());

  tx_->ClearTrace();
  maapi_exists(sock_, th_, "/config/interface/l3{%s}/vrf", "core1");
  Get("/config/interface/l3{core1}/lower-layer-if/vlan");
  std::vector<host::TraceEntry> trace = tx_->Trace();
  ASSERT_GE(trace.size(), 2u);
  EXPECT_EQ(trace[0].call, "maapi_exists");
  EXPECT_EQ(trace[0].path, "/config/interface/l3{core1}/vrf");
  EXPECT_EQ(trace[0].result, 1);
  EXPECT_EQ(trace[1].call, "maapi_get_elem");
  EXPECT_EQ(trace[1].detail, "100");
}

}  // namespace
}  // namespace ipapp::test
