// Calls whose path the store formats from printf-style formats, one after
// another on one transaction: whatever the calls before (the same format
// with other numbers, other "%s" texts, another format in the same memory),
// each answers exactly as the first call of a new transaction does: result,
// value, error code, error text and trace record. Calls that are not
// recorded answer the same.
#include <arpa/inet.h>

#include <cstring>
#include <vector>

#include "config_xml.h"
#include "platform_fixture.h"

namespace ipapp::test {
namespace {

// What a format takes: "%s" then "%d", "%d" alone, two "%d", "%s" alone,
// "%u", "%ip4" (the address in s).
enum Args { kStrInt, kInt, kIntInt, kStr, kUint, kIp4 };

struct Step {
  Args args;
  const char *fmt;
  const char *s;
  long long n;
  long long m;
};

struct Outcome {
  int rc = 0;
  std::string value;
  int err = 0;
  std::string lasterr;
  host::TraceEntry record;
};

bool operator==(const Outcome &a, const Outcome &b) {
  return a.rc == b.rc && a.value == b.value && a.err == b.err && a.lasterr == b.lasterr &&
         a.record.call == b.record.call && a.record.path == b.record.path &&
         a.record.result == b.record.result && a.record.detail == b.record.detail;
}

std::ostream &operator<<(std::ostream &os, const Outcome &o) {
  return os << "rc " << o.rc << " value \"" << o.value << "\" errno " << o.err << " lasterr \""
            << o.lasterr << "\" trace {" << o.record.call << " " << o.record.path << " "
            << o.record.result << " " << o.record.detail << "}";
}

std::string Running() {
  return Interfaces(L3("if1", V4("10.0.0.1/24", {"10.0.1.1/24", "10.0.2.1/24"}) + Vlan(1)) +
                    L3("if2", V4("10.1.0.1/24") + Vlan(2) + Vrf("red")) +
                    L3("if10", Vlan(10) + Vrf("blue")) + L3("c d", Vlan(30)) +
                    Lo("0", LoV4({"1.1.1.1/32"}))) +
         Internal(Ospf("l3-if1") + Ospf("l3-if2", "ospf", 1, "0.0.0.1") +
                  Ospf("loopback-0", "ospf", 2));
}

// The data store calls of a step, made on one transaction.
class Caller {
 public:
  explicit Caller(host::Transaction &tx) : tx_(tx) {
    confd_trans_ctx *ctx = tx.Context("test");
    host_ = static_cast<kxconfd_t *>(ctx->vcb_opaque);
    sock_ = kxconfd_maapi_socket_get(host_);
    th_ = ctx->thandle;
    cdb_ = std::make_unique<KxConfdCdbSession>(kxconfd_instance_get(host_), CDB_RUNNING, true);
  }

  // cdb_get_str, or maapi_get_elem, of the step, through fmt and s (the
  // caller's buffers for the step's texts).
  Outcome Read(bool cdb, const Step &step, const char *fmt, const char *s) {
    char buf[64] = "(unset)";
    confd_value_t v;
    v.type = C_NOEXISTS;
    const int n = static_cast<int>(step.n);
    const int m = static_cast<int>(step.m);
    const auto u = static_cast<unsigned int>(step.n);
    const int sock = cdb_->Socket();
    Outcome out;
    switch (step.args) {
      case kStrInt:
        out.rc = cdb ? cdb_get_str(sock, buf, sizeof buf, fmt, s, n)
                     : maapi_get_elem(sock_, th_, &v, fmt, s, n);
        break;
      case kInt:
        out.rc = cdb ? cdb_get_str(sock, buf, sizeof buf, fmt, n)
                     : maapi_get_elem(sock_, th_, &v, fmt, n);
        break;
      case kIntInt:
        out.rc = cdb ? cdb_get_str(sock, buf, sizeof buf, fmt, n, m)
                     : maapi_get_elem(sock_, th_, &v, fmt, n, m);
        break;
      case kStr:
        out.rc = cdb ? cdb_get_str(sock, buf, sizeof buf, fmt, s)
                     : maapi_get_elem(sock_, th_, &v, fmt, s);
        break;
      case kUint:
        out.rc = cdb ? cdb_get_str(sock, buf, sizeof buf, fmt, u)
                     : maapi_get_elem(sock_, th_, &v, fmt, u);
        break;
      case kIp4: {
        in_addr addr{};
        EXPECT_EQ(inet_pton(AF_INET, s, &addr), 1);
        out.rc = cdb ? cdb_get_str(sock, buf, sizeof buf, fmt, &addr)
                     : maapi_get_elem(sock_, th_, &v, fmt, &addr);
        break;
      }
    }
    out.err = out.rc == CONFD_OK ? 0 : confd_errno;
    out.lasterr = out.rc == CONFD_OK ? "" : confd_lasterr();
    if (cdb) {
      out.value = buf;
    } else if (out.rc == CONFD_OK) {
      out.value = Text(v);
      confd_free_value(&v);
    }
    const std::vector<host::TraceEntry> trace = tx_.Trace();
    if (!trace.empty()) out.record = trace.back();
    return out;
  }

