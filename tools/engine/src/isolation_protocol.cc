#include "isolation_protocol.h"

#include <cstring>
#include <limits>

namespace ipapp::check::isolation {
namespace {

// A message's body: its kind's byte, then its fields in a fixed order.
// Numbers are 64-bit in host order (both ends are one program), texts a
// 32-bit length and the bytes as they are, lists a 32-bit count and the
// items. Nothing is optional: a body is read to its last byte or it is
// garbled.

class Writer {
 public:
  explicit Writer(std::vector<std::uint8_t> *out) : out_(out) {}
  void Byte(std::uint8_t b) { out_->push_back(b); }
  void Number(std::int64_t n) { Raw(&n, sizeof n); }
  void Count(size_t n) {
    const auto c = static_cast<std::uint32_t>(n);
    Raw(&c, sizeof c);
  }
  void Text(const std::string &s) {
    Count(s.size());
    Raw(s.data(), s.size());
  }

 private:
  void Raw(const void *p, size_t n) {
    const auto *b = static_cast<const std::uint8_t *>(p);
    out_->insert(out_->end(), b, b + n);
  }
  std::vector<std::uint8_t> *out_;
};

class Reader {
 public:
  Reader(const std::uint8_t *p, size_t n) : p_(p), end_(p + n) {}
  std::uint8_t Byte() {
    Need(1);
    return *p_++;
  }
  std::int64_t Number() {
    std::int64_t n;
    Raw(&n, sizeof n);
    return n;
  }
  template <typename Int>
  Int NumberAs() {
    const std::int64_t n = Number();
    if (n < static_cast<std::int64_t>(std::numeric_limits<Int>::min()) ||
        (n > 0 && static_cast<std::uint64_t>(n) > std::numeric_limits<Int>::max())) {
      throw Garbled("number out of range");
    }
    return static_cast<Int>(n);
  }
  // A count of items of at least min_item bytes each, that the body can hold.
  size_t Count(size_t min_item) {
    std::uint32_t c;
    Raw(&c, sizeof c);
    if (min_item != 0 && c > static_cast<size_t>(end_ - p_) / min_item) {
      throw Garbled("count beyond the message");
    }
    return c;
  }
  std::string Text() {
    const size_t n = Count(1);
    std::string s(reinterpret_cast<const char *>(p_), n);
    p_ += n;
    return s;
  }
  bool Bool() {
    const std::uint8_t b = Byte();
    if (b > 1) throw Garbled("not a truth value");
    return b == 1;
  }
  void End() const {
    if (p_ != end_) throw Garbled("bytes after the message");
  }

 private:
  void Need(size_t n) const {
    if (static_cast<size_t>(end_ - p_) < n) throw Garbled("message cut short");
  }
  void Raw(void *out, size_t n) {
    Need(n);
    std::memcpy(out, p_, n);
    p_ += n;
  }
  const std::uint8_t *p_;
  const std::uint8_t *end_;
};

// Enumerators run from the first to the last without gaps.
template <typename Enum>
Enum EnumFrom(std::uint8_t b, Enum last) {
  if (b > static_cast<int>(last)) throw Garbled("unknown message kind or stage");
  return static_cast<Enum>(b);
}

template <typename Enum>
std::uint8_t ByteOf(Enum e) {
  return static_cast<std::uint8_t>(e);
}

void Write(Writer &w, const Invocation &inv) {
  w.Text(inv.validation);
  w.Text(inv.keypath);
  w.Number(inv.result);
  w.Text(inv.error);
  w.Byte(inv.failed ? 1 : 0);
  w.Count(inv.trace.size());
  for (const host::TraceEntry &t : inv.trace) {
    w.Text(t.call);
    w.Text(t.path);
    w.Number(t.result);
    w.Text(t.detail);
  }
  w.Count(inv.leaks.size());
  for (const host::OpenItem &item : inv.leaks) {
    w.Number(static_cast<std::int64_t>(item.id));
    w.Text(item.kind);
    w.Text(item.call);
    w.Text(item.path);
  }
}

Invocation ReadInvocation(Reader &r) {
  Invocation inv;
  inv.validation = r.Text();
  inv.keypath = r.Text();
  inv.result = r.NumberAs<int>();
  inv.error = r.Text();
  inv.failed = r.Bool();
  // The least an entry takes: its numbers and the lengths of its texts.
  inv.trace.resize(r.Count(8 + 3 * 4));
  for (host::TraceEntry &t : inv.trace) {
    t.call = r.Text();
    t.path = r.Text();
    t.result = r.NumberAs<int>();
    t.detail = r.Text();
  }
  inv.leaks.resize(r.Count(8 + 3 * 4));
  for (host::OpenItem &item : inv.leaks) {
    item.id = static_cast<std::uint64_t>(r.Number());
    item.kind = r.Text();
    item.call = r.Text();
    item.path = r.Text();
  }
  return inv;
}

void Write(Writer &w, const Message &m) {
  w.Byte(ByteOf(m.kind));
  switch (m.kind) {
    case Kind::kEnter:
      w.Byte(ByteOf(m.stage));
      if (m.stage == Stage::kValidate) {
        w.Text(m.validation);
        w.Text(m.keypath);
      }
      break;
    case Kind::kInvocation:
      Write(w, m.invocation);
      break;
    case Kind::kFault:
      w.Number(m.fault.kind);
      w.Text(m.fault.function);
      w.Text(m.fault.file);
      w.Number(m.fault.line);
      w.Text(m.fault.message);
      break;
    case Kind::kInputError:
      w.Text(m.source);
      w.Number(m.line);
      w.Text(m.text);
      break;
    case Kind::kPluginError:
    case Kind::kError:
    case Kind::kFinishFailure:
      w.Text(m.text);
      break;
    case Kind::kDone:
      break;
  }
}

Message ReadMessage(Reader &r) {
  Message m;
  m.kind = EnumFrom(r.Byte(), Kind::kDone);
  switch (m.kind) {
    case Kind::kEnter:
      m.stage = EnumFrom(r.Byte(), Stage::kUnload);
      if (m.stage == Stage::kValidate) {
        m.validation = r.Text();
        m.keypath = r.Text();
      }
      break;
    case Kind::kInvocation:
      m.invocation = ReadInvocation(r);
      break;
    case Kind::kFault:
      m.fault.kind = r.NumberAs<int>();
      m.fault.function = r.Text();
      m.fault.file = r.Text();
      m.fault.line = r.NumberAs<int>();
      m.fault.message = r.Text();
      break;
    case Kind::kInputError:
      m.source = r.Text();
      m.line = r.NumberAs<int>();
      m.text = r.Text();
      break;
    case Kind::kPluginError:
    case Kind::kError:
    case Kind::kFinishFailure:
      m.text = r.Text();
      break;
    case Kind::kDone:
      break;
  }
  r.End();
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
  std::vector<std::uint8_t> frame(sizeof(std::uint32_t));
  frame.reserve(256);
  Writer w(&frame);
  Write(w, message);
  const auto size = static_cast<std::uint32_t>(frame.size() - sizeof(std::uint32_t));
  std::memcpy(frame.data(), &size, sizeof size);
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
  Reader reader(body, size);
  return ReadMessage(reader);
}

}  // namespace ipapp::check::isolation
