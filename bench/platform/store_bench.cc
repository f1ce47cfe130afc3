// Data store call costs in the patterns the plug-in's handlers use, on a
// configuration of a few thousand nodes. Every benchmark runs with the call
// trace off (argument 0: how ipapp-check runs without --trace) and on (1).
// Each reports the CPU time per data store call as us_per_call; the reads
// named BM_Target_* carry their bound (with the trace off) as their label.
#include <benchmark/benchmark.h>
#include <confd_cdb.h>
#include <confd_maapi.h>
#include <ipapp/host.h>
#include <kxconfd.h>

#include <memory>
#include <string>
#include <vector>

namespace {

constexpr int kInterfaces = 300;

std::string Config(int interfaces) {
  std::string xml = "<config xmlns=\"urn:ipapp:shellcfg\"><interface>";
  for (int i = 0; i < interfaces; ++i) {
    std::string n = std::to_string(i);
    std::string a = std::to_string(i / 250) + "." + std::to_string(i % 250);
    xml +=
        "<l3 xmlns=\"urn:ipapp:ipapp\"><name>if" + n + "</name><ipv4><address><ip>10." + a +
        ".1/24</ip><secondary><ip>11." + a + ".1/24</ip></secondary><secondary><ip>12." + a +
        ".1/24</ip></secondary></address></ipv4><ipv6><address><ip>2001:db8:" + std::to_string(i) +
        "::1/64</ip></address></ipv6><lower-layer-if><vlan>" + std::to_string(i + 1) +
        "</vlan></lower-layer-if><vrf>vrf" + std::to_string(i % 7) + "</vrf></l3>";
  }
  xml += "</interface></config><internal xmlns=\"urn:ipapp:shellcfg-internal\">";
  for (int i = 0; i < interfaces; ++i) {
    std::string name = "l3-if" + std::to_string(i);
    xml += "<ospf-interface-l3><instance>1</instance><area>0.0.0." + std::to_string(i % 4) +
           "</area><if-name>" + name + "</if-name><ospf-pm-if-name>" + name +
           "</ospf-pm-if-name></ospf-interface-l3>";
  }
  return xml + "</internal>";
}

struct Fixture {
  Fixture() {
    schema = ipapp::host::Schema::Load(IPAPP_YANG_DIR);
    std::string config = Config(kInterfaces);
    tx = ipapp::host::Transaction::Create(schema, ipapp::host::DataSource::Xml(config),
                                          ipapp::host::DataSource::Xml(config));
    ctx = tx->Context("bench");
    sock = kxconfd_maapi_socket_get(static_cast<kxconfd_t *>(ctx->vcb_opaque));
    th = ctx->thandle;
    for (int i = 0; i < kInterfaces; ++i) {
      const std::string entry = "/config/interface/ipapp:l3{if" + std::to_string(i);
      vrf_paths.push_back(entry + "}/vrf");
      addr_paths.push_back(entry + "}/ipv4/address/ip");
    }
  }
  // Argument 0 of a benchmark: whether calls are recorded.
  void Trace(const benchmark::State &state) {
    tx->ClearTrace();
    tx->RecordTrace(state.range(0) != 0);
  }
  // A recording trace is kept from growing without bound.
  void Tick(size_t i) {
    if ((i & 0xFFFF) == 0) tx->ClearTrace();
  }
  std::shared_ptr<const ipapp::host::Schema> schema;
  std::unique_ptr<ipapp::host::Transaction> tx;
  confd_trans_ctx *ctx = nullptr;
  int sock = -1;
  int th = -1;
  std::vector<std::string> vrf_paths;
  std::vector<std::string> addr_paths;
};

Fixture &F() {
  static Fixture *f = new Fixture;
  return *f;
}

// CPU time per call, in microseconds, and the bound a target read must keep
// with the trace off.
constexpr double kTargetUs = 0.08;
void PerCall(benchmark::State &state, int64_t calls, bool target = false) {
  state.SetItemsProcessed(calls);
  state.counters["us_per_call"] = benchmark::Counter(
      static_cast<double>(calls) / 1e6, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
  if (target && state.range(0) == 0) state.SetLabel("target: us_per_call <= 0.08");
}

// MAAPI reads by key: maapi_exists, then the typed read, both "%s", entry
// after entry (the readers' leaf read).
void BM_Target_MaapiExistsThenGetByKey(benchmark::State &state) {
  Fixture &f = F();
  f.Trace(state);
  size_t i = 0;
  for (auto _ : state) {
    const std::string &path = f.addr_paths[i % f.addr_paths.size()];
    confd_ipv4_prefix prefix;
    if (maapi_exists(f.sock, f.th, "%s", path.c_str()) == 1) {
      benchmark::DoNotOptimize(
          maapi_get_ipv4_and_plen_elem(f.sock, f.th, &prefix, "%s", path.c_str()));
    }
    f.Tick(i += 2);
  }
  PerCall(state, state.iterations() * 2, true);
}
BENCHMARK(BM_Target_MaapiExistsThenGetByKey)->Arg(0)->Arg(1);

// A string leaf duplicated for the caller, then released (two calls).
void BM_GetElemString(benchmark::State &state) {
  Fixture &f = F();
  f.Trace(state);
  size_t i = 0;
  for (auto _ : state) {
    confd_value_t v;
    const std::string &path = f.vrf_paths[i % f.vrf_paths.size()];
    benchmark::DoNotOptimize(maapi_get_elem(f.sock, f.th, &v, "%s", path.c_str()));
    confd_free_dup_to_value(&v);
    f.Tick(i += 2);
  }
  PerCall(state, state.iterations() * 2);
}
BENCHMARK(BM_GetElemString)->Arg(0)->Arg(1);

// A MAAPI read by key, the path formatted from the key by the store, entry
// after entry.
void BM_Target_MaapiGetInt32ByKey(benchmark::State &state) {
  Fixture &f = F();
  f.Trace(state);
  size_t i = 0;
  for (auto _ : state) {
    int32_t vlan;
    benchmark::DoNotOptimize(maapi_get_int32_elem(f.sock, f.th, &vlan,
                                                  "/config/interface/l3{if%d}/lower-layer-if/vlan",
                                                  static_cast<int>(i % kInterfaces)));
    f.Tick(++i);
  }
  PerCall(state, state.iterations(), true);
}
BENCHMARK(BM_Target_MaapiGetInt32ByKey)->Arg(0)->Arg(1);

// The CDB read by index of one entry after another, in one session
// ("%s[%d]/ospf-pm-if-name", as the OSPF cross check reads every row).
void BM_Target_CdbGetStrByIndex(benchmark::State &state) {
  Fixture &f = F();
  f.Trace(state);
  KxConfdInterface *iface = kxconfd_instance_get(static_cast<kxconfd_t *>(f.ctx->vcb_opaque));
  KxConfdCdbSession cdb(iface, CDB_RUNNING, true);
  size_t i = 0;
  for (auto _ : state) {
    char name[8192];
    benchmark::DoNotOptimize(cdb_get_str(cdb.Socket(), name, sizeof name, "%s[%d]/ospf-pm-if-name",
                                         "/internal/ospf-interface-l3",
                                         static_cast<int>(i % kInterfaces)));
    f.Tick(++i);
  }
  PerCall(state, state.iterations(), true);
}
BENCHMARK(BM_Target_CdbGetStrByIndex)->Arg(0)->Arg(1);

// The OSPF cross check's inner loop: in a CDB session, the running table's
// size, then the name of every row by index ("%s[%d]/ospf-pm-if-name").
void BM_CdbRowsByIndex(benchmark::State &state) {
  Fixture &f = F();
  f.Trace(state);
  size_t calls = 0;
  KxConfdInterface *iface = kxconfd_instance_get(static_cast<kxconfd_t *>(f.ctx->vcb_opaque));
  for (auto _ : state) {
    KxConfdCdbSession cdb(iface, CDB_RUNNING, true);
    const int n = cdb_num_instances(cdb.Socket(), "%s", "/internal/ospf-interface-l3");
    for (int i = 0; i < n; ++i) {
      char name[8192];
      benchmark::DoNotOptimize(cdb_get_str(cdb.Socket(), name, sizeof name,
                                           "%s[%d]/ospf-pm-if-name", "/internal/ospf-interface-l3",
                                           i));
    }
    calls += n + 3;  // with the session's start and end
    f.Tick(calls);
  }
  PerCall(state, static_cast<int64_t>(calls));
}
BENCHMARK(BM_CdbRowsByIndex)->Arg(0)->Arg(1);

// A cursor over the L3 list, key by key.
void BM_CursorWalk(benchmark::State &state) {
  Fixture &f = F();
  f.Trace(state);
  size_t i = 0;
  for (auto _ : state) {
    maapi_cursor mc;
    maapi_init_cursor(f.sock, f.th, &mc, "/config/interface/ipapp:l3");
    for (maapi_get_next(&mc); mc.n != 0; maapi_get_next(&mc)) benchmark::DoNotOptimize(mc.keys[0]);
    maapi_destroy_cursor(&mc);
    f.Tick(i += kInterfaces);
  }
  PerCall(state, state.iterations() * (kInterfaces + 3));
}
BENCHMARK(BM_CursorWalk)->Arg(0)->Arg(1);

// Batches of 32 objects of 4 values, strings duplicated and released.
void BM_GetObjects(benchmark::State &state) {
  Fixture &f = F();
  f.Trace(state);
  size_t i = 0;
  confd_value_t values[32 * 4];
  for (auto _ : state) {
    maapi_cursor mc;
    maapi_init_cursor(f.sock, f.th, &mc, "/internal/ospf-interface-l3");
    do {
      int n = 32;
      maapi_get_objects(&mc, values, 4, &n);
      for (int j = 0; j < n * 4; ++j) confd_free_dup_to_value(&values[j]);
    } while (mc.n != 0);
    maapi_destroy_cursor(&mc);
    f.Tick(i += 1000);
  }
  state.SetItemsProcessed(state.iterations() * kInterfaces);
}
BENCHMARK(BM_GetObjects)->Arg(0)->Arg(1);

void BM_DiffIterateUnchanged(benchmark::State &state) {
  Fixture &f = F();
  f.Trace(state);
  auto iter = [](confd_hkeypath_t *, maapi_iter_op, confd_value_t *, confd_value_t *, void *) {
    return ITER_RECURSE;
  };
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        maapi_keypath_diff_iterate(f.sock, f.th, iter, 0, nullptr, "/config/interface/l3"));
    f.Tick(++i);
  }
}
BENCHMARK(BM_DiffIterateUnchanged)->Arg(0)->Arg(1);

void BM_TransactionCreate(benchmark::State &state) {
  Fixture &f = F();
  std::string config = Config(kInterfaces);
  for (auto _ : state) {
    auto tx = ipapp::host::Transaction::Create(f.schema, ipapp::host::DataSource::Xml(config),
                                               ipapp::host::DataSource::Xml(config));
    benchmark::DoNotOptimize(tx.get());
  }
}
BENCHMARK(BM_TransactionCreate)->Unit(benchmark::kMillisecond);

}  // namespace
