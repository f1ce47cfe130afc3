#include "isolation_protocol.h"

#include <cstring>

#include <nlohmann/json.hpp>

namespace ipapp::check::isolation {
namespace {

using nlohmann::json;

// Each kind's name on the wire.
const char *KindName(Kind kind) {
  switch (kind) {
    case Kind::kEnter:
      return "enter";
    case Kind::kInvocation:
      return "invocation";
    case Kind::kFault:
      return "fault";
    case Kind::kPluginError:
      return "plugin_error";
    case Kind::kInputError:
      return "input_error";
    case Kind::kError:
      return "error";
    case Kind::kFinishFailure:
      return "finish_failure";
    case Kind::kDone:
      return "done";
  }
  throw std::logic_error("unknown message kind");
}

// Enumerators run from the first to the last without gaps: the names are
// looked up by trying each.
template <typename Enum, typename NameFn>
Enum Named(const std::string &name, Enum last, NameFn name_of) {
  for (int i = 0; i <= static_cast<int>(last); ++i) {
    if (name == name_of(static_cast<Enum>(i))) return static_cast<Enum>(i);
  }
  throw Garbled("unknown name " + name);
}

json ToJson(const Invocation &inv) {
  return {{"validation", inv.validation},
          {"keypath", inv.keypath},
          {"result", inv.result},
          {"error", inv.error},
          {"failed", inv.failed},
          {"trace", inv.trace},
          {"leaks", inv.leaks}};
}

Invocation InvocationFrom(const json &j) {
  Invocation inv;
  j.at("validation").get_to(inv.validation);
  j.at("keypath").get_to(inv.keypath);
  j.at("result").get_to(inv.result);
  j.at("error").get_to(inv.error);
  j.at("failed").get_to(inv.failed);
  j.at("trace").get_to(inv.trace);
  j.at("leaks").get_to(inv.leaks);
  return inv;
}

json ToJson(const Message &m) {
  json j = {{"kind", KindName(m.kind)}};
  switch (m.kind) {
    case Kind::kEnter:
      j["stage"] = StageName(m.stage);
      if (m.stage == Stage::kValidate) {
        j["validation"] = m.validation;
        j["keypath"] = m.keypath;
      }
      break;
    case Kind::kInvocation:
      j["invocation"] = ToJson(m.invocation);
      break;
    case Kind::kFault:
      j["fault"] = m.fault;
      break;
    case Kind::kInputError:
      j["source"] = m.source;
      j["line"] = m.line;
      j["text"] = m.text;
      break;
    case Kind::kPluginError:
    case Kind::kError:
    case Kind::kFinishFailure:
      j["text"] = m.text;
      break;
    case Kind::kDone:
      break;
  }
  return j;
}

Message MessageFrom(const json &j) {
  Message m;
  m.kind = Named(j.at("kind").get<std::string>(), Kind::kDone, KindName);
  switch (m.kind) {
    case Kind::kEnter:
      m.stage = Named(j.at("stage").get<std::string>(), Stage::kUnload, StageName);
      if (m.stage == Stage::kValidate) {
        j.at("validation").get_to(m.validation);
        j.at("keypath").get_to(m.keypath);
      }
      break;
    case Kind::kInvocation:
      m.invocation = InvocationFrom(j.at("invocation"));
      break;
    case Kind::kFault:
      j.at("fault").get_to(m.fault);
      break;
    case Kind::kInputError:
      j.at("source").get_to(m.source);
      j.at("line").get_to(m.line);
      j.at("text").get_to(m.text);
      break;
    case Kind::kPluginError:
    case Kind::kError:
    case Kind::kFinishFailure:
      j.at("text").get_to(m.text);
      break;
    case Kind::kDone:
      break;
  }
  return m;
}

}  // namespace

const char *StageName(Stage stage) {
  switch (stage) {
    case Stage::kEngine:
      return "engine";
    case Stage::kLoad:
      return EntryName(Entry::kLoad);
    case Stage::kGetValidationPoint:
      return EntryName(Entry::kGetValidationPoint);
    case Stage::kLibInit:
      return EntryName(Entry::kLibInit);
    case Stage::kValidate:
      return "validate";
    case Stage::kLibFinish:
      return EntryName(Entry::kLibFinish);
    case Stage::kUnload:
      return "unload";
  }
  throw std::logic_error("unknown stage");
}

Stage StageOf(Entry entry) {
  switch (entry) {
    case Entry::kLoad:
      return Stage::kLoad;
    case Entry::kGetValidationPoint:
      return Stage::kGetValidationPoint;
    case Entry::kLibInit:
      return Stage::kLibInit;
    case Entry::kLibFinish:
      return Stage::kLibFinish;
  }
  throw std::logic_error("unknown entry point");
}

std::string PlaceText(Stage stage) {
  if (stage == Stage::kLoad) return "while loading";
  if (stage == Stage::kUnload) return "while unloading";
  return std::string("in ") + StageName(stage);
}

Message Message::Enter(Stage stage) {
  Message m;
  m.kind = Kind::kEnter;
  m.stage = stage;
  return m;
}

Message Message::EnterValidate(const std::string &validation, const std::string &keypath) {
  Message m = Enter(Stage::kValidate);
  m.validation = validation;
  m.keypath = keypath;
  return m;
}

Message Message::Of(const Invocation &invocation) {
  Message m;
  m.kind = Kind::kInvocation;
  m.invocation = invocation;
  return m;
}

Message Message::Of(const host::Fault &fault) {
  Message m;
  m.kind = Kind::kFault;
  m.fault = fault;
  return m;
}

Message Message::Of(const host::InputError &error) {
  Message m;
  m.kind = Kind::kInputError;
  m.source = error.source();
  m.line = error.line();
  m.text = error.message();
  return m;
}

Message Message::Text(Kind kind, const std::string &text) {
  Message m;
  m.kind = kind;
  m.text = text;
  return m;
}

Message Message::Done() {
  return Message{};
}

host::InputError Message::AsInputError() const {
  return host::InputError(source, line, text);
}

std::vector<std::uint8_t> Frame(const Message &message) {
  const std::vector<std::uint8_t> body = json::to_cbor(ToJson(message));
  const auto size = static_cast<std::uint32_t>(body.size());
  std::vector<std::uint8_t> frame(sizeof size + body.size());
  std::memcpy(frame.data(), &size, sizeof size);
  if (!body.empty()) std::memcpy(frame.data() + sizeof size, body.data(), body.size());
  return frame;
}

std::vector<std::uint8_t> WakeUpFrame() {
  return std::vector<std::uint8_t>(sizeof(std::uint32_t), 0);
}

std::optional<Message> FrameReader::Next() {
  std::uint32_t size = 0;
  for (;;) {
    const size_t left = buffer_.size() - at_;
    if (left >= sizeof size) std::memcpy(&size, buffer_.data() + at_, sizeof size);
    if (left < sizeof size || left - sizeof size < size) {
      // Only the incomplete frame is kept.
      buffer_.erase(0, at_);
      at_ = 0;
      return std::nullopt;
    }
    if (size != 0) break;
    at_ += sizeof size;
  }
  const auto *body = reinterpret_cast<const std::uint8_t *>(buffer_.data() + at_ + sizeof size);
  at_ += sizeof size + size;
  try {
    return MessageFrom(json::from_cbor(body, body + size));
  } catch (const json::exception &e) {
    throw Garbled(e.what());
  }
}

}  // namespace ipapp::check::isolation
