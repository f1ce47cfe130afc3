// The test host: modules and their bindings, strict data loading, the
// commit checker's queries, and the element services.
#include <id_vrf.h>
#include <ifuid.h>
#include <unistd.h>

#include <filesystem>

#include "config_xml.h"
#include "platform_fixture.h"

namespace ipapp::test {
namespace {

// Which validations each node runs is pinned down by the checker's commit
// plan; here the order of the nodes and what l3 depends on.
TEST(HostSchemaTest, BoundNodesFollowTheElementsOrder) {
  const auto &nodes = TestSchema()->bound_nodes();
  std::vector<std::string> paths;
  for (const auto &n : nodes) paths.push_back(n.path);
  EXPECT_EQ(paths,
            (std::vector<std::string>{
                "/config/interface/ipapp:l3", "/config/interface/ipapp:loopback",
                "/config/interface/ipapp:mgmt", "/QX-RTM-MIB/rtmStaticRtTable/rtmStaticRtEntry",
                "/internal/int-ldp-intf-l3"}));
  EXPECT_EQ(
      nodes[0].dependencies,
      (std::vector<std::string>{"/config/interface/ipapp:loopback", "/config/interface/ipapp:mgmt",
                                "/QX-RTM-MIB/rtmStaticRtTable", "/rtmStaticRtEntry-global",
                                "/internal/int-ldp-intf-l3"}));
}

TEST(HostSchemaTest, UnreadableModulesAreInputErrors) {
  EXPECT_THROW(host::Schema::Load("/nonexistent/yang"), host::InputError);

  namespace fs = std::filesystem;
  fs::path dir = fs::temp_directory_path() / ("platform_test_yang_" + std::to_string(getpid()));
  fs::create_directories(dir);
  for (const auto &entry : fs::directory_iterator(IPAPP_YANG_DIR)) {
    fs::copy_file(entry.path(), dir / entry.path().filename(),
                  fs::copy_options::overwrite_existing);
  }
  {
    std::ofstream broken(dir / "rtm-global.yang", std::ios::trunc);
    broken << "module rtm-global {\n  yang-version 1.1;\n  namespace \"urn:ipapp:rtm-global\";\n"
              "  prefix rtm-global;\n  leaf x { type nosuchtype; }\n}\n";
  }
  try {
    host::Schema::Load(dir.string());
    ADD_FAILURE() << "loaded";
  } catch (const host::InputError &e) {
    EXPECT_EQ(e.source(), (dir / "rtm-global.yang").string());
    EXPECT_NE(e.message().find("nosuchtype"), std::string::npos) << e.message();
  }
  fs::remove_all(dir);
}

TEST(HostDataTest, BadDataNamesItsSourceAndLine) {
  // The fault on line 3.
  auto l3 = [](const std::string &body) { return Interfaces("\n" + L3("x", "\n" + body)); };
  const struct {
    std::string xml;
    const char *message_part;
  } cases[] = {
      {l3(E("lower-layer-if", E("vlan", "abc"))), "Invalid type int32 value \"abc\""},
      {l3(E("vlan", "1")), "vlan"},
      {l3(V4("10.0.0.1/280")), "10.0.0.1/280"},
      {"<config xmlns=\"urn:ipapp:shellcfg\">\n<interface>\n</config>", ""},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.xml);
    try {
      MakeTransaction("", c.xml);
      ADD_FAILURE() << "accepted";
    } catch (const host::InputError &e) {
      EXPECT_EQ(e.source(), "<candidate>");
      EXPECT_EQ(e.line(), 3);
      EXPECT_NE(e.message().find(c.message_part), std::string::npos) << e.message();
      EXPECT_EQ(std::string(e.what()).rfind("<candidate>:3: ", 0), 0u);
    }
  }
  // The store's own conversion refuses what the pattern lets through.
  EXPECT_THROW(MakeTransaction(Interfaces(L3("x", V6({"1:2:3:4:5:6:7:8:9/64"}))), ""),
               host::InputError);
  EXPECT_THROW(host::DataSource::File("config.txt"), host::InputError);
}

// Where libyang locates a refusal by position ("[1]", the first instance),
// the line is that instance's own, in JSON as in XML: never the list's name.
TEST(HostDataTest, InstancesLocatedByPositionHaveTheirOwnLine) {
  const std::string sample = "<sample xmlns=\"urn:ipapp:store-types\">";
  const struct {
    host::DataSource source;
    int line;
  } cases[] = {
      {host::DataSource::Xml("\n" + sample + "1</sample>\n" + sample + "2</sample>", "s.xml"), 2},
      {host::DataSource::Json("{\"store-types:sample\": [\n  1,\n  2\n]}", "s.json"), 2},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.source.name);
    try {
      host::Transaction::Create(TypesSchema(), host::DataSource::Empty(), c.source);
      ADD_FAILURE() << "accepted";
    } catch (const host::InputError &e) {
      EXPECT_EQ(e.line(), c.line) << e.what();
      EXPECT_NE(e.message().find("\"/store-types:sample[1]\""), std::string::npos) << e.message();
    }
  }
}

