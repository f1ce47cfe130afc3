// The report's messages: whatever the commit process sends arrives as sent,
// however the reads split it and whether it went through the journal or the
// pipe, and bytes that are no message are told apart from a report.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <cstring>
#include <string>
#include <vector>

#include "isolation_protocol.h"
#include "journal.h"

namespace {

using ipapp::check::isolation::Frame;
using ipapp::check::isolation::FrameReader;
using ipapp::check::isolation::Garbled;
using ipapp::check::isolation::Journal;
using ipapp::check::isolation::Kind;
using ipapp::check::isolation::Message;
using ipapp::check::isolation::Stage;
using ipapp::check::isolation::WakeUpFrame;

// Every field of a message, in JSON, to compare what went in and came out.
nlohmann::json Fields(const Message &m) {
  const ipapp::check::Invocation &inv = m.invocation;
  return {{"kind", static_cast<int>(m.kind)},
          {"stage", static_cast<int>(m.stage)},
          {"validation", m.validation},
          {"keypath", m.keypath},
          {"invocation",
           {inv.validation, inv.keypath, inv.result, inv.error, inv.failed, inv.trace, inv.leaks}},
          {"fault", m.fault},
          {"text", m.text},
          {"source", m.source},
          {"line", m.line}};
}

std::vector<Message> EveryKind() {
  std::vector<Message> all;
  for (Stage s : {Stage::kEngine, Stage::kLoad, Stage::kGetValidationPoint, Stage::kLibInit,
                  Stage::kLibFinish, Stage::kUnload}) {
    all.push_back(Message::Enter(s));
  }
  all.push_back(Message::EnterValidate("intf_l3_name_validation", "/config/interface/l3{\"x\"}"));
  ipapp::check::Invocation inv;
  inv.validation = "route_validation";
  inv.keypath = "/config/route";
  inv.result = -1;
  inv.error = std::string("not UTF-8: \xff\xfe and a NUL \0 inside", 32);
  inv.failed = true;
  inv.trace = {{"maapi_exists", "/config/route", 1, "yes"}, {"cdb_get", "", -2, ""}};
  inv.leaks = {{7, "cursor", "maapi_init_cursor", "/config/interface/l3"}};
  all.push_back(Message::Of(inv));
  all.push_back(Message::Of(ipapp::host::Fault{3, "f", "a.cc", 12, "bad item"}));
  all.push_back(Message::Of(ipapp::host::InputError("cand.xml", 4, "unknown element")));
  all.push_back(Message::Text(Kind::kPluginError, "p.so: lib_init returned 1"));
  all.push_back(Message::Text(Kind::kError, "out of memory"));
  all.push_back(Message::Text(Kind::kFinishFailure, "exception from lib_finish: x"));
  all.push_back(Message::Done());
  return all;
}

TEST(IsolationProtocol, EveryMessageArrivesAsSentHoweverTheReadsSplitIt) {
  const std::vector<Message> sent = EveryKind();
  std::string wire;
  for (const Message &m : sent) {
    const std::vector<std::uint8_t> frame = Frame(m);
    wire.append(frame.begin(), frame.end());
    // Wake-up calls in between carry nothing.
    const std::vector<std::uint8_t> wake = WakeUpFrame();
    wire.append(wake.begin(), wake.end());
  }
  for (size_t chunk : {size_t{1}, size_t{3}, size_t{64}, wire.size()}) {
    SCOPED_TRACE("reads of " + std::to_string(chunk) + " bytes");
    FrameReader reader;
    std::vector<Message> got;
    for (size_t at = 0; at < wire.size(); at += chunk) {
      reader.Append(wire.data() + at, std::min(chunk, wire.size() - at));
      while (std::optional<Message> m = reader.Next()) got.push_back(std::move(*m));
    }
    ASSERT_EQ(got.size(), sent.size());
    for (size_t i = 0; i < sent.size(); ++i) EXPECT_EQ(Fields(got[i]), Fields(sent[i])) << i;
  }
}

TEST(IsolationProtocol, BytesThatAreNoMessageAreGarbled) {
  auto framed = [](const std::string &body) {
    const auto size = static_cast<std::uint32_t>(body.size());
    std::string frame(sizeof size, '\0');
    std::memcpy(frame.data(), &size, sizeof size);
    return frame + body;
  };
  // Bodies taken from a real message and then damaged.
  auto body = [](const Message &m) {
    const std::vector<std::uint8_t> frame = Frame(m);
    return std::string(frame.begin() + 4, frame.end());
  };
  const std::string enter = body(Message::Enter(Stage::kLoad));
  const std::string error = body(Message::Text(Kind::kPluginError, "p.so: lib_init returned 1"));
  std::string huge_line = body(Message::Of(ipapp::host::InputError("a", 4, "t")));
  huge_line[1 + 4 + 1 + 7] = '\x01';  // the line's top byte: beyond an int
  ipapp::check::Invocation inv;
  inv.trace = {{"maapi_exists", "/a", 1, ""}};
  std::string many_calls = body(Message::Of(inv));
  // validation, keypath, result, error, failed: then the trace's count.
  many_calls[1 + 4 + 4 + 8 + 4 + 1 + 2] = '\x7f';
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"text a plug-in printed", framed("accepted\n")},
      {"unknown kind", framed("\x08")},
      {"unknown stage", framed(std::string(1, enter[0]) + "\x07")},
      {"cut short", framed(error.substr(0, error.size() - 1))},
      {"bytes after the message", framed(enter + "x")},
      {"a number beyond its field", framed(huge_line)},
      {"more calls than the message holds", framed(many_calls)},
  };
  for (const auto &[what, bytes] : cases) {
    SCOPED_TRACE(what);
    FrameReader reader;
    reader.Append(bytes.data(), bytes.size());
    EXPECT_THROW(reader.Next(), Garbled);
  }
}

