// Input that lies about itself: bytes a parser would stop at or misread, a
// file too big or without end, option values that are no plain numbers.
// ipapp-check refuses each with exit 2 and no verdict, naming the file and
// the line; a byte-order mark and input that is merely slow to parse cost
// nothing.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <thread>

#include "run_tool.h"

namespace check_test {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

fs::path WriteBytes(const std::string &name, const std::string &bytes) {
  fs::create_directories(Scratch());
  std::ofstream(Scratch() / name, std::ios::binary) << bytes;
  return Scratch() / name;
}

// text with what inserted at the start of line (1-based).
std::string AtLine(std::string text, int line, const std::string &what) {
  size_t at = 0;
  for (int i = 1; i < line; ++i) at = text.find('\n', at) + 1;
  return text.insert(at, what);
}

TEST(LyingInput, BytesAParserWouldMisreadAreBadInputWithTheirLine) {
  const std::string xml = Slurp(Example("vrf-ospf.xml"));
  const std::string json = Slurp(Example("route-limit.json"));
  struct Case {
    std::string name, bytes;
    int line;
    std::string why;
  };
  const std::vector<Case> cases = {
      // Read as C strings, both would end at the NUL, before what refuses them.
      {"nul.xml", AtLine(xml, 3, std::string(1, '\0')), 3, "holds a NUL byte"},
      {"nul.json", AtLine(json, 5, std::string("\0", 1)), 5, "holds a NUL byte"},
      {"latin1.xml", AtLine(xml, 4, "<!-- caf\xe9 -->"), 4, "not UTF-8 (0xe9)"},
      {"overlong.json", AtLine(json, 2, "\xc0\xaf"), 2, "not UTF-8 (0xc0)"},
      {"surrogate.xml", AtLine(xml, 7, "<!-- \xed\xa0\x80 -->"), 7, "not UTF-8 (0xed)"},
      {"cut-short.xml", xml + "\xe2\x82", 168, "not UTF-8 (0xe2)"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    const fs::path file = WriteBytes(c.name, c.bytes);
    const std::string where = file.string() + ":" + std::to_string(c.line) + ": ";
    const ToolResult candidate =
        RunTool({"--running", Example("running.xml"), "--candidate", file.string()});
    EXPECT_EQ(candidate.status, 2);
    EXPECT_EQ(candidate.out, "");
    EXPECT_THAT(candidate.err, StartsWith("ipapp-check: " + where));
    EXPECT_THAT(candidate.err, HasSubstr(c.why));
    const ToolResult running =
        RunTool({"--running", file.string(), "--candidate", Example("running.xml")});
    EXPECT_EQ(running.status, 2);
    EXPECT_THAT(running.err, StartsWith("ipapp-check: " + where));
  }
}

TEST(LyingInput, ByteOrderMarkIsIgnored) {
  for (const std::string name : {"vrf-ospf.xml", "route-limit.json", "accept-new-interface.xml"}) {
    SCOPED_TRACE(name);
    const fs::path marked = WriteBytes("bom-" + name, "\xef\xbb\xbf" + Slurp(Example(name)));
    const ToolResult plain =
        RunTool({"--running", Example("running.xml"), "--candidate", Example(name)});
    const ToolResult with_mark =
        RunTool({"--running", Example("running.xml"), "--candidate", marked.string()});
    EXPECT_NE(plain.status, 2);
    EXPECT_EQ(with_mark.status, plain.status) << with_mark.err;
    EXPECT_EQ(with_mark.out, plain.out);
  }
}

TEST(BoundedInput, TooBigOrEndlessInputIsRefusedInBoundedMemory) {
  std::signal(SIGPIPE, SIG_IGN);
  // Larger than the limit, known from its size: nothing of it is read.
  const fs::path big = Scratch() / "big.xml";
  WriteBytes("big.xml", "");
  fs::resize_file(big, (std::uintmax_t{256} << 20) + 1);
  const ToolResult too_big = RunTool({"--candidate", big.string()});
  EXPECT_EQ(too_big.status, 2);
  EXPECT_THAT(too_big.err, HasSubstr(big.string() + ": is larger than 256 MiB (268435457 bytes)"));

  // A device without end: its first byte is already wrong.
  const fs::path zero = Scratch() / "zero.xml";
  fs::create_symlink("/dev/zero", zero);
  const ToolResult zeros = RunTool({"--candidate", zero.string()});
  EXPECT_EQ(zeros.status, 2);
  EXPECT_THAT(zeros.err, HasSubstr(zero.string() + ":1: holds a NUL byte"));

  // A stream of good text without end: read up to the limit, no further.
  const fs::path fifo = Scratch() / "endless.xml";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  std::thread writer([&] {
    std::ofstream out(fifo, std::ios::binary);
    const std::string block(1 << 16, ' ');
    while (out.write(block.data(), static_cast<std::streamsize>(block.size()))) {
    }
  });
  const auto start = std::chrono::steady_clock::now();
  const ToolResult endless = RunTool({"--candidate", fifo.string()});
  const auto took = std::chrono::steady_clock::now() - start;
  writer.join();
  EXPECT_EQ(endless.status, 2);
  EXPECT_THAT(endless.err, HasSubstr(fifo.string() + ": goes on past 256 MiB"));
  EXPECT_LT(took, std::chrono::seconds(30));
  rusage usage{};
  ASSERT_EQ(getrusage(RUSAGE_CHILDREN, &usage), 0);
  EXPECT_LT(usage.ru_maxrss, 600L * 1024) << "kB at most in any process";
}

TEST(BoundedInput, MessagesQuoteInputOnlyInPart) {
  // An element name of a megabyte, which the parser's message quotes.
  const std::string name(1 << 20, 'n');
  const fs::path file = WriteFile(
      "long-name.xml", "<config xmlns=\"urn:ipapp:shellcfg\">\n<" + name + "/>\n</config>\n");
  const ToolResult r = RunTool({"--candidate", file.string()});
  EXPECT_EQ(r.status, 2);
  EXPECT_LT(r.err.size(), 1000u);
  EXPECT_THAT(r.err, HasSubstr(std::string(200, 'n')));
  EXPECT_THAT(r.err, HasSubstr(" bytes cut ...]"));
}

TEST(BoundedInput, LongKeypathsAreReportedWhole) {
  std::string xml = Slurp(Example("name-bad-chars.xml"));
  const std::string name(10000, 'k');
  xml.replace(xml.find("edge.1"), 6, name);
  const fs::path file = WriteFile("long-key.xml", xml);
  const ToolResult r = RunTool({"--running", Example("running.xml"), "--candidate", file.string(),
                                "--plugin", IPAPP_FAKE_PLUGIN, "--keep-going", "--format", "json"},
                               {"IPAPP_FAKE_MODE=refuse"});
  ASSERT_EQ(r.status, 1) << r.err;
  const std::string whole = "{" + name + "}";
  bool seen = false;
  const nlohmann::json report = r.Json();
  for (const auto &inv : report["invocations"]) {
    const std::string keypath = inv["keypath"];
    seen = seen || keypath.find(whole) != std::string::npos;
  }
  EXPECT_TRUE(seen);
}

TEST(StrictOptions, TimeoutIsAPlainNumberOfSecondsInRange) {
  for (const std::string value : {"nan", "NaN", "inf", "-inf", "1e9", "1e1", "0x10", " 5", "5s",
                                  "-1", "0", "0.0001", "86401", ""}) {
    SCOPED_TRACE("--timeout '" + value + "'");
    const ToolResult r = RunTool({"--candidate", Example("running.xml"), "--timeout", value});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "");
    EXPECT_THAT(r.err, HasSubstr("--timeout"));
  }
  for (const std::string value : {"0.5", "60", "86400", ".5", "3."}) {
    SCOPED_TRACE("--timeout " + value);
    const ToolResult r = RunTool({"--candidate", Example("running.xml"), "--timeout", value});
    EXPECT_THAT(r.status, Not(2)) << r.err;
  }
}

TEST(StrictOptions, TimeoutLeavesOutReadingTheInput) {
  // Two hundred megabytes of comment take far longer to read and parse than
  // the plug-in is given; the plug-in itself needs next to nothing, even in a
  // sanitizer build on a busy machine.
  const std::string padding = "<!--" + std::string(200 << 20, '-') + "-->\n";
  const fs::path file = WriteFile("slow.xml", Slurp(Example("vrf-ospf.xml")) + padding);
  const auto start = std::chrono::steady_clock::now();
  const ToolResult r = RunTool({"--running", Example("running.xml"), "--candidate", file.string(),
                                "--plugin", IPAPP_FAKE_PLUGIN, "--timeout", "0.5"});
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "accepted\n");
  // Otherwise the test shows nothing.
  EXPECT_GT(took, std::chrono::milliseconds(500));
}

}  // namespace
}  // namespace check_test
