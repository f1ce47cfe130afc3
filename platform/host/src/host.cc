#include <ipapp/host.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <filesystem>

#include <nlohmann/json.hpp>

#include "edit_internal.h"
#include "input_text.h"
#include "kxconfd_host.h"
#include "locate.h"
#include "store.h"

namespace ipapp::host {
// The first line libyang names in its messages, or 0.
int LineOf(const std::vector<store::LibyangMessage> &messages) {
  for (const store::LibyangMessage &m : messages) {
    if (m.line > 0) return m.line;
  }
  return 0;
}

// What the first message says, or fallback.
std::string FirstError(const std::vector<store::LibyangMessage> &messages,
                       const std::string &fallback) {
  if (messages.empty()) return fallback;
  std::string text = messages.front().Text();
  return text.substr(0, text.find('\n'));
}

namespace {

namespace fs = std::filesystem;
using store::DNode;
using store::NodeKind;
using store::SNode;

// Modules whose top-level nodes come first, in this order: the order in
// which the element runs validation follows it.
const char *const kModuleOrder[] = {"shellcfg", "ipapp", "QX-RTM-MIB", "rtm-global",
                                    "shellcfg-internal"};
constexpr const char *kExtModule = "ipapp-ext";

std::string Where(const std::string &source, int line) {
  return line > 0 ? source + ":" + std::to_string(line) : source;
}

class SchemaImpl : public Schema {
 public:
  explicit SchemaImpl(std::shared_ptr<const store::SchemaIndex> index) : index_(std::move(index)) {}
  const std::vector<BoundNode> &bound_nodes() const override { return bound_; }
  const std::shared_ptr<const store::SchemaIndex> &index() const { return index_; }
  void CollectBindings(const std::string &dir);

 private:
  void Visit(const SNode &s, const lys_module *ext_module, const std::string &dir);

