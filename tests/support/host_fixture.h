// Shared test support: the element's modules loaded once, transactions built
// from inline XML, and one validation callback run the way the host runs it.
#ifndef IPAPP_TESTS_HOST_FIXTURE_H
#define IPAPP_TESTS_HOST_FIXTURE_H

#include <ipapp/host.h>

#include <memory>
#include <string>

namespace ipapp::test {

/// The modules of yang/, loaded once per test binary.
std::shared_ptr<const host::Schema> TestSchema();

/// A transaction from XML text (empty text: empty configuration).
std::unique_ptr<host::Transaction> MakeTransaction(const std::string &running_xml,
                                                   const std::string &candidate_xml);

/// Entry point of the plug-in that receives every callback.
using ValidateFn = int (*)(confd_trans_ctx *, confd_hkeypath_t *, confd_value_t *);

/// What one callback did.
struct Outcome {
  int result = 12345;  // pre-filled: a call that never returned is caught
  std::string error;   // the transaction's error text afterwards
};

/// Runs one validation callback: a fresh context for opaque, the keypath of
/// path, a C_NOEXISTS new value. The error text is cleared first.
Outcome Run(host::Transaction &tx, ValidateFn fn, const std::string &opaque,
            const std::string &path);

}  // namespace ipapp::test

#endif  // IPAPP_TESTS_HOST_FIXTURE_H
