// A whole commit with the real plug-in: a running and a candidate
// configuration (separated by the first NUL byte; JSON when the text starts
// with "{", else XML) that the host takes are validated with every callback
// run. An exception that leaves validate is the engine's to report: some
// data makes the plug-in throw by design (an output interface name shorter
// than two characters, LDP address text that is no prefix). What must not
// happen is a crash, a sanitizer finding, a failed assertion, or anything
// left open in the transaction that the report does not name as a leak.
#include <ipapp/check_engine.h>
#include <ipapp/host.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace {

ipapp::host::DataSource Source(const std::string &text, const char *name) {
  const size_t start = text.find_first_not_of(" \t\r\n");
  return start != std::string::npos && text[start] == '{'
             ? ipapp::host::DataSource::Json(text, name)
             : ipapp::host::DataSource::Xml(text, name);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const auto schema = ipapp::host::Schema::Load(IPAPP_YANG_DIR);
  static const auto *plugin = new ipapp::check::Plugin(IPAPP_PLUGIN);
  const std::string input(reinterpret_cast<const char *>(data), size);
  const size_t nul = input.find('\0');
  const std::string running = nul == std::string::npos ? "" : input.substr(0, nul);
  const std::string candidate = nul == std::string::npos ? input : input.substr(nul + 1);
  std::unique_ptr<ipapp::host::Transaction> tx;
  try {
    tx = ipapp::host::Transaction::Create(schema, Source(running, "<running>"),
                                          Source(candidate, "<candidate>"));
  } catch (const ipapp::host::InputError &) {
    return 0;  // refused input: the bad-file tests' business
  }
  ipapp::check::Options options;
  options.keep_going = true;
  const ipapp::check::Report report = ipapp::check::RunCommit(*plugin, *schema, *tx, options);
  // The plug-in leaves some cursors and empty XPath results open by design;
  // each must be in the report's leak lists, and no value or session stays.
  const ipapp::host::OpenResources open = tx->Open();
  if (open.dup_values != 0 || open.cdb_sessions != 0) __builtin_trap();
  size_t reported = 0;
  for (const ipapp::check::Invocation &inv : report.invocations) reported += inv.leaks.size();
  if (tx->OpenItems().size() != reported) __builtin_trap();
  return 0;
}