  std::shared_ptr<const store::SchemaIndex> index_;
  std::vector<BoundNode> bound_;
};

void SchemaImpl::CollectBindings(const std::string &dir) {
  const lys_module *ext = ly_ctx_get_module_implemented(index_->ctx(), kExtModule);
  if (ext == nullptr) ext = ly_ctx_get_module_latest(index_->ctx(), kExtModule);
  if (ext == nullptr) return;
  for (const SNode *top : index_->root().children) Visit(*top, ext, dir);
}

void SchemaImpl::Visit(const SNode &s, const lys_module *ext_module, const std::string &dir) {
  auto *parsed = static_cast<const lysp_node *>(s.ly->priv);
  BoundNode bound;
  bound.path = store::SchemaIndex::PathOf(s);
  const lysp_ext_instance *exts = parsed ? parsed->exts : nullptr;
  LY_ARRAY_COUNT_TYPE i;
  LY_ARRAY_FOR(exts, i) {
    const lysp_ext_instance &ext = exts[i];
    std::string name = ext.name ? ext.name : "";
    std::string local = name.substr(name.find(':') + 1);
    bool ours = false;
    if (ext.def != nullptr && ext_module->parsed != nullptr) {
      LY_ARRAY_COUNT_TYPE j;
      LY_ARRAY_FOR(ext_module->parsed->extensions, j) {
        ours = ours || ext.def == &ext_module->parsed->extensions[j];
      }
    }
    if (!ours) continue;
    std::string arg = ext.argument ? ext.argument : "";
    if (local == "validate" || local == "validate-once") {
      bound.bindings.push_back(
          {local == "validate" ? Binding::Kind::kPerEntry : Binding::Kind::kOnce, arg});
    } else if (local == "dependency") {
      store::ParsedPath path;
      std::string why;
      if (!store::ParsePath(*index_, arg, true, &path, &why)) {
        throw InputError(dir, 0, "dependency \"" + arg + "\" of " + bound.path + ": " + why);
      }
      bound.dependencies.push_back(store::SchemaIndex::PathOf(*path.last()));
    }
  }
  if (!bound.bindings.empty() || !bound.dependencies.empty()) bound_.push_back(std::move(bound));
  for (const SNode *c : s.children) Visit(*c, ext_module, dir);
}

// Instance of a data node in keypath syntax.
std::string InstancePath(const store::SchemaIndex &schema, const DNode &node) {
  store::KeypathBuilder kb;
  confd_hkeypath_t kp;
  std::string out;
  if (store::KeypathOfNode(node, &kb)) {
    kb.Fill(&kp);
    store::FormatKeypath(&schema, kp, &out);
  }
  return out;
}

// Whether the data that path elements [i, n) name below o (running) and n
// (candidate) differ; a null node has nothing below it. Nodes are matched by
// their instance paths: list entries by their keys.
bool Differs(const store::ParsedPath &path, int i, const DNode *o, const DNode *n) {
  if (o == nullptr && n == nullptr) return false;
  if (i == path.n) return !store::SameData(*path.last(), o, n);
  const store::PathElem &elem = path.e[i];
  if (!elem.s->is_list() && elem.s->kind != NodeKind::kLeafList) {
    return Differs(path, i + 1, o ? o->Child(elem.s) : nullptr, n ? n->Child(elem.s) : nullptr);
  }
  const store::ListInst *ol = o ? o->List(elem.s) : nullptr;
  const store::ListInst *nl = n ? n->List(elem.s) : nullptr;
  // One entry of each list, paired when their keys agree.
  auto pair = [&](const DNode *a, const DNode *b) {
    if (a != nullptr && b != nullptr && !store::SameKeys(*a, *b)) {
      return Differs(path, i + 1, a, nullptr) || Differs(path, i + 1, nullptr, b);
    }
    return Differs(path, i + 1, a, b);
  };
  if (elem.sel == store::PathElem::kKeys) {
    return pair(ol ? store::FindEntry(*ol, elem) : nullptr,
                nl ? store::FindEntry(*nl, elem) : nullptr);
  }
  if (elem.sel == store::PathElem::kIndex) {
    const auto at = static_cast<size_t>(elem.index);
    auto nth = [at](const store::ListInst *l) {
      return l && at < l->entries.size() ? l->entries[at] : nullptr;
    };
    return pair(nth(ol), nth(nl));
  }
  return store::VisitEntryPairs(ol, nl, pair);
}

// The data nodes a parsed schema path names in one tree, in store order
// (list references: the entries).
std::vector<const DNode *> Collect(const store::DataTree &tree, const store::ParsedPath &path) {
  std::vector<const DNode *> cur = {&tree.root()};
  for (int i = 0; i < path.n; ++i) {
    const store::PathElem &elem = path.e[i];
    std::vector<const DNode *> next;
    for (const DNode *d : cur) {
      if (elem.s->is_list() || elem.s->kind == NodeKind::kLeafList) {
        const store::ListInst *list = d->List(elem.s);
        if (list == nullptr) continue;
        if (elem.sel == store::PathElem::kKeys) {
          if (const DNode *entry = store::FindEntry(*list, elem)) next.push_back(entry);
        } else if (elem.sel == store::PathElem::kIndex) {
          if (static_cast<size_t>(elem.index) < list->entries.size()) {
            next.push_back(list->entries[elem.index]);
          }
        } else {
          next.insert(next.end(), list->entries.begin(), list->entries.end());
        }
      } else if (const DNode *c = d->Child(elem.s)) {
        next.push_back(c);
      }
    }
    cur.swap(next);
  }
  return cur;
}

class TransactionImpl : public Transaction {
 public:
  TransactionImpl(std::shared_ptr<const SchemaImpl> schema, std::shared_ptr<store::Txn> txn)
      : schema_(std::move(schema)),
        txn_(std::move(txn)),
        host_(std::make_unique<kxconfd>(txn_->thandle())) {}
  ~TransactionImpl() override { store::EndTxn(txn_->thandle()); }

  confd_trans_ctx *Context(const std::string &opaque) override {
    store::SetCurrentTxn(txn_->thandle());
    return txn_->NewContext(opaque, host_.get());
  }

  confd_hkeypath_t Keypath(const std::string &path) const override {
    store::ParsedPath parsed = Parse(path);
    store::KeypathBuilder kb;
    std::string why;
    if (!store::KeypathOfPath(*txn_, txn_->candidate(), parsed, &kb, &why)) {
      throw InputError(path, 0, why);
    }
    confd_hkeypath_t kp;
    kb.Fill(&kp);
    return kp;
  }

  std::string ErrorText() const override { return txn_->Error(); }
  bool HasError() const override { return txn_->HasError(); }
  void ClearError() override { txn_->ClearError(); }

  std::vector<Fault> Faults() const override { return txn_->Faults(); }
  std::vector<TraceEntry> Trace() const override { return txn_->Trace(); }
  void ClearTrace() override { txn_->ClearTrace(); }
  void RecordTrace(bool on) override { txn_->RecordTrace(on); }
  bool RecordingTrace() const override { return txn_->recording_trace(); }

  OpenResources Open() const override { return txn_->Open(); }
  std::vector<OpenItem> OpenItems() const override { return txn_->OpenItems(); }

  void FailCdbSessions(bool fail) override { txn_->FailCdbSessions(fail); }
  void FailMaapiSocket(bool fail) override { txn_->FailMaapiSocket(fail); }

  bool Changed(const std::string &schema_path) const override {
    store::ParsedPath parsed = Parse(schema_path);
    return Differs(parsed, 0, &txn_->running().root(), &txn_->candidate().root());
  }

