// Calls in sequence: the store keeps what it parsed and resolved for the
// last path of a thread and reuses the parts a new path shares with it.
// Whatever came before, a call answers as the first call of a thread does;
// and a call that is not recorded answers as a recorded one.
#include <thread>
#include <vector>

#include "config_xml.h"
#include "platform_fixture.h"

namespace ipapp::test {
namespace {

class StoreSequenceTest : public StoreTest {
 protected:
  // maapi_exists and maapi_get_elem of path, as text.
  std::string Answer(const std::string &path) {
    const std::string exists = std::to_string(maapi_exists(sock_, th_, "%s", path.c_str()));
    return exists + " " + Get(path);
  }
  // The same, from a thread that has made no call before.
  std::string FirstAnswer(const std::string &path) {
    std::string out;
    std::thread([&] { out = Answer(path); }).join();
    return out;
  }
};

std::string Running() {
  return Interfaces(L3("a", V4("10.0.0.1/24", {"10.0.1.1/24", "10.0.2.1/24"}) + Vlan(10)) +
                    L3("bb", V4("10.1.0.1/24") + V6({"2001:db8::1/64"}) + Vlan(20) + Vrf("red")) +
                    L3("c d", Vlan(30)) + Lo("0", LoV4({"1.1.1.1/32", "1.1.1.2/32"}))) +
         Internal(Ospf("l3-a") + Ospf("l3-bb", "ospf", 1, "0.0.0.1") +
                  Ospf("loopback-0", "ospf", 2)) +
         DataFile("routes.xml");
}

TEST_F(StoreSequenceTest, EveryCallAnswersAsTheFirstCallOfAThreadDoes) {
  Load(Running());
  const std::string l3 = "/config/interface/ipapp:l3";
  const std::vector<std::string> paths = {
      l3,  // a list, then entries of it
      l3 + "{a}/ipv4/address/ip",
      l3 + "{a}/ipv4/address/ip",   // the same path again
      l3 + "{bb}/ipv4/address/ip",  // keys of another length, same tail
      l3 + "{a}/lower-layer-if/vlan",
      l3 + "{zz}/lower-layer-if/vlan",  // no such entry
      l3 + "{a}/lower-layer-if/vlan",
      l3 + "{a}/ipv4/address/secondary{10.0.1.1/24}/ip",
      l3 + "{a}/ipv4/address/secondary{10.0.2.1/24}/ip",    // a later element's keys differ
      l3 + "{bb}/ipv4/address/secondary{10.0.2.1/24}/ip",   // keys before keys differ
      l3 + "{a}/ipv4/address/secondary{10.0.2.001/24}/ip",  // keys that do not parse
      l3 + "{a}/ipv4/address/secondary{10.0.2.1/24}/ip",
      l3 + "{\"c d\"}/lower-layer-if/vlan",    // a quoted key
      l3 + "{\"c\\ d\"}/lower-layer-if/vlan",  // with an escape
      l3 + "{a}/lower-layer-if/vlan",
      "/config/interface/l3{a}/lower-layer-if/vlan",    // without the module
      "/config/interface/l3{a}/lower-layer-if/vlan/x",  // below a leaf
      "/config/interface/l3{a}/lower-layer-if",
      "/config/interface/l3[0]/vrf",
      "/config/interface/l3[1]/vrf",   // an index of the same length
      "/config/interface/l3[10]/vrf",  // a longer one, beyond the list
      "/config/interface/l3[1]/vrf",
      "/config/interface/l3[1]x/vrf",  // junk after the index
      "/config/interface/l3[1]/vrf",
      "/config/interface/l3/vrf",  // a list without keys inside the path
      // An index before another index: the later one moves, then differs.
      "/config/interface/l3[0]/ipv4/address/secondary[1]/ip",
      "/config/interface/l3[10]/ipv4/address/secondary[1]/ip",
      "/config/interface/l3[10]/ipv4/address/secondary[0]/ip",
      "/config/interface/l3[0]/ipv4/address/secondary[0]/ip",
      "/config/interface/l3[0]/ipv4/address/secondarx[0]/ip",
      "/config/interface/loopback{0}/ipv4/address[1]/ip",
      "/config/interface/loopback{0}/ipv4/address[0]/ip",
      "/internal/ospf-interface-l3[2]/ospf-pm-if-name",
      "/internal/ospf-interface-l3[1]/ospf-pm-if-name",
      "/internal/ospf-interface-l3[1]/area",  // the tail differs
      "/internal/ospf-interface-l3{1 0.0.0.1 l3-bb}/area",
      "/internal/ospf-interface-l3{1 0.0.0.0 l3-a}/area",
      "/rtmStaticRtEntry-global{ 0 0a:00:00:00 8 0a:00:00:01 }/interface-name",
      "/rtmStaticRtEntry-global{0 0A:00:00:00 8 0a:00:00:01}/interface-name",
      "/rtmStaticRtEntry-global{0 0a:00:00:00 8 0a:00:00:02}/interface-name",
      "/config/interface/l3{a}/vrf/",  // trailing '/'
      "/config/interface/l3{a}/vrf",
      "/config",
  };
  std::string previous = "(none)";
  for (const std::string &path : paths) {
    SCOPED_TRACE("after " + previous + ": " + path);
    const std::string first = FirstAnswer(path);
    EXPECT_EQ(Answer(path), first);
    previous = path;
  }
  EXPECT_TRUE(tx_->Open().empty());
}

TEST_F(StoreSequenceTest, RunningAndCandidateAreToldApartOnOnePath) {
  std::string candidate = Running();
  candidate.replace(candidate.find("<vlan>10</vlan>"), 15, "<vlan>11</vlan>");
  Load(Running(), candidate);
  KxConfdCdbSession cdb(kxconfd_instance_get(host_), CDB_RUNNING, true);
  const std::string vlan = "/config/interface/l3{a}/lower-layer-if/vlan";
  for (int round = 0; round < 2; ++round) {
    int32_t in_candidate = 0;
    int32_t in_running = 0;
    ASSERT_EQ(maapi_get_int32_elem(sock_, th_, &in_candidate, "%s", vlan.c_str()), CONFD_OK);
    ASSERT_EQ(cdb_get_int32(cdb.Socket(), &in_running, "%s", vlan.c_str()), CONFD_OK);
    EXPECT_EQ(in_candidate, 11);
    EXPECT_EQ(in_running, 10);
  }
  // "[N]" is CDB's: the path a CDB call just took is still refused to MAAPI.
  const std::string indexed = "/config/interface/l3[0]/lower-layer-if/vlan";
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(cdb_exists(cdb.Socket(), "%s", indexed.c_str()), 1);
    EXPECT_EQ(maapi_exists(sock_, th_, "%s", indexed.c_str()), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_BADPATH);
  }
}

TEST_F(StoreSequenceTest, ANewTransactionIsReadAfresh) {
  // A new transaction's trees may take the memory of the last one's.
  const std::string vrf = "/config/interface/l3{bb}/vrf";
  for (const char *name : {"red", "blue", "green"}) {
    SCOPED_TRACE(name);
    std::string config = Running();
    config.replace(config.find("<vrf>red</vrf>"), 14, std::string("<vrf>") + name + "</vrf>");
    tx_.reset();
    Load(config);
    EXPECT_EQ(Answer(vrf), std::string("1 ") + name);
  }
}

TEST_F(StoreSequenceTest, CallsNotRecordedAnswerAsRecordedOnes) {
  Load(Running());
  const std::vector<std::string> paths = {
      "/config/interface/l3{a}/ipv4/address/ip",
      "/config/interface/l3{zz}/vrf",
      "/config/interface/l3/vrf",
  };
  std::vector<std::string> recorded;
  for (const std::string &path : paths) recorded.push_back(Answer(path));
  EXPECT_EQ(tx_->Trace().size(), 2 * paths.size());

  tx_->ClearTrace();
  tx_->RecordTrace(false);
  EXPECT_FALSE(tx_->RecordingTrace());
  for (size_t i = 0; i < paths.size(); ++i) {
    SCOPED_TRACE(paths[i]);
    EXPECT_EQ(Answer(paths[i]), recorded[i]);
  }
  // Cursors and duplicated values are still accounted for.
  maapi_cursor mc;
  ASSERT_EQ(maapi_init_cursor(sock_, th_, &mc, "/config/interface/l3"), CONFD_OK);
  confd_value_t v;
  ASSERT_EQ(maapi_get_elem(sock_, th_, &v, "/config/interface/l3{bb}/vrf"), CONFD_OK);
  EXPECT_EQ(tx_->Open().cursors, 1);
  EXPECT_EQ(tx_->Open().dup_values, 1);
  maapi_destroy_cursor(&mc);
  confd_free_value(&v);
  EXPECT_TRUE(tx_->Open().empty());
  EXPECT_TRUE(tx_->Trace().empty());

  tx_->RecordTrace(true);
  Answer(paths[0]);
  ASSERT_EQ(tx_->Trace().size(), 2u);
  EXPECT_EQ(tx_->Trace()[1].detail, "10.0.0.1/24");
}

}  // namespace
}  // namespace ipapp::test
