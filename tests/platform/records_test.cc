// The records' JSON forms: every field goes out and comes back, under the
// names the checker's report and the isolated commit's messages use.
#include <gtest/gtest.h>
#include <ipapp/records.h>

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>

namespace ipapp::host {
namespace {

using nlohmann::json;

TEST(RecordsTest, EveryFieldSurvivesItsJsonForm) {
  // Bytes that are not UTF-8 travel too: the wire is CBOR.
  const Fault fault{3, "validate", "a.cc", 42, "bad \xff byte"};
  const Fault f = json::from_cbor(json::to_cbor(json(fault))).get<Fault>();
  EXPECT_EQ(f.kind, 3);
  EXPECT_EQ(f.function, "validate");
  EXPECT_EQ(f.file, "a.cc");
  EXPECT_EQ(f.line, 42);
  EXPECT_EQ(f.message, "bad \xff byte");

  const TraceEntry t = json(TraceEntry{"maapi_exists", "/a{x}", -1, "no"}).get<TraceEntry>();
  EXPECT_EQ(t.call, "maapi_exists");
  EXPECT_EQ(t.path, "/a{x}");
  EXPECT_EQ(t.result, -1);
  EXPECT_EQ(t.detail, "no");

  const OpenItem o =
      json(OpenItem{UINT64_MAX, "cursor", "maapi_init_cursor", "/a"}).get<OpenItem>();
  EXPECT_EQ(o.id, UINT64_MAX);
  EXPECT_EQ(o.kind, "cursor");
  EXPECT_EQ(o.call, "maapi_init_cursor");
  EXPECT_EQ(o.path, "/a");

  const OpenResources r = json(OpenResources{1, 2, 3, 4}).get<OpenResources>();
  EXPECT_EQ(r.cursors, 1);
  EXPECT_EQ(r.cdb_sessions, 2);
  EXPECT_EQ(r.dup_values, 3);
  EXPECT_EQ(r.xpath_results, 4);
}

TEST(RecordsTest, MembersAreNamedAsTheReportNamesThem) {
  EXPECT_EQ(json(Fault{}).dump(), R"({"file":"","function":"","kind":0,"line":0,"message":""})");
  EXPECT_EQ(json(TraceEntry{}).dump(), R"({"call":"","detail":"","path":"","result":0})");
  EXPECT_EQ(json(OpenItem{}).dump(), R"({"call":"","id":0,"kind":"","path":""})");
  EXPECT_THROW(json::parse(R"({"call":"x"})").get<TraceEntry>(), json::exception);
}

}  // namespace
}  // namespace ipapp::host