  std::vector<std::string> Instances(const std::string &schema_path) const override {
    store::ParsedPath parsed = Parse(schema_path);
    if (!parsed.last()->is_list()) throw InputError(schema_path, 0, "not a list");
    std::vector<std::string> out;
    for (const DNode *d : Collect(txn_->candidate(), parsed)) {
      out.push_back(InstancePath(txn_->schema(), *d));
    }
    return out;
  }

 private:
  store::ParsedPath Parse(const std::string &path) const {
    store::ParsedPath parsed;
    std::string why;
    if (!store::ParsePath(txn_->schema(), path, true, &parsed, &why)) {
      throw InputError(path, 0, why);
    }
    return parsed;
  }

  std::shared_ptr<const SchemaImpl> schema_;
  std::shared_ptr<store::Txn> txn_;
  std::unique_ptr<kxconfd> host_;
};

// libyang's JSON parser takes some truncated texts for empty data, and the
// JSON library throws for a number that overflows a double; the syntax is
// checked on its own first, so that every such text is refused with a line.
class JsonSyntax : public nlohmann::json_sax<nlohmann::json> {
 public:
  bool null() override { return true; }
  bool boolean(bool) override { return true; }
  bool number_integer(number_integer_t) override { return true; }
  bool number_unsigned(number_unsigned_t) override { return true; }
  bool number_float(number_float_t, const string_t &) override { return true; }
  bool string(string_t &) override { return true; }
  bool binary(binary_t &) override { return true; }
  bool start_object(std::size_t) override { return true; }
  bool key(string_t &) override { return true; }
  bool end_object() override { return true; }
  bool start_array(std::size_t) override { return true; }
  bool end_array() override { return true; }
  bool parse_error(std::size_t position, const std::string &,
                   const nlohmann::json::exception &e) override {
    position_ = position;
    why_ = e.what();
    return false;
  }

  size_t position() const { return position_; }
  const std::string &why() const { return why_; }

 private:
  size_t position_ = 0;
  std::string why_;
};

void CheckJsonSyntax(const DataSource &source) {
  JsonSyntax syntax;
  if (nlohmann::json::sax_parse(source.text, &syntax)) return;
  // position counts the bytes read, the offending one included.
  const size_t end =
      std::min<size_t>(syntax.position() > 0 ? syntax.position() - 1 : 0, source.text.size());
  const int line =
      1 + static_cast<int>(std::count(source.text.begin(), source.text.begin() + end, '\n'));
  std::string why = syntax.why();
  // "[json.exception.parse_error.101] parse error at line 1, column 3: x" -> "x"
  const size_t tag = why.find("] ");
  if (tag != std::string::npos) why.erase(0, tag + 2);
  const size_t colon = why.find(": ", why.find("parse error"));
  if (why.rfind("parse error", 0) == 0 && colon != std::string::npos) why.erase(0, colon + 2);
  throw InputError(source.name, line, "malformed JSON: " + why);
}

// Parses and indexes source; its text is released once parsed (a message
// about the index names no line).
std::unique_ptr<store::DataTree> ParseData(const store::SchemaIndex &index, DataSource &source,
                                           store::DataTree::Libyang libyang) {
  lyd_node *tree = nullptr;
  bool blank = std::all_of(source.text.begin(), source.text.end(),
                           [](unsigned char c) { return std::isspace(c); });
  // libyang reads a C string: a NUL would end the text there, unnoticed.
  if (!blank) CheckConfigText(source.text, source.name);
  if (!blank && source.format == DataSource::Format::kJson) CheckJsonSyntax(source);
  if (!blank) {
    store::TakeLibyangMessages();
    LY_ERR err = lyd_parse_data_mem(index.ctx(), source.text.c_str(),
                                    source.format == DataSource::Format::kXml ? LYD_XML : LYD_JSON,
                                    LYD_PARSE_STRICT, LYD_VALIDATE_NO_STATE, &tree);
    if (err != LY_SUCCESS) {
      const std::vector<store::LibyangMessage> messages = store::TakeLibyangMessages();
      lyd_free_all(tree);
      int line = LineOf(messages);
      if (line == 0 && !messages.empty() && !messages.front().data_path.empty()) {
        line = LineOfPath(source.text, source.format == DataSource::Format::kJson,
                          messages.front().data_path);
      }
      throw InputError(source.name, line, FirstError(messages, "cannot be parsed"));
    }
    try {
      RefuseEditOperations(source, tree);
    } catch (...) {
      lyd_free_all(tree);
      throw;
    }
  }
  std::string().swap(source.text);
  try {
    return std::make_unique<store::DataTree>(index, tree, libyang);
  } catch (const store::DataError &e) {
    throw InputError(source.name, 0, e.what());
  }
}

}  // namespace

InputError::InputError(const std::string &source, int line, const std::string &message)
    : std::runtime_error(Where(source, line) + ": " + Abridged(message)),
      source_(source),
      line_(line),
      message_(Abridged(message)) {}

DataSource DataSource::Xml(std::string text, std::string name) {
  return {Format::kXml, std::move(text), std::move(name)};
}

DataSource DataSource::Json(std::string text, std::string name) {
  return {Format::kJson, std::move(text), std::move(name)};
}

DataSource DataSource::Empty(std::string name) {
  return {Format::kXml, "", std::move(name)};
}

DataSource DataSource::File(const std::string &path) {
  std::string ext = fs::path(path).extension().string();
  Format format;
  if (ext == ".xml") {
    format = Format::kXml;
  } else if (ext == ".json") {
    format = Format::kJson;
  } else {
    throw InputError(path, 0, "unknown data format \"" + ext + "\" (expected .xml or .json)");
  }
  // A directory opens and reads as empty text: as a candidate it would mean
  // "delete everything".
  std::error_code ec;
  if (fs::is_directory(path, ec)) throw InputError(path, 0, "is a directory, not a file");
  std::string text = ReadConfigFile(path);
  return {format, std::move(text), path};
}

std::vector<std::string> ModuleNames(const std::string &dir) {
  std::vector<std::string> names;
  std::error_code ec;
  for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
    if (it->path().extension() != ".yang") continue;
    const std::string stem = it->path().stem().string();
    names.push_back(stem.substr(0, stem.find('@')));
  }
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
  return names;
}

