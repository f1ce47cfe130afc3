#include "startup_config.h"

#include "committed_config.h"

#include <ipapp/host.h>
#include <libxml/parser.h>
#include <libyang/libyang.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

namespace fs = std::filesystem;

namespace ipapp::netconfd {
namespace {

std::string LibyangError(const ly_ctx *ctx) {
  const char *msg = ly_errmsg(ctx);
  return msg ? msg : "unknown libyang error";
}

}  // namespace

std::string StartupConfig(const std::string &file, const std::string &yang_dir) {
  // The checks and messages of ipapp-check: a bad file is named with its line.
  std::shared_ptr<const host::Schema> schema = host::Schema::Load(yang_dir);
  host::Transaction::Create(schema, host::DataSource::Empty("<running>"),
                            host::DataSource::File(file));

  // Then the same data again, printed as XML for netconfd.
  ly_ctx *raw = nullptr;
  if (ly_ctx_new(yang_dir.c_str(), 0, &raw) != LY_SUCCESS) {
    throw host::InputError(yang_dir, 0, "cannot create a YANG context");
  }
  std::unique_ptr<ly_ctx, void (*)(ly_ctx *)> ctx(raw, [](ly_ctx *c) { ly_ctx_destroy(c); });
  for (const std::string &module : host::ModuleNames(yang_dir)) {
    if (ly_ctx_load_module(ctx.get(), module.c_str(), nullptr, nullptr) == nullptr) {
      throw host::InputError(yang_dir, 0,
                             "cannot load module " + module + ": " + LibyangError(ctx.get()));
    }
  }
  const LYD_FORMAT format = fs::path(file).extension() == ".json" ? LYD_JSON : LYD_XML;
  lyd_node *tree = nullptr;
  if (lyd_parse_data_path(ctx.get(), file.c_str(), format, LYD_PARSE_ONLY | LYD_PARSE_STRICT, 0,
                          &tree) != LY_SUCCESS) {
    throw host::InputError(file, 0, LibyangError(ctx.get()));
  }
  char *text = nullptr;
  const LY_ERR printed = lyd_print_mem(&text, tree, LYD_XML, LYD_PRINT_WITHSIBLINGS);
  lyd_free_all(tree);
  if (printed != LY_SUCCESS) throw host::InputError(file, 0, LibyangError(ctx.get()));
  std::string out = StartupText(text ? text : "");
  std::free(text);
  return out;
}

std::string EmptyStartupConfig() {
  return StartupText("");
}

bool IsWholeXml(const std::string &text) {
  if (text.size() > static_cast<size_t>(INT32_MAX)) return false;
  xmlDocPtr doc =
      xmlReadMemory(text.data(), static_cast<int>(text.size()), "running.xml", nullptr,
                    XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_HUGE);
  const bool whole = doc != nullptr && xmlDocGetRootElement(doc) != nullptr;
  xmlFreeDoc(doc);
  return whole;
}

}  // namespace ipapp::netconfd
