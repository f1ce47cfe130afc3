// A transaction of the test host with the MAAPI socket and handle a
// validation callback would use, and small readers over the C API.
#ifndef IPAPP_TESTS_PLATFORM_FIXTURE_H
#define IPAPP_TESTS_PLATFORM_FIXTURE_H

#include <confd_cdb.h>
#include <confd_lib.h>
#include <confd_maapi.h>
#include <gtest/gtest.h>
#include <kxconfd.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "host_fixture.h"

namespace ipapp::test {

inline std::string DataFile(const std::string &name) {
  std::ifstream in(std::string(IPAPP_PLATFORM_DATA_DIR) + "/" + name);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

/// The three example configurations together.
inline std::string ExampleConfig() {
  return DataFile("interfaces.xml") + DataFile("internal.xml") + DataFile("routes.xml");
}

/// The test module of data/types (store-types, prefix st): a leaf of every
/// kind of type the store maps.
inline std::shared_ptr<const host::Schema> TypesSchema() {
  static std::shared_ptr<const host::Schema> schema =
      host::Schema::Load(std::string(IPAPP_PLATFORM_DATA_DIR) + "/types");
  return schema;
}

/// store-types data: the <types> container with the given leaves.
inline std::string Types(const std::string &leaves) {
  return "<types xmlns=\"urn:ipapp:store-types\">" + leaves + "</types>";
}

/// store-types data: one <item> list entry with the given contents.
inline std::string Item(const std::string &contents) {
  return "<item xmlns=\"urn:ipapp:store-types\">" + contents + "</item>";
}

/// confd_pp_value text.
inline std::string Text(const confd_value_t &v) {
  char buf[256] = "(unset)";
  confd_pp_value(buf, sizeof buf, &v);
  return buf;
}

inline std::string KeypathText(const confd_hkeypath_t &kp) {
  char buf[1024] = "(unset)";
  confd_pp_kpath(buf, sizeof buf, &kp);
  return buf;
}

class StoreTest : public ::testing::Test {
 protected:
  void Load(const std::string &running, const std::string &candidate) {
    tx_ = MakeTransaction(running, candidate);
    ctx_ = tx_->Context("test");
    host_ = static_cast<kxconfd_t *>(ctx_->vcb_opaque);
    sock_ = kxconfd_maapi_socket_get(host_);
    th_ = ctx_->thandle;
  }
  void Load(const std::string &config) { Load(config, config); }
  /// A transaction of the store-types module.
  void LoadTypes(const std::string &running, const std::string &candidate) {
    tx_ = host::Transaction::Create(TypesSchema(), host::DataSource::Xml(running, "<running>"),
                                    host::DataSource::Xml(candidate, "<candidate>"));
    ctx_ = tx_->Context("test");
    host_ = static_cast<kxconfd_t *>(ctx_->vcb_opaque);
    sock_ = kxconfd_maapi_socket_get(host_);
    th_ = ctx_->thandle;
  }

  /// maapi_get_elem as text; "<error>" with the error text when it fails.
  std::string Get(const std::string &path) {
    confd_value_t v;
    if (maapi_get_elem(sock_, th_, &v, "%s", path.c_str()) != CONFD_OK) {
      return std::string("<error> ") + confd_lasterr();
    }
    std::string text = Text(v);
    confd_free_value(&v);
    return text;
  }

  std::unique_ptr<host::Transaction> tx_;
  confd_trans_ctx *ctx_ = nullptr;
  kxconfd_t *host_ = nullptr;
  int sock_ = -1;
  int th_ = -1;
};

}  // namespace ipapp::test

#endif  // IPAPP_TESTS_PLATFORM_FIXTURE_H