std::string Schema::DefaultDir() {
  return IPAPP_DEFAULT_YANG_DIR;
}

std::shared_ptr<const Schema> Schema::Load(const std::string &dir) {
  store::CaptureLibyangLog();
  std::error_code ec;
  if (!fs::is_directory(dir, ec)) throw InputError(dir, 0, "not a directory");
  std::vector<std::string> names = ModuleNames(dir);
  if (names.empty()) throw InputError(dir, 0, "holds no YANG modules");
  auto rank = [](const std::string &name) {
    auto it = std::find(std::begin(kModuleOrder), std::end(kModuleOrder), name);
    return static_cast<size_t>(it - std::begin(kModuleOrder));
  };
  std::sort(names.begin(), names.end(), [&](const std::string &a, const std::string &b) {
    return rank(a) != rank(b) ? rank(a) < rank(b) : a < b;
  });

  store::TakeLibyangMessages();
  ly_ctx *ctx = nullptr;
  if (ly_ctx_new(dir.c_str(),
                 LY_CTX_SET_PRIV_PARSED | LY_CTX_NO_YANGLIBRARY | LY_CTX_DISABLE_SEARCHDIR_CWD,
                 &ctx) != LY_SUCCESS) {
    throw InputError(dir, 0, FirstError(store::TakeLibyangMessages(), "no libyang context"));
  }
  std::vector<const lys_module *> modules;
  for (const std::string &name : names) {
    const lys_module *mod = ly_ctx_load_module(ctx, name.c_str(), nullptr, nullptr);
    if (mod == nullptr) {
      const std::vector<store::LibyangMessage> messages = store::TakeLibyangMessages();
      ly_ctx_destroy(ctx);
      throw InputError((fs::path(dir) / (name + ".yang")).string(), LineOf(messages),
                       FirstError(messages, "cannot be loaded"));
    }
    modules.push_back(mod);
  }
  try {
    AddEditAnnotations(ctx);
  } catch (...) {
    ly_ctx_destroy(ctx);
    throw;
  }
  std::shared_ptr<store::SchemaIndex> index;
  try {
    index = std::make_shared<store::SchemaIndex>(ctx, modules);
  } catch (const std::runtime_error &e) {
    throw InputError(dir, 0, e.what());
  }
  auto schema = std::make_shared<SchemaImpl>(index);
  schema->CollectBindings(dir);
  return schema;
}

const ly_ctx *ContextOf(const Schema &schema) {
  return dynamic_cast<const SchemaImpl &>(schema).index()->ctx();
}

std::unique_ptr<Transaction> Transaction::Create(std::shared_ptr<const Schema> schema,
                                                 DataSource running, DataSource candidate) {
  auto impl = std::dynamic_pointer_cast<const SchemaImpl>(schema);
  if (!impl) throw InputError("<schema>", 0, "not a schema of this host");
  const store::SchemaIndex &index = *impl->index();
  // Only the candidate is ever read by XPath (MAAPI reads it, CDB the
  // running configuration): the running one's libyang data goes before the
  // candidate is parsed.
  auto running_tree = ParseData(index, running, store::DataTree::Libyang::kFree);
  auto candidate_tree = ParseData(index, candidate, store::DataTree::Libyang::kKeep);
  auto txn = store::CreateTxn(impl->index(), std::move(running_tree), std::move(candidate_tree));
  return std::make_unique<TransactionImpl>(impl, std::move(txn));
}

}  // namespace ipapp::host
