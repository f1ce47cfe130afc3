#include "host_fixture.h"

namespace ipapp::test {

std::shared_ptr<const host::Schema> TestSchema() {
  static std::shared_ptr<const host::Schema> schema = host::Schema::Load(IPAPP_YANG_DIR);
  return schema;
}

std::unique_ptr<host::Transaction> MakeTransaction(const std::string &running_xml,
                                                   const std::string &candidate_xml) {
  return host::Transaction::Create(TestSchema(), host::DataSource::Xml(running_xml, "<running>"),
                                   host::DataSource::Xml(candidate_xml, "<candidate>"));
}

Outcome Run(host::Transaction &tx, ValidateFn fn, const std::string &opaque,
            const std::string &path) {
  tx.ClearError();
  confd_hkeypath_t kp = tx.Keypath(path);
  confd_value_t newval{};
  newval.type = C_NOEXISTS;
  Outcome out;
  out.result = fn(tx.Context(opaque), &kp, &newval);
  out.error = tx.ErrorText();
  return out;
}

}  // namespace ipapp::test
