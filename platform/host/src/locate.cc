#include "locate.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <vector>

namespace ipapp::host {
namespace {

// A parsed text reduced to what a data path can name: element or member
// names (without module), direct text, the line each starts on.
struct Node {
  std::string name;
  std::string text;
  int line = 0;
  std::vector<Node> children;
};

std::string LocalName(const std::string &name) {
  const size_t colon = name.rfind(':');
  return colon == std::string::npos ? name : name.substr(colon + 1);
}

void AppendUtf8(uint32_t cp, std::string *out) {
  if (cp < 0x80) {
    *out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    *out += static_cast<char>(0xC0 | (cp >> 6));
    *out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    *out += static_cast<char>(0xE0 | (cp >> 12));
    *out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    *out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    *out += static_cast<char>(0xF0 | (cp >> 18));
    *out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    *out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    *out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

std::string Trim(const std::string &s) {
  size_t b = 0, e = s.size();
  while (b < e && std::isspace(static_cast<unsigned char>(s[b]))) ++b;
  while (e > b && std::isspace(static_cast<unsigned char>(s[e - 1]))) --e;
  return s.substr(b, e - b);
}

// A cursor over the text that counts lines as it moves.
class Scanner {
 public:
  explicit Scanner(const std::string &text) : t_(text) {}
  bool done() const { return i_ >= t_.size(); }
  char peek() const { return done() ? '\0' : t_[i_]; }
  int line() const { return line_; }
  bool at(const char *s) const { return t_.compare(i_, std::strlen(s), s) == 0; }
  void advance(size_t n = 1) {
    const size_t end = std::min(t_.size(), i_ + n);
    line_ += static_cast<int>(std::count(t_.begin() + i_, t_.begin() + end, '\n'));
    i_ = end;
  }
  // Moves past the next occurrence of s (or to the end); the text skipped.
  std::string past(const char *s) {
    const size_t at = t_.find(s, i_);
    const size_t stop = at == std::string::npos ? t_.size() : at;
    std::string skipped = t_.substr(i_, stop - i_);
    advance(stop - i_ + (at == std::string::npos ? 0 : std::strlen(s)));
    return skipped;
  }
  void skip_space() {
    while (!done() && std::isspace(static_cast<unsigned char>(peek()))) advance();
  }

 private:
  const std::string &t_;
  size_t i_ = 0;
  int line_ = 1;
};

// --- XML ---------------------------------------------------------------------

std::string DecodeXml(const std::string &raw) {
  std::string out;
  for (size_t i = 0; i < raw.size(); ++i) {
    if (raw[i] != '&') {
      out += raw[i];
      continue;
    }
    const size_t semi = raw.find(';', i);
    if (semi == std::string::npos) {
      out += raw.substr(i);
      break;
    }
    const std::string name = raw.substr(i + 1, semi - i - 1);
    if (name == "lt") {
      out += '<';
    } else if (name == "gt") {
      out += '>';
    } else if (name == "amp") {
      out += '&';
    } else if (name == "quot") {
      out += '"';
    } else if (name == "apos") {
      out += '\'';
    } else if (name.size() > 1 && name[0] == '#') {
      const bool hex = name[1] == 'x' || name[1] == 'X';
      AppendUtf8(
          static_cast<uint32_t>(std::strtoul(name.c_str() + (hex ? 2 : 1), nullptr, hex ? 16 : 10)),
          &out);
    } else {
      out += raw.substr(i, semi - i + 1);
    }
    i = semi;
  }
  return out;
}

Node ReadXml(const std::string &text) {
  Node root;
  Scanner in(text);
  std::vector<Node *> open = {&root};
  while (!in.done()) {
    if (in.peek() != '<') {
      std::string raw;
      while (!in.done() && in.peek() != '<') {
        raw += in.peek();
        in.advance();
      }
      open.back()->text += DecodeXml(raw);
    } else if (in.at("<!--")) {
      in.past("-->");
    } else if (in.at("<![CDATA[")) {
      in.advance(9);
      open.back()->text += in.past("]]>");
    } else if (in.at("<?")) {
      in.past("?>");
    } else if (in.at("<!")) {
      int depth = 0;  // a document type declaration may hold [ ... ]
      while (!in.done() && !(in.peek() == '>' && depth == 0)) {
        depth += in.peek() == '[' ? 1 : in.peek() == ']' ? -1 : 0;
        in.advance();
      }
      in.advance();
    } else if (in.at("</")) {
      in.past(">");
      if (open.size() > 1) {
        open.back()->text = Trim(open.back()->text);
        open.pop_back();
      }
    } else {
      const int line = in.line();
      in.advance();
      std::string name;
      while (!in.done() && !std::isspace(static_cast<unsigned char>(in.peek())) &&
             in.peek() != '/' && in.peek() != '>') {
        name += in.peek();
        in.advance();
      }
      bool empty = false;
      char quote = '\0';
      while (!in.done()) {
        const char c = in.peek();
        in.advance();
        if (quote != '\0') {
          if (c == quote) quote = '\0';
        } else if (c == '"' || c == '\'') {
          quote = c;
        } else if (c == '>') {
          break;
        } else {
          empty = c == '/';
        }
      }
      // Only the innermost open element grows, so the pointers held stay valid.
      Node &node = open.back()->children.emplace_back();
      node.name = LocalName(name);
      node.line = line;
      if (!empty) open.push_back(&node);
    }
  }
  return root;
}

// --- JSON --------------------------------------------------------------------

class JsonReader {
 public:
  explicit JsonReader(const std::string &text) : in_(text) {}

  Node Read() {
    Node root;
    in_.skip_space();
    if (in_.peek() == '{') Object(&root, 0);
    return root;
  }

 private:
  static constexpr int kMaxDepth = 256;

  std::string String() {
    std::string out;
    in_.advance();  // the opening quote
    while (!in_.done() && in_.peek() != '"') {
      char c = in_.peek();
      in_.advance();
      if (c != '\\') {
        out += c;
        continue;
      }
      c = in_.peek();
      in_.advance();
      switch (c) {
        case 'b':
          out += '\b';
          break;
        case 'f':
          out += '\f';
          break;
        case 'n':
          out += '\n';
          break;
        case 'r':
          out += '\r';
          break;
        case 't':
          out += '\t';
          break;
        case 'u': {
          std::string hex;
          for (int k = 0; k < 4 && !in_.done(); ++k, in_.advance()) hex += in_.peek();
          AppendUtf8(static_cast<uint32_t>(std::strtoul(hex.c_str(), nullptr, 16)), &out);
          break;
        }
        default:
          out += c;
      }
    }
    in_.advance();  // the closing quote
    return out;
  }

  // A number or a literal, as written.
  std::string Bare() {
    std::string out;
    while (!in_.done() && std::strchr(",]} \t\r\n", in_.peek()) == nullptr) {
      out += in_.peek();
      in_.advance();
    }
    return out;
  }

  // Any value; an object's members and a scalar's text go into node.
  void Value(Node *node, int depth) {
    in_.skip_space();
    const char c = in_.peek();
    if (c == '{') {
      Object(node, depth + 1);
    } else if (c == '[') {
      Skip();  // an array inside an array: [null] of an empty leaf
    } else if (c == '"') {
      node->text = String();
    } else {
      node->text = Bare();
    }
  }

  void Object(Node *parent, int depth) {
    if (depth > kMaxDepth) return Skip();
    in_.advance();  // {
    for (;;) {
      in_.skip_space();
      if (in_.done() || in_.peek() == '}') break;
      if (in_.peek() == ',') {
        in_.advance();
        continue;
      }
      const int line = in_.line();
      const std::string name = LocalName(String());
      in_.skip_space();
      if (in_.peek() == ':') in_.advance();
      in_.skip_space();
      if (in_.peek() == '[') {  // a list or leaf-list: one node per element
        in_.advance();
        for (;;) {
          in_.skip_space();
          if (in_.done() || in_.peek() == ']') break;
          if (in_.peek() == ',') {
            in_.advance();
            continue;
          }
          Node &entry = parent->children.emplace_back();
          entry.name = name;
          entry.line = in_.line();
          Value(&entry, depth);
        }
        in_.advance();  // ]
      } else {
        Node &member = parent->children.emplace_back();
        member.name = name;
        member.line = line;
        Value(&member, depth);
      }
    }
    in_.advance();  // }
  }

  // Skips one value, however deep: it keeps its own count of the brackets
  // open and never recurses, so it needs no bound on the nesting.
  void Skip() {
    int depth = 0;
    do {
      const char c = in_.peek();
      if (c == '"') {
        String();
        continue;
      }
      depth += (c == '{' || c == '[') ? 1 : (c == '}' || c == ']') ? -1 : 0;
      in_.advance();
    } while (!in_.done() && depth > 0);
  }

  Scanner in_;
};

// --- Paths -------------------------------------------------------------------

struct Predicate {
  std::string key;  // "." for a leaf-list value; empty for a position
  std::string value;
  size_t position = 0;
};

struct Step {
  std::string name;
  std::vector<Predicate> predicates;
};

std::vector<Step> ParseSteps(const std::string &path) {
  std::vector<Step> steps;
  size_t i = 0;
  while (i < path.size() && path[i] == '/') {
    ++i;
    Step step;
    std::string name;
    while (i < path.size() && path[i] != '/' && path[i] != '[') name += path[i++];
    step.name = LocalName(name);
    while (i < path.size() && path[i] == '[') {
      ++i;
      Predicate p;
      if (i < path.size() && std::isdigit(static_cast<unsigned char>(path[i]))) {
        p.position = std::strtoul(path.c_str() + i, nullptr, 10);
        while (i < path.size() && path[i] != ']') ++i;
      } else {
        while (i < path.size() && path[i] != '=' && path[i] != ']') p.key += path[i++];
        p.key = LocalName(Trim(p.key));
        if (i < path.size() && path[i] == '=') ++i;
        while (i < path.size() && path[i] == ' ') ++i;
        const char quote = i < path.size() ? path[i] : '\0';
        if (quote == '\'' || quote == '"') {
          const size_t end = path.find(quote, i + 1);
          p.value = path.substr(i + 1, end == std::string::npos ? std::string::npos : end - i - 1);
          i = end == std::string::npos ? path.size() : end + 1;
        }
        while (i < path.size() && path[i] != ']') ++i;
      }
      if (i < path.size()) ++i;  // ]
      step.predicates.push_back(std::move(p));
    }
    steps.push_back(std::move(step));
  }
  return steps;
}

// Whether a value as written and as libyang prints it are the same: the
// printed form is canonical (lower-case hex, no leading zeros).
bool SameValue(const std::string &written, const std::string &printed) {
  const std::string w = Trim(written);
  if (w == printed) return true;
  auto integer = [](const std::string &s) {
    size_t i = (!s.empty() && (s[0] == '+' || s[0] == '-')) ? 1 : 0;
    if (i == s.size()) return false;
    return std::all_of(s.begin() + i, s.end(), [](unsigned char c) { return std::isdigit(c); });
  };
  if (integer(w) && integer(printed)) {
    auto digits = [](const std::string &s) {
      const bool negative = s[0] == '-';
      size_t i = (s[0] == '+' || s[0] == '-') ? 1 : 0;
      while (i + 1 < s.size() && s[i] == '0') ++i;
      const std::string d = s.substr(i);
      return (negative && d != "0" ? "-" : "") + d;
    };
    return digits(w) == digits(printed);
  }
  return w.size() == printed.size() &&
         std::equal(w.begin(), w.end(), printed.begin(), [](unsigned char a, unsigned char b) {
           return std::tolower(a) == std::tolower(b);
         });
}

bool Fits(const Node &node, const Step &step, size_t position) {
  for (const Predicate &p : step.predicates) {
    if (p.position != 0) {
      if (p.position != position) return false;
    } else if (p.key == ".") {
      if (!SameValue(node.text, p.value)) return false;
    } else {
      const bool found =
          std::any_of(node.children.begin(), node.children.end(),
                      [&](const Node &c) { return c.name == p.key && SameValue(c.text, p.value); });
      if (!found) return false;
    }
  }
  return true;
}

}  // namespace

int LineOfPath(const std::string &text, bool json, const std::string &path) {
  const Node root = json ? JsonReader(text).Read() : ReadXml(text);
  std::vector<const Node *> current = {&root};
  int line = 0;
  for (const Step &step : ParseSteps(path)) {
    std::vector<const Node *> next;
    for (const Node *node : current) {
      size_t position = 0;
      for (const Node &child : node->children) {
        if (child.name != step.name) continue;
        ++position;
        if (Fits(child, step, position)) next.push_back(&child);
      }
    }
    if (next.empty()) break;
    line = next.front()->line;
    current.swap(next);
  }
  return line;
}

}  // namespace ipapp::host
