// Which validation callbacks a commit makes.
#include "ipapp/check_engine.h"

namespace ipapp::check {

std::vector<Call> PlanCommit(const host::Schema &schema, const host::Transaction &tx) {
  std::vector<Call> calls;
  for (const host::BoundNode &node : schema.bound_nodes()) {
    bool triggered = tx.Changed(node.path);
    for (auto dep = node.dependencies.begin(); !triggered && dep != node.dependencies.end();
         ++dep) {
      triggered = tx.Changed(*dep);
    }
    if (!triggered) continue;
    for (const host::Binding &binding : node.bindings) {
      if (binding.kind == host::Binding::Kind::kOnce) {
        calls.push_back({binding.opaque, node.path});
        continue;
      }
      for (std::string &entry : tx.Instances(node.path)) {
        calls.push_back({binding.opaque, std::move(entry)});
      }
    }
  }
  return calls;
}

}  // namespace ipapp::check
