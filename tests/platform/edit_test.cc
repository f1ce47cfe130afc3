// <edit-config> operations applied to a configuration: what each operation
// makes of it, and the NETCONF error (tag and line) of an edit that cannot
// be applied.
#include <ipapp/edit.h>

#include "config_xml.h"
#include "platform_fixture.h"

namespace ipapp::test {
namespace {

using host::DataSource;
using host::DefaultOperation;

std::string Edit(const std::string &body) {
  return "<config xmlns=\"urn:ipapp:shellcfg\" "
         "xmlns:nc=\"urn:ietf:params:xml:ns:netconf:base:1.0\"><interface>" +
         body + "</interface></config>";
}

std::string L3With(const std::string &operation, const std::string &name,
                   const std::string &body = "") {
  return "<l3 xmlns=\"urn:ipapp:ipapp\" nc:operation=\"" + operation + "\"><name>" + name +
         "</name>" + body + "</l3>";
}

std::string Apply(const std::string &running, const std::string &edit, DefaultOperation op) {
  return host::ApplyEdit(TestSchema(), DataSource::Xml(running, "<running>"),
                         DataSource::Xml(edit, "edit.xml"), op)
      .text;
}

// A configuration as the editor writes it out, so that results compare as data.
std::string Canonical(const std::string &xml) {
  return Apply(xml, "", DefaultOperation::kMerge);
}

const std::string kA = L3("a", V4("10.0.0.1/24", {"10.0.1.1/24"}) + Vlan(10));
const std::string kB = L3("b", V4("10.0.2.1/24") + Vlan(20) + Vrf("red"));
const std::string kRunning = Interfaces(kA + kB);

TEST(EditTest, EachOperationMakesTheCandidateItDefines) {
  struct Case {
    const char *what;
    std::string edit;
    DefaultOperation op;
    std::string expected;
  };
  const Case cases[] = {
      {"merge: a leaf into an entry, a new entry", Edit(L3("a", Vrf("blue")) + L3("c", Vlan(30))),
       DefaultOperation::kMerge,
       Interfaces(L3("a", V4("10.0.0.1/24", {"10.0.1.1/24"}) + Vlan(10) + Vrf("blue")) + kB +
                  L3("c", Vlan(30)))},
      {"merge: an entry into a nested list, a value changed",
       Edit(L3("a", V4("10.0.0.9/24", {"10.0.3.1/24"}))), DefaultOperation::kMerge,
       Interfaces(L3("a", V4("10.0.0.9/24", {"10.0.1.1/24", "10.0.3.1/24"}) + Vlan(10)) + kB)},
      {"replace: an entry loses what the edit does not name",
       Edit(L3With("replace", "a", Vlan(11))), DefaultOperation::kMerge,
       Interfaces(L3("a", Vlan(11)) + kB)},
      {"create: a new entry", Edit(L3With("create", "c", Vlan(30))), DefaultOperation::kMerge,
       Interfaces(kA + kB + L3("c", Vlan(30)))},
      {"delete: an entry", Edit(L3With("delete", "b")), DefaultOperation::kMerge, Interfaces(kA)},
      {"delete: an entry of a nested list",
       Edit(L3("a",
               "<ipv4><address><secondary nc:operation=\"delete\"><ip>10.0.1.1/24</ip>"
               "</secondary></address></ipv4>")),
       DefaultOperation::kMerge, Interfaces(L3("a", V4("10.0.0.1/24") + Vlan(10)) + kB)},
      {"remove: a missing entry is no error, a present leaf goes",
       Edit(L3With("remove", "zz") + L3("b", "<vrf nc:operation=\"remove\"/>")),
       DefaultOperation::kMerge, Interfaces(kA + L3("b", V4("10.0.2.1/24") + Vlan(20)))},
      {"default none: only the operations named change anything",
       Edit(L3("a", "<vrf nc:operation=\"merge\">x</vrf>") + L3("b", Vlan(99))),
       DefaultOperation::kNone,
       Interfaces(L3("a", V4("10.0.0.1/24", {"10.0.1.1/24"}) + Vlan(10) + Vrf("x")) + kB)},
      {"default none: a level made for a create below it",
       Edit(L3("c", "<lower-layer-if nc:operation=\"create\"><vlan>30</vlan></lower-layer-if>")),
       DefaultOperation::kNone, Interfaces(kA + kB + L3("c", Vlan(30)))},
      {"default replace: the edit is the whole configuration", Edit(L3("c", Vlan(30))),
       DefaultOperation::kReplace, Interfaces(L3("c", Vlan(30)))},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(Apply(kRunning, c.edit, c.op), Canonical(c.expected));
  }
}

TEST(EditTest, AnEditThatCannotBeAppliedNamesTheTagAndLine) {
  struct Case {
    std::string edit;
    DefaultOperation op;
    std::string where_and_tag;
  };
  const Case cases[] = {
      {Edit("\n" + L3With("create", "a")), DefaultOperation::kMerge, "edit.xml:2: data-exists: "},
      {Edit("\n\n" + L3With("delete", "zz")), DefaultOperation::kMerge,
       "edit.xml:3: data-missing: "},
      {Edit(L3("b", "\n<vrf nc:operation=\"delete\"/>") +
            L3("a", "<vrf nc:operation=\"delete\"/>")),
       DefaultOperation::kMerge, "edit.xml:2: data-missing: "},
      {Edit(L3("a", "\n" + Vrf("x"))), DefaultOperation::kNone, "edit.xml:2: data-missing: "},
      {Edit("\n" + L3With("frobnicate", "a")), DefaultOperation::kMerge,
       "edit.xml:2: bad-attribute: "},
      {Edit(L3("a", "\n<bogus/>")), DefaultOperation::kMerge, "edit.xml:2: unknown-element: "},
      {Edit(L3("a", "\n<lower-layer-if><vlan>5000</vlan></lower-layer-if>")),
       DefaultOperation::kMerge, "edit.xml:2: invalid-value: "},
      {"<config xmlns=\"urn:ipapp:shellcfg\">\n<interface>", DefaultOperation::kMerge,
       "edit.xml:2: malformed-message: "},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.edit);
    try {
      Apply(kRunning, c.edit, c.op);
      ADD_FAILURE() << "applied";
    } catch (const host::InputError &e) {
      EXPECT_EQ(std::string(e.what()).rfind(c.where_and_tag, 0), 0u) << e.what();
    }
  }
}

TEST(EditTest, ErrorsOfTheRunningConfigurationAreTheTransactionsOwn) {
  const std::string bad = Interfaces(L3("a", "\n<bogus/>"));
  std::string expected;
  try {
    host::Transaction::Create(TestSchema(), DataSource::Xml(bad, "<running>"), DataSource::Empty());
  } catch (const host::InputError &e) {
    expected = e.what();
  }
  ASSERT_FALSE(expected.empty());
  try {
    Apply(bad, Edit(L3("a", Vrf("x"))), DefaultOperation::kMerge);
    ADD_FAILURE() << "applied";
  } catch (const host::InputError &e) {
    EXPECT_EQ(e.what(), expected);
  }
}

TEST(EditTest, AWholeConfigurationWithOperationsIsRefused) {
  // Taken as data, the attribute would silently mean nothing.
  try {
    host::Transaction::Create(TestSchema(), DataSource::Empty(),
                              DataSource::Xml(Edit("\n" + L3With("delete", "a")), "cand.xml"));
    ADD_FAILURE() << "accepted";
  } catch (const host::InputError &e) {
    EXPECT_EQ(
        std::string(e.what()).rfind("cand.xml:2: attribute \"operation\" belongs in an edit", 0),
        0u)
        << e.what();
  }
}

}  // namespace
}  // namespace ipapp::test