// What the journal holds comes out once, in order, however often it is read;
// a frame that does not fit is refused whole, and so is every frame after
// it, which then goes on the pipe.
TEST(IsolationProtocol, TheJournalGivesItsFramesOnceAndRefusesWhatDoesNotFit) {
  Journal journal;
  ASSERT_TRUE(journal.usable());
  FrameReader reader;
  std::vector<Message> sent;
  size_t used = 0;
  auto read_all = [&] {
    std::vector<Message> got;
    journal.TakeNew(&reader);
    while (std::optional<Message> m = reader.Next()) got.push_back(std::move(*m));
    return got;
  };
  for (int round = 0; round < 2; ++round) {
    for (const Message &m : EveryKind()) {
      const std::vector<std::uint8_t> frame = Frame(m);
      ASSERT_TRUE(journal.Append(frame));
      used += frame.size();
      sent.push_back(m);
    }
  }
  std::vector<Message> got = read_all();
  EXPECT_TRUE(read_all().empty());  // nothing twice
  ASSERT_EQ(got.size(), sent.size());
  for (size_t i = 0; i < sent.size(); ++i) EXPECT_EQ(Fields(got[i]), Fields(sent[i])) << i;

  // A frame of exactly the room left: its size less its text's is the same
  // for every text of 64 KiB and more.
  auto error_of = [](size_t n) { return Message::Text(Kind::kError, std::string(n, 'x')); };
  const size_t overhead = Frame(error_of(size_t{1} << 16)).size() - (size_t{1} << 16);
  const Message big = error_of(Journal::kCapacity - used - overhead);
  EXPECT_FALSE(journal.Append(Frame(error_of(big.text.size() + 1))));
  ASSERT_TRUE(journal.Append(Frame(big)));
  EXPECT_FALSE(journal.Append(WakeUpFrame()));  // full to the last byte
  got = read_all();
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0].text, big.text);
}

}  // namespace