 private:
  host::Transaction &tx_;
  kxconfd_t *host_ = nullptr;
  int sock_ = -1;
  int th_ = -1;
  std::unique_ptr<KxConfdCdbSession> cdb_;
};

// Runs steps on one transaction and compares every answer with that of a
// new transaction. The formats and "%s" texts are copied into the same two
// buffers for every step: a change is seen in their contents alone.
void ExpectFirstAnswers(bool cdb, const std::vector<Step> &steps) {
  auto tx = MakeTransaction(Running(), Running());
  Caller caller(*tx);
  auto quiet = MakeTransaction(Running(), Running());
  quiet->RecordTrace(false);
  Caller quiet_caller(*quiet);
  char fmt[128];
  char s[128];
  for (size_t i = 0; i < steps.size(); ++i) {
    const Step &step = steps[i];
    SCOPED_TRACE("step " + std::to_string(i) + ": " + step.fmt + " (" + (step.s ? step.s : "") +
                 ", " + std::to_string(step.n) + ")");
    std::strcpy(fmt, step.fmt);
    std::strcpy(s, step.s ? step.s : "");
    auto fresh = MakeTransaction(Running(), Running());
    const Outcome first = Caller(*fresh).Read(cdb, step, step.fmt, step.s);
    EXPECT_EQ(caller.Read(cdb, step, fmt, s), first);
    Outcome unrecorded = quiet_caller.Read(cdb, step, fmt, s);
    unrecorded.record = first.record;
    EXPECT_EQ(unrecorded, first);
  }
}

TEST(StoreFormatTest, CdbReadsByIndexAnswerAsTheFirstCall) {
  const char *ospf = "/internal/ospf-interface-l3";
  ExpectFirstAnswers(
      true,
      {
          {kStrInt, "%s[%d]/ospf-pm-if-name", ospf, 0, 0},
          {kStrInt, "%s[%d]/ospf-pm-if-name", ospf, 1, 0},
          {kStrInt, "%s[%d]/ospf-pm-if-name", ospf, 1, 0},  // again
          {kStrInt, "%s[%d]/ospf-pm-if-name", ospf, 3, 0},  // beyond
          {kStrInt, "%s[%d]/ospf-pm-if-name", ospf, 2, 0},
          {kStrInt, "%s[%d]/ospf-pm-if-name", ospf, -1, 0},  // negative
          {kStrInt, "%s[%d]/ospf-pm-if-name", ospf, 2, 0},
          {kStrInt, "%s[%d]/ospf-pm-if-name", ospf, 10, 0},  // longer
          {kStrInt, "%s[%d]/ospf-pm-if-name", ospf, 999999999, 0},
          {kStrInt, "%s[%d]/ospf-pm-if-name", ospf, 1000000000, 0},
          {kStrInt, "%s[%d]/ospf-pm-if-name", ospf, 1, 0},
          // Counted up: a carry, and one digit more.
          {kStrInt, "%s[%d]/ospf-pm-if-name", ospf, 8, 0},
          {kStrInt, "%s[%d]/ospf-pm-if-name", ospf, 9, 0},
          {kStrInt, "%s[%d]/ospf-pm-if-name", ospf, 10, 0},
          {kStrInt, "%s[%d]/ospf-pm-if-name", ospf, 19, 0},
          {kStrInt, "%s[%d]/ospf-pm-if-name", ospf, 20, 0},
          {kStrInt, "%s[%d]/ospf-pm-if-name", ospf, 21, 0},
          // Another format in the same memory, the same arguments.
          {kStrInt, "%s[%d]/area", ospf, 1, 0},
          {kStrInt, "%s[%d]/if-name", ospf, 1, 0},
          // The same format, another "%s" text.
          {kStrInt, "%s[%d]/if-name", "/config/interface/l3", 1, 0},
          {kStrInt, "%s[%d]/name", "/config/interface/l3", 1, 0},
          {kStrInt, "%s[%d]/name", "/config/interface/l3", 3, 0},
          {kStrInt, "%s[%d]/name", "/config/interface/loopback", 0, 0},
          {kStrInt, "%s[%d]/name", "/config/interface/loopback", 1, 0},
          {kStrInt, "%s[%d]/name", "/config/interface/nosuch", 0, 0},
          {kStrInt, "%s[%d]/name", "", 0, 0},
          // The number elsewhere than in an index.
          {kInt, "/internal/ospf-interface-l3[%d]/ospf-pm-if-name", nullptr, 2, 0},
          {kInt, "/internal/ospf-interface-l3[%d]/ospf-pm-if-name", nullptr, 0, 0},
          {kInt, "/internal/ospf-interface-l3[1%d]/ospf-pm-if-name", nullptr, 0, 0},
          {kInt, "/internal/ospf-interface-l3[1%d]/ospf-pm-if-name", nullptr, -1, 0},
          {kInt, "/config/interface/l3[%d]/vrf", nullptr, 1, 0},
          {kInt, "/config/interface/l3[%d]/vrf", nullptr, 0, 0},  // no vrf
          {kInt, "/config/interface/l3[%d]/vrf%%", nullptr, 1, 0},
          {kInt, "/config/interface/l3%d/vrf", nullptr, 1, 0},
          {kInt, "/config/interface/l3%d/vrf", nullptr, 2, 0},
          {kInt, "/config/interface/l3[0]/vlan%d", nullptr, 2, 0},
          {kInt, "%d", nullptr, 5, 0},
          // An index before an index; a key after an index.
          {kIntInt, "/config/interface/l3[%d]/ipv4/address/secondary[%d]/ip", nullptr, 0, 1},
          {kIntInt, "/config/interface/l3[%d]/ipv4/address/secondary[%d]/ip", nullptr, 0, 0},
          {kIntInt, "/config/interface/l3[%d]/ipv4/address/secondary[%d]/ip", nullptr, 1, 0},
          {kInt, "/config/interface/l3[%d]/ipv4/address/secondary{10.0.1.1/24}/ip", nullptr, 0, 0},
          {kInt, "/config/interface/l3[%d]/ipv4/address/secondary{10.0.1.1/24}/ip", nullptr, 1, 0},
          // Keys by number: the OSPF instance, a uint32.
          {kInt, "/internal/ospf-interface-l3{%d 0.0.0.1 l3-if2}/if-name", nullptr, 1, 0},
          {kInt, "/internal/ospf-interface-l3{%d 0.0.0.1 l3-if2}/if-name", nullptr, 2, 0},
          {kInt, "/internal/ospf-interface-l3{%d 0.0.0.1 l3-if2}/if-name", nullptr, -1, 0},
          {kUint, "/internal/ospf-interface-l3{%u 0.0.0.0 loopback-0}/if-name", nullptr, 2, 0},
          {kUint, "/internal/ospf-interface-l3{%u 0.0.0.0 loopback-0}/if-name", nullptr,
           4294967295LL, 0},
          {kUint, "/internal/ospf-interface-l3{%u 0.0.0.0 loopback-0}/if-name", nullptr, 2, 0},
      });
}

// Paths taken as they stand, of two tables by turns (each kept in a memo of
// its own), then of a third, a bad one and the first two again.
TEST(StoreFormatTest, ReadsOfTablesByTurnsAnswerAsTheFirstCall) {
  const char *vlan2 = "/config/interface/l3{if2}/lower-layer-if/vlan";
  const char *vlan10 = "/config/interface/l3{if10}/lower-layer-if/vlan";
  const char *ospf1 = "/internal/ospf-interface-l3{1 0.0.0.1 l3-if2}/if-name";
  const char *ospf2 = "/internal/ospf-interface-l3{2 0.0.0.0 loopback-0}/if-name";
  for (bool cdb : {false, true}) {
    SCOPED_TRACE(cdb ? "CDB" : "MAAPI");
    ExpectFirstAnswers(cdb, {
                                {kStr, "%s", vlan2, 0, 0},
                                {kStr, "%s", ospf1, 0, 0},
                                {kStr, "%s", vlan10, 0, 0},
                                {kStr, "%s", ospf2, 0, 0},
                                {kStr, "%s", vlan10, 0, 0},
                                {kStr, "%s", ospf2, 0, 0},
                                {kStr, "%s", "/config/interface/loopback{0}/vrf", 0, 0},
                                {kStr, "%s", "/config/interface/l3{if2/vrf", 0, 0},
                                {kStr, "%s", ospf1, 0, 0},
                                {kStr, "%s", vlan2, 0, 0},
                                {kStr, "%s", "/internal/ospf-interface-l3[1]/if-name", 0, 0},
                                {kStr, "%s", ospf1, 0, 0},
                            });
  }
}

TEST(StoreFormatTest, MaapiReadsByKeyAnswerAsTheFirstCall) {
  const char *l3 = "/config/interface/l3";
  ExpectFirstAnswers(
      false, {
                 {kInt, "/config/interface/l3{if%d}/lower-layer-if/vlan", nullptr, 1, 0},
                 {kInt, "/config/interface/l3{if%d}/lower-layer-if/vlan", nullptr, 2, 0},
                 {kInt, "/config/interface/l3{if%d}/lower-layer-if/vlan", nullptr, 10, 0},
                 {kInt, "/config/interface/l3{if%d}/lower-layer-if/vlan", nullptr, 3, 0},
                 {kInt, "/config/interface/l3{if%d}/lower-layer-if/vlan", nullptr, -1, 0},
                 {kInt, "/config/interface/l3{if%d}/lower-layer-if/vlan", nullptr, 1, 0},
                 {kInt, "/config/interface/l3{if%d}/vrf", nullptr, 1, 0},  // no vrf
                 {kInt, "/config/interface/l3{if%d}/vrf", nullptr, 2, 0},
                 {kInt, "/config/interface/l3{%d}/vrf", nullptr, 2, 0},
                 {kInt, "/config/interface/l3{ if%d }/vrf", nullptr, 10, 0},
                 {kInt, "/config/interface/l3{\"if%d\"}/vrf", nullptr, 10, 0},
                 {kInt, "/config/interface/l3{if%d}/vrf", nullptr, 10, 0},
                 {kInt, "/config/interface/l3{if%d}/vrf", nullptr, 10, 0},  // again
                 {kInt, "/config/interface/l3[%d]/vrf", nullptr, 0, 0},     // CDB's
                 {kStrInt, "%s{if%d}/vrf", l3, 2, 0},
                 {kStrInt, "%s{if%d}/vrf", "/config/interface/loopback", 2, 0},
                 {kStrInt, "%s{if%d}/vrf", l3, 10, 0},
                 {kStr, "/config/interface/l3{%s}/vrf", "if2", 0, 0},
                 {kStr, "/config/interface/l3{%s}/vrf", "if10", 0, 0},
                 {kStr, "/config/interface/l3{%s}/vrf", "c d", 0, 0},
                 {kStr, "/config/interface/l3{%s}/vrf", "", 0, 0},
                 // Keys after the changing one.
                 {kInt, "/config/interface/l3{if%d}/ipv4/address/secondary{10.0.1.1/24}/ip",
                  nullptr, 1, 0},
                 {kInt, "/config/interface/l3{if%d}/ipv4/address/secondary{10.0.1.1/24}/ip",
                  nullptr, 2, 0},
                 {kIntInt, "/internal/ospf-interface-l3{%d 0.0.0.%d l3-if2}/area", nullptr, 1, 1},
                 {kIntInt, "/internal/ospf-interface-l3{%d 0.0.0.%d l3-if2}/area", nullptr, 1, 0},
                 {kIntInt, "/internal/ospf-interface-l3{%d 0.0.0.%d l3-if2}/area", nullptr, 1, 300},
                 {kIntInt, "/internal/ospf-interface-l3{%d 0.0.0.%d l3-if2}/area", nullptr, 1, 1},
                 // An address argument changes, the format stays.
                 {kIp4, "/internal/ospf-interface-l3{1 %ip4 l3-if2}/if-name", "0.0.0.1", 0, 0},
                 {kIp4, "/internal/ospf-interface-l3{1 %ip4 l3-if2}/if-name", "0.0.0.0", 0, 0},
                 {kIp4, "/internal/ospf-interface-l3{1 %ip4 l3-if2}/if-name", "0.0.0.1", 0, 0},
             });
}

// Memos belong to their transaction: a list that changed between two
// transactions, in memory the last one may have left, reads as it is now.
TEST(StoreFormatTest, AListThatChangedBetweenTransactionsReadsAsItIs) {
  for (int rows : {3, 1, 2}) {
    SCOPED_TRACE(std::to_string(rows) + " rows");
    std::string internal;
    for (int r = 0; r < rows; ++r) internal += Ospf("l3-row" + std::to_string(r + rows));
    auto tx = MakeTransaction(Internal(internal), Internal(internal));
    Caller caller(*tx);
    for (int i = 0; i < 3; ++i) {
      const Outcome o = caller.Read(
          true, {kStrInt, "%s[%d]/ospf-pm-if-name", "/internal/ospf-interface-l3", i, 0},
          "%s[%d]/ospf-pm-if-name", "/internal/ospf-interface-l3");
      if (i < rows) {
        EXPECT_EQ(o.rc, CONFD_OK);
        EXPECT_EQ(o.value, "l3-row" + std::to_string(i + rows));
      } else {
        EXPECT_EQ(o.rc, CONFD_ERR);
        EXPECT_EQ(o.err, CONFD_ERR_NOEXISTS);
      }
    }
  }
}

}  // namespace
}  // namespace ipapp::test