TEST(HostDataTest, KeysThatDifferOnlyInSpellingAreOneEntryGivenTwice) {
  // The same route, its network spelled in lower and in upper case.
  const std::string route = Route("10.0.0.0", 8, "10.0.0.1");
  std::string upper = route;
  upper.replace(upper.find("0a:00:00:00"), 11, "0A:00:00:00");
  struct Case {
    std::string xml;
    const char *message;
  };
  const Case cases[] = {
      {Interfaces(L3("a", V6({"2001:db8::1/64", "2001:DB8::1/64", "2001:db8:0::1/64"}))),
       "entry /config/interface/ipapp:l3{a}/ipv6/address{2001:db8::1/64} is given twice: "
       "{2001:db8::1/64} and {2001:DB8::1/64} are the same key"},
      {Routes(route + upper),
       "entry /QX-RTM-MIB/rtmStaticRtTable/rtmStaticRtEntry{0 ipv4 0a:00:00:00 8 ipv4 "
       "0a:00:00:01} is given twice: {0 ipv4 0a:00:00:00 8 ipv4 0a:00:00:01} and "
       "{0 ipv4 0A:00:00:00 8 ipv4 0a:00:00:01} are the same key"},
  };
  // The running side as well: it is indexed without keeping libyang's data.
  for (const bool running : {false, true}) {
    for (const Case &c : cases) {
      SCOPED_TRACE(std::string(running ? "running: " : "candidate: ") + c.message);
      try {
        host::DataSource dup = host::DataSource::Xml(c.xml, "dup.xml");
        host::Transaction::Create(TestSchema(), running ? dup : host::DataSource::Empty(),
                                  running ? host::DataSource::Empty() : dup);
        ADD_FAILURE() << "accepted";
      } catch (const host::InputError &e) {
        EXPECT_EQ(e.source(), "dup.xml");
        EXPECT_EQ(e.message(), c.message);
      }
    }
  }
}

TEST(HostDataTest, JsonDataIsAcceptedLikeXml) {
  auto tx = host::Transaction::Create(
      TestSchema(), host::DataSource::Empty(),
      host::DataSource::Json(R"({"shellcfg:config": {"interface": {"ipapp:l3": [
          {"name": "core1", "vrf": "red"}]}}})"));
  EXPECT_EQ(tx->Instances("/config/interface/l3"),
            (std::vector<std::string>{"/config/interface/ipapp:l3{core1}"}));
}

TEST(HostDataTest, ChangedComparesRunningAndCandidateBelowASchemaNode) {
  std::string running = ExampleConfig();
  std::string candidate = running;
  candidate.replace(candidate.find("<vrf>red</vrf>"), 14, "<vrf>blue</vrf>");
  auto tx = MakeTransaction(running, candidate);
  struct Case {
    const char *path;
    bool changed;
  };
  const Case cases[] = {
      {"/config/interface/ipapp:l3", true},
      {"/shellcfg:config/shellcfg:interface/ipapp:l3/ipapp:vrf", true},
      {"/config/interface/l3/ipv4", false},
      {"/config/interface/loopback", false},
      {"/QX-RTM-MIB/rtmStaticRtTable", false},
      {"/internal/int-ldp-intf-l3", false},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.path);
    EXPECT_EQ(tx->Changed(c.path), c.changed);
  }
  auto added = MakeTransaction("", DataFile("routes.xml"));
  EXPECT_TRUE(added->Changed("/QX-RTM-MIB/rtmStaticRtTable"));
  EXPECT_TRUE(added->Changed("/rtmStaticRtEntry-global"));
  EXPECT_FALSE(added->Changed("/config/interface/l3"));
  EXPECT_THROW(added->Changed("/config/nosuch"), host::InputError);
}

TEST(ElementServicesTest, InterfaceIdentifiersAndVrfIdentities) {
  ifuid_t id = 0;
  EXPECT_EQ(ifuid_l3_vlan_from_components(&id, 4094), 0);
  EXPECT_EQ(ifuid_to_ifindex(id), 5094);
  id = 7;
  EXPECT_EQ(ifuid_l3_vlan_from_components(&id, 0), -1);
  EXPECT_EQ(ifuid_l3_vlan_from_components(&id, 4095), -1);
  EXPECT_EQ(id, 7u);
  EXPECT_EQ(ifuid_to_ifindex(0), -1);
  EXPECT_EQ(ifuid_to_ifindex(0x0D000064u), -1);
  EXPECT_EQ(IdVrfFromComponent(0), 0u);
  EXPECT_EQ(IdVrfFromComponent(42), 42u);
}

}  // namespace
}  // namespace ipapp::test
