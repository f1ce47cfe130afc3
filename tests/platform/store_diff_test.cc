// The transaction's changes (diff iteration), XPath in the candidate, CDB
// reads of the running store, and what the host records about a call.
#include <ipapp_ns.h>
#include <kxmw_fault.h>

#include <stdexcept>
#include <vector>

#include "platform_fixture.h"

namespace ipapp::test {
namespace {

std::string L3(const std::string &body) {
  return "<config xmlns=\"urn:ipapp:shellcfg\"><interface>" + body + "</interface></config>";
}

const char kCore1[] = R"(<l3 xmlns="urn:ipapp:ipapp"><name>core1</name>
  <ipv4><address><ip>10.0.0.1/24</ip></address></ipv4>
  <lower-layer-if><vlan>100</vlan></lower-layer-if><vrf>red</vrf></l3>)";

// Records every reported change as "OP path old->new"; answers with the
// policy's verdict.
struct Recorder {
  std::vector<std::string> changes;
  std::function<maapi_iter_ret(const std::string &path, maapi_iter_op op)> policy;
  std::vector<confd_hkeypath_t> keypaths;

  static maapi_iter_ret Iter(confd_hkeypath_t *kp, maapi_iter_op op, confd_value_t *oldv,
                             confd_value_t *newv, void *state) {
    auto *self = static_cast<Recorder *>(state);
    static const char *const names[] = {"?", "CREATED", "DELETED", "MODIFIED", "VALUE_SET"};
    std::string path = KeypathText(*kp);
    std::string line = std::string(names[op]) + " " + path;
    if (oldv || newv) line += " " + (oldv ? Text(*oldv) : "-") + "->" + (newv ? Text(*newv) : "-");
    self->changes.push_back(line);
    self->keypaths.push_back(*kp);
    return self->policy ? self->policy(path, op) : ITER_RECURSE;
  }
};

class StoreDiffTest : public StoreTest {
 protected:
  std::vector<std::string> Diff(const std::string &path, Recorder *rec) {
    EXPECT_EQ(maapi_keypath_diff_iterate(sock_, th_, Recorder::Iter, 0, rec, "%s", path.c_str()),
              CONFD_OK)
        << confd_lasterr();
    return rec->changes;
  }
  std::vector<std::string> Diff(const std::string &path) {
    Recorder rec;
    return Diff(path, &rec);
  }
};

using Lines = std::vector<std::string>;

TEST_F(StoreDiffTest, CreatedEntryIsFollowedByItsContents) {
  Load(L3(kCore1), L3(std::string(kCore1) + R"(<l3 xmlns="urn:ipapp:ipapp"><name>core2</name>
      <ipv4><address><ip>10.0.2.1/24</ip><secondary><ip>10.0.3.1/24</ip></secondary></address></ipv4>
      <lower-layer-if><vlan>200</vlan></lower-layer-if></l3>)"));
  Recorder rec;
  EXPECT_EQ(Diff("/config/interface/l3", &rec),
            (Lines{"CREATED /config/interface/ipapp:l3{core2}",
                   "VALUE_SET /config/interface/ipapp:l3{core2}/ipv4/address/ip -->10.0.2.1/24",
                   "CREATED /config/interface/ipapp:l3{core2}/ipv4/address/secondary{10.0.3.1/24}",
                   "VALUE_SET /config/interface/ipapp:l3{core2}/lower-layer-if/vlan -->200"}));
  // Keypaths: the entry's key innermost, a leaf's tag innermost.
  const confd_hkeypath_t &entry = rec.keypaths[0];
  ASSERT_EQ(entry.len, 4);
  EXPECT_EQ(entry.v[0][0].type, C_BUF);
  EXPECT_EQ(CONFD_GET_XMLTAG(&entry.v[1][0]), static_cast<uint32_t>(ipapp_l3));
  const confd_hkeypath_t &vlan = rec.keypaths[3];
  ASSERT_EQ(vlan.len, 6);
  EXPECT_EQ(CONFD_GET_XMLTAG(&vlan.v[0][0]), static_cast<uint32_t>(ipapp_vlan));
  EXPECT_EQ(CONFD_GET_XMLTAG(&vlan.v[1][0]), static_cast<uint32_t>(ipapp_lower_layer_if));
  EXPECT_STREQ(CONFD_GET_CBUFPTR(&vlan.v[2][0]), "core2");
}

TEST_F(StoreDiffTest, DeletedEntryIsReportedOnceAtTheTop) {
  Load(L3(kCore1), L3(""));
  EXPECT_EQ(Diff("/config/interface/ipapp:l3"),
            (Lines{"DELETED /config/interface/ipapp:l3{core1}"}));
}

TEST_F(StoreDiffTest, ChangedLeavesFollowTheirModifiedParents) {
  Load(L3(std::string(kCore1) + R"(<l3 xmlns="urn:ipapp:ipapp"><name>core2</name></l3>)"),
       L3(R"(<l3 xmlns="urn:ipapp:ipapp"><name>core1</name>
         <ipv4><address><ip>10.0.0.1/24</ip><secondary><ip>10.0.1.1/24</ip></secondary></address></ipv4>
         <vrf>blue</vrf></l3>
         <l3 xmlns="urn:ipapp:ipapp"><name>core2</name></l3>)"));
  // Siblings in schema order; the unchanged entry and non-presence
  // containers are never reported themselves.
  const Lines expected = {
      "MODIFIED /config/interface/ipapp:l3{core1}",
      "CREATED /config/interface/ipapp:l3{core1}/ipv4/address/secondary{10.0.1.1/24}",
      "DELETED /config/interface/ipapp:l3{core1}/lower-layer-if/vlan 100->-",
      "VALUE_SET /config/interface/ipapp:l3{core1}/vrf red->blue"};
  EXPECT_EQ(Diff("/config/interface/l3"), expected);
  // Below an entry: the same changes without the entry itself.
  EXPECT_EQ(Diff("/config/interface/ipapp:l3{core1}"), Lines(expected.begin() + 1, expected.end()));
  EXPECT_TRUE(Diff("/config/interface/ipapp:l3{core2}").empty());
  EXPECT_TRUE(Diff("/config/interface/ipapp:loopback").empty());
}

TEST_F(StoreDiffTest, IndexNamesOneEntryInBothTrees) {
  // [2] is "del" in the running tree and "new one" in the candidate.
  Load(L3(R"(<l3 xmlns="urn:ipapp:ipapp"><name>a</name></l3>
             <l3 xmlns="urn:ipapp:ipapp"><name>b</name></l3>
             <l3 xmlns="urn:ipapp:ipapp"><name>del</name><vrf>x</vrf></l3>
             <l3 xmlns="urn:ipapp:ipapp"><name>z</name><vrf>x</vrf></l3>)"),
       L3(R"(<l3 xmlns="urn:ipapp:ipapp"><name>a</name></l3>
             <l3 xmlns="urn:ipapp:ipapp"><name>b</name></l3>
             <l3 xmlns="urn:ipapp:ipapp"><name>new one</name><vrf>y</vrf></l3>)"));
  struct Case {
    const char *path;
    Lines changes;
  };
  const Case cases[] = {
      {"/config/interface/l3[2]", {"VALUE_SET /config/interface/ipapp:l3{\"new one\"}/vrf -->y"}},
      {"/config/interface/l3[2]/vrf",
       {"VALUE_SET /config/interface/ipapp:l3{\"new one\"}/vrf -->y"}},
      // Only the running tree has a fourth entry.
      {"/config/interface/l3[3]", {"DELETED /config/interface/ipapp:l3{z}/vrf x->-"}},
      {"/config/interface/l3[4]", {}},  // in neither tree: no changes
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.path);
    EXPECT_EQ(Diff(c.path), c.changes);
  }
}

TEST_F(StoreDiffTest, IteratorVerdictsSteerTheWalk) {
  std::string running = L3(R"(<l3 xmlns="urn:ipapp:ipapp"><name>a</name><vrf>x</vrf></l3>
                             <l3 xmlns="urn:ipapp:ipapp"><name>b</name><vrf>x</vrf></l3>)");
  std::string candidate = L3(R"(<l3 xmlns="urn:ipapp:ipapp"><name>a</name><vrf>y</vrf></l3>
                               <l3 xmlns="urn:ipapp:ipapp"><name>b</name><vrf>y</vrf></l3>)");
  Load(running, candidate);
  Recorder skip_a;
  skip_a.policy = [](const std::string &path, maapi_iter_op) {
    return path == "/config/interface/ipapp:l3{a}" ? ITER_CONTINUE : ITER_RECURSE;
  };
  EXPECT_EQ(
      Diff("/config/interface/l3", &skip_a),
      (Lines{"MODIFIED /config/interface/ipapp:l3{a}", "MODIFIED /config/interface/ipapp:l3{b}",
             "VALUE_SET /config/interface/ipapp:l3{b}/vrf x->y"}));
  Recorder stop;
  stop.policy = [](const std::string &, maapi_iter_op) { return ITER_STOP; };
  EXPECT_EQ(Diff("/config/interface/l3", &stop), (Lines{"MODIFIED /config/interface/ipapp:l3{a}"}));
  Recorder stop_at_leaf;
  stop_at_leaf.policy = [](const std::string &, maapi_iter_op op) {
    return op == MOP_VALUE_SET ? ITER_STOP : ITER_RECURSE;
  };
  EXPECT_EQ(Diff("/config/interface/l3", &stop_at_leaf).size(), 2u);
}

TEST_F(StoreDiffTest, IteratorMayReadTheStore) {
  // A callback making calls of its own must not disturb the walk.
  Load(L3(""), L3(kCore1));
  struct State {
    int sock, th;
    std::vector<std::string> seen;
  } state{sock_, th_, {}};
  auto iter = [](confd_hkeypath_t *kp, maapi_iter_op, confd_value_t *, confd_value_t *, void *s) {
    auto *st = static_cast<State *>(s);
    char path[512];
    confd_pp_kpath(path, sizeof path, kp);
    st->seen.push_back(std::string(path) + " " +
                       std::to_string(maapi_exists(st->sock, st->th, "%s", path)));
    return ITER_RECURSE;
  };
  ASSERT_EQ(maapi_keypath_diff_iterate(sock_, th_, iter, 0, &state, "/config/interface/l3"),
            CONFD_OK);
  EXPECT_EQ(state.seen.size(), 4u);
  for (const std::string &line : state.seen) EXPECT_EQ(line.back(), '1') << line;
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
    free(res);
  }
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
    EXPECT_EQ(cdb_num_instances(cdb, "/internal/ospf-interface-l3"), 1);
    char name[64] = "";
    EXPECT_EQ(cdb_get_str(cdb, name, sizeof name, "%s[%d]/ospf-pm-if-name",
                          "/internal/ospf-interface-l3", 0),
              CONFD_OK);
    EXPECT_STREQ(name, "l3-core1");
    EXPECT_EQ(cdb_get_str(cdb, name, 4, "/internal/ospf-interface-l3[0]/ospf-pm-if-name"),
              CONFD_ERR);
    confd_ipv4_prefix prefix{};
    EXPECT_EQ(cdb_get_ipv4_and_plen(cdb, &prefix, "%s",
                                    "/config/interface/loopback{0}/ipv4/address[0]/ip"),
              CONFD_OK);
    EXPECT_EQ(prefix.len, 32);
    EXPECT_EQ(cdb_exists(cdb, "/config/interface/l3{core9}"), 0);
    confd_value_t v;
    ASSERT_EQ(cdb_get(cdb, &v, "/config/interface/l3{core1}/vrf"), CONFD_OK);
    EXPECT_EQ(tx_->Open().dup_values, 1);
    confd_free_value(&v);
    EXPECT_EQ(cdb_get_int32(cdb, &vlan, "/config/interface/l3{core1}/vrf"), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_BADTYPE);
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
}

TEST_F(StoreDiffTest, HostRecordsErrorsFaultsAndCalls) {
  Load(ExampleConfig());
  EXPECT_FALSE(tx_->HasError());
  confd_trans_seterr(ctx_, "%s", "first");
  confd_trans_seterr(ctx_, "%s", "50% of %d");
  EXPECT_TRUE(tx_->HasError());
  EXPECT_EQ(tx_->ErrorText(), "50% of %d");
  tx_->ClearError();
  EXPECT_FALSE(tx_->HasError());

  EXPECT_EQ(kxmw_gen_fault(0, "ReadConfig", "src/lib/config", 452, "Unspecified"), 0);
  ASSERT_EQ(tx_->Faults().size(), 1u);
  EXPECT_EQ(tx_->Faults()[0].function, "ReadConfig");
  EXPECT_EQ(tx_->Faults()[0].line, 452);

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

  EXPECT_GE(kxconfd_maapi_socket_get(host_), 0);
  tx_->FailMaapiSocket(true);
  EXPECT_EQ(kxconfd_maapi_socket_get(host_), -1);
}

}  // namespace
}  // namespace ipapp::test
