// ipapp-netconfd: a private NETCONF server with the validation plug-in, for a
// person or a test to try the plug-in with an ordinary NETCONF client.
//
// It starts netconfd (candidate target, the element's modules, the module
// ipapp-netconfd whose library checks each commit) and a private sshd on
// 127.0.0.1:PORT whose netconf subsystem reaches that netconfd. Everything
// they write goes under DIR, which must be the launcher's own (PrivateDir);
// the running configuration is kept there across runs. It prints one line
// beginning with "ready" once a client can connect, stays in the foreground,
// and on SIGINT, SIGTERM or SIGHUP stops every process it started, including
// the SSH sessions, then exits 0; killed outright, its servers get SIGTERM
// from the kernel. It exits 1 when the plug-in or a server cannot be started
// or a server dies, 2 on bad usage.
#include <CLI/CLI.hpp>

#include <ipapp/check_engine.h>
#include <ipapp/host.h>
#include <ipapp/tools/install_paths.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "committed_config.h"
#include "private_dir.h"
#include "startup_config.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using ipapp::netconfd::IsWholeXml;
using ipapp::netconfd::kCommittedFile;
using ipapp::netconfd::PrivateDir;
namespace tools = ipapp::tools;

namespace {

enum ExitCode { kStopped = 0, kServerFailure = 1, kBadUsage = 2 };

constexpr const char *kNetconfd = "/usr/sbin/netconfd";
constexpr const char *kSubsystem = "/usr/sbin/netconf-subsystem";
constexpr const char *kSshd = "/usr/sbin/sshd";
constexpr const char *kKeygen = "/usr/bin/ssh-keygen";
constexpr const char *kYumaModules = "/usr/share/yuma/modules";
constexpr auto kStartTimeout = std::chrono::seconds(30);
constexpr auto kStopTimeout = std::chrono::seconds(5);

// The longest path a Unix socket address holds (sun_path without its NUL).
constexpr size_t kMaxSocketPath = 107;

struct Args {
  int port = 0;
  std::string dir;
  std::string plugin;
  std::string yang;
  std::string running;
  double timeout = 60;    ///< seconds per check, as ipapp-check's --timeout
  bool no_check = false;  ///< netconfd alone, to compare with
};

class StartError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// --- Where things are -------------------------------------------------------

// The directory holding libipapp-netconfd.so, and the one holding
// ipapp-netconfd.yang (the same one in the build tree).
fs::path SilDir() {
  return tools::FirstExisting(
      {tools::InstalledLibDir() / "ip_app_validation" / "netconfd", IPAPP_NETCONFD_BUILD_SIL_DIR});
}

fs::path SilYangDir() {
  return tools::FirstExisting(
      {tools::InstalledDataDir() / "netconfd", IPAPP_NETCONFD_BUILD_SIL_DIR});
}

// The modules netconfd loads, each once.
std::vector<std::string> Modules(const fs::path &dir) {
  std::vector<std::string> names = ipapp::host::ModuleNames(dir.string());
  if (names.empty()) throw StartError("no YANG modules in " + dir.string());
  return names;
}

std::string UserName() {
  const passwd *pw = getpwuid(getuid());
  if (pw == nullptr) throw StartError("the current user has no name in the password database");
  return pw->pw_name;
}

// --- Processes --------------------------------------------------------------

// Runs argv in its own process group (so a Ctrl-C reaches only this launcher,
// which then stops everything in order), with extra environment and its
// output to out. It gets the signal dispositions and mask of a fresh process
// (this one ignores SIGPIPE and blocks the signals it waits for), and
// SIGTERM when this launcher dies, however it dies.
pid_t Spawn(const std::vector<std::string> &argv, const std::map<std::string, std::string> &env,
            int out) {
  std::vector<char *> args;
  for (const std::string &a : argv) args.push_back(const_cast<char *>(a.c_str()));
  args.push_back(nullptr);

  const pid_t parent = getpid();
  pid_t pid = fork();
  if (pid < 0) throw StartError(std::string("fork failed: ") + std::strerror(errno));
  if (pid == 0) {
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) _exit(127);  // the launcher died before prctl
    for (int sig = 1; sig < NSIG; ++sig) signal(sig, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    for (const auto &[name, value] : env) setenv(name.c_str(), value.c_str(), 1);
    int null = open("/dev/null", O_RDONLY);
    dup2(null, STDIN_FILENO);
    dup2(out, STDOUT_FILENO);
    dup2(out, STDERR_FILENO);
    execv(args[0], args.data());
    dprintf(STDERR_FILENO, "ipapp-netconfd: cannot run %s: %s\n", args[0], std::strerror(errno));
    _exit(127);
  }
  return pid;
}

// Runs argv to completion, its output appended to the open log; throws
// StartError if it fails.
void RunTool(const std::vector<std::string> &argv, int log, const fs::path &log_path) {
  pid_t pid = Spawn(argv, {}, log);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    throw StartError(argv[0] + " failed; see " + log_path.string());
  }
}

std::string SignalName(int sig) {
  const char *abbrev = sigabbrev_np(sig);
  std::string text = abbrev ? std::string("SIG") + abbrev : std::to_string(sig);
  if (const char *description = strsignal(sig)) text += std::string(" (") + description + ")";
  return text;
}

std::string Describe(int status) {
  if (WIFEXITED(status)) return "exited with status " + std::to_string(WEXITSTATUS(status));
  if (WIFSIGNALED(status)) return "was killed by signal " + SignalName(WTERMSIG(status));
  return "stopped";
}

// The servers, and every process they leave behind: this process is a child
// subreaper, so an SSH session or a netconf-subsystem whose parent is gone
// becomes its child and is stopped with the rest.
class Processes {
 public:
  void Add(const std::string &name, pid_t pid) { named_[pid] = name; }

  /// Collects every child that has ended; returns the first server that did,
  /// as "NAME STATUS", or nothing.
  std::optional<std::string> Reap() {
    std::optional<std::string> ended;
    int status = 0;
    pid_t pid;
    while ((pid = waitpid(-1, &status, WNOHANG)) > 0) {
      auto it = named_.find(pid);
      if (it == named_.end()) continue;
      if (!ended) ended = it->second + " " + Describe(status);
      named_.erase(it);
    }
    return ended;
  }

  /// Stops every child: SIGTERM once (to a server's process group too), and
  /// SIGKILL to whatever remains after kStopTimeout. Returns once no child is
  /// left. netconfd takes a second or two to shut down; signalling it again
  /// meanwhile would only delay it.
  void StopAll() {
    const auto deadline = Clock::now() + kStopTimeout;
    std::set<pid_t> told;
    for (;;) {
      std::vector<pid_t> children = Children();
      if (children.empty()) {
        // Reap what ended since Children() looked, and stop when none is left.
        int status = 0;
        if (waitpid(-1, &status, WNOHANG) <= 0) return;
        continue;
      }
      const bool late = Clock::now() >= deadline;
      for (pid_t pid : children) {
        if (!late && !told.insert(pid).second) continue;
        const int sig = late ? SIGKILL : SIGTERM;
        kill(pid, sig);
        if (named_.count(pid) != 0) kill(-pid, sig);
      }
      usleep(50 * 1000);
      int status = 0;
      while (waitpid(-1, &status, WNOHANG) > 0) {
      }
    }
  }

 private:
  // Children of this process, from /proc (zombies included until reaped).
  static std::vector<pid_t> Children() {
    std::vector<pid_t> children;
    const std::string self = std::to_string(getpid());
    std::error_code ec;
    for (const fs::directory_entry &entry : fs::directory_iterator("/proc", ec)) {
      const std::string name = entry.path().filename().string();
      if (name.find_first_not_of("0123456789") != std::string::npos) continue;
      std::ifstream stat(entry.path() / "stat");
      std::string line;
      if (!std::getline(stat, line)) continue;
      // pid (comm) state ppid ...: comm may hold spaces and parentheses.
      const size_t close = line.rfind(')');
      if (close == std::string::npos) continue;
      std::istringstream rest(line.substr(close + 1));
      std::string state, ppid;
      rest >> state >> ppid;
      if (ppid == self && state != "Z") children.push_back(std::stoi(name));
    }
    return children;
  }

  std::map<pid_t, std::string> named_;
};

// The signals the launcher waits for, blocked while it runs: those that stop
// it, and SIGCHLD.
sigset_t WaitedSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGCHLD}) sigaddset(&set, sig);
  return set;
}

bool Stops(int sig) {
  return sig == SIGINT || sig == SIGTERM || sig == SIGHUP;
}

// Waits for one of WaitedSignals() for at most timeout; returns the signal,
// or 0.
int WaitSignal(std::chrono::milliseconds timeout) {
  const sigset_t set = WaitedSignals();
  timespec ts{};
  ts.tv_sec = timeout.count() / 1000;
  ts.tv_nsec = (timeout.count() % 1000) * 1000000L;
  int sig = sigtimedwait(&set, nullptr, &ts);
  return sig < 0 ? 0 : sig;
}

class Interrupted : public std::exception {};

// Polls ready() until it holds; throws Interrupted on a signal that stops the
// launcher and
// StartError when a server ends or the time runs out.
template <typename Ready>
void WaitUntil(Processes &procs, const std::string &what, Ready ready) {
  const auto deadline = Clock::now() + kStartTimeout;
  while (!ready()) {
    if (std::optional<std::string> ended = procs.Reap()) throw StartError(*ended);
    if (Clock::now() >= deadline) throw StartError("timed out waiting for " + what);
    int sig = WaitSignal(std::chrono::milliseconds(50));
    if (Stops(sig)) throw Interrupted();
  }
}

// Whether nothing listens on 127.0.0.1:port now. A server that takes the
// port later still makes sshd fail, which the start-up notices.
bool PortFree(int port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  int one = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bool ok = bind(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) == 0;
  close(fd);
  return ok;
}

bool Contains(const fs::path &log, const std::string &text) {
  std::ifstream in(log);
  for (std::string line; std::getline(in, line);) {
    if (line.find(text) != std::string::npos) return true;
  }
  return false;
}

std::string Tail(const fs::path &log, size_t lines) {
  std::ifstream in(log);
  std::vector<std::string> all;
  for (std::string line; std::getline(in, line);) {
    if (!line.empty()) all.push_back(line);
  }
  std::string out;
  for (size_t i = all.size() > lines ? all.size() - lines : 0; i < all.size(); ++i) {
    out += "  " + all[i] + "\n";
  }
  return out;
}

// --- Set-up -----------------------------------------------------------------

// A key pair made for this start: name and name.pub in dir.
void Keygen(const PrivateDir &dir, const std::string &name, int log) {
  dir.Remove(name);
  dir.Remove(name + ".pub");
  RunTool({kKeygen, "-q", "-t", "ed25519", "-N", "", "-C", "ipapp-netconfd", "-f",
           (dir / name).string()},
          log, dir / "keygen.log");
}

std::string ReadFile(const fs::path &path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// What the client key may do: open the NETCONF subsystem and nothing else.
// Whatever the client asks for (a shell, a command, a subsystem), sshd runs
// this instead.
std::string NetconfCommand(const std::string &port, const fs::path &sock) {
  return std::string(kSubsystem) + " --ncxserver-sockname=" + port + "@" + sock.string();
}

// A private sshd for one user, key login only, whose netconf subsystem
// reaches the netconfd listening on sock. sshd's own StrictModes would walk
// every directory up to / and refuse DIR under /tmp; PrivateDir has checked
// DIR and the way to it instead (a sticky /tmp is safe), and every file sshd
// reads in it was made afresh.
std::string SshdConfig(const fs::path &dir, const std::string &port, const std::string &user,
                       const fs::path &sock) {
  std::ostringstream out;
  out << "# Written by ipapp-netconfd.\n"
      << "Port " << port << "\n"
      << "ListenAddress 127.0.0.1\n"
      << "HostKey " << (dir / "host_key").string() << "\n"
      << "PidFile none\n"
      << "AuthorizedKeysFile " << (dir / "authorized_keys").string() << "\n"
      << "AuthorizedPrincipalsFile none\n"
      << "AuthorizedKeysCommand none\n"
      << "AllowUsers " << user << "\n"
      << "PubkeyAuthentication yes\n"
      << "PasswordAuthentication no\n"
      << "KbdInteractiveAuthentication no\n"
      << "HostbasedAuthentication no\n"
      << "PermitRootLogin forced-commands-only\n"
      << "UsePAM no\n"
      << "StrictModes no\n"
      << "DisableForwarding yes\n"
      << "PermitTTY no\n"
      << "PermitUserRC no\n"
      << "PermitUserEnvironment no\n"
      << "ForceCommand " << NetconfCommand(port, sock)
      << "\n"
      // netconf-subsystem reaches netconfd through sock and tells it the port
      // the client came in on; netconfd refuses ports missing from its --port.
      << "Subsystem netconf " << NetconfCommand(port, sock) << "\n";
  return out.str();
}

// Loads and starts the plug-in in a child process and lets it finish, as
// each check will: a plug-in that cannot be used stops the launcher here,
// with the plug-in's own story instead of netconfd's.
void ProbePlugin(const fs::path &plugin, const fs::path &yang, std::chrono::milliseconds timeout) {
  auto load = [&] {
    ipapp::check::CommitInput input;
    input.schema = ipapp::host::Schema::Load(yang.string());
    input.tx =
        ipapp::host::Transaction::Create(input.schema, ipapp::host::DataSource::Empty("<running>"),
                                         ipapp::host::DataSource::Empty("<candidate>"));
    return input;
  };
  try {
    ipapp::check::RunCommitIsolated(plugin.string(), load, {}, timeout);
  } catch (const ipapp::check::PluginError &e) {
    throw StartError(std::string("the plug-in cannot be used: ") + e.what());
  } catch (const ipapp::host::InputError &e) {
    throw StartError(std::string("the element's modules cannot be loaded: ") + e.what());
  } catch (const std::exception &e) {
    throw StartError(std::string("the plug-in cannot be tried: ") + e.what());
  }
}

// Where everything of one run goes, settled before anything starts.
struct Layout {
  fs::path dir;   // DIR, absolute
  fs::path sock;  // netconfd's socket
  fs::path plugin, yang;
  fs::path sil_dir, sil_yang_dir;
  std::string port;
  std::string user;
  std::chrono::milliseconds timeout{};
};

// The layout args ask for; a message and false when DIR cannot hold it.
bool Settle(const Args &args, Layout *layout) {
  Layout &l = *layout;
  l.dir = fs::absolute(args.dir).lexically_normal();
  if (l.dir.string().find_first_of(" \t\n\"'\\$`") != std::string::npos) {
    std::cerr << "ipapp-netconfd: --dir must not hold spaces, quotes, '\\', '$' or '`': " << l.dir
              << "\n";
    return false;
  }
  // netconfd's socket lives in a directory of its own that only this user
  // may enter, whatever DIR's mode lets others do.
  l.sock = l.dir / "run" / "netconfd.sock";
  if (l.sock.string().size() > kMaxSocketPath) {
    std::cerr << "ipapp-netconfd: --dir is too long: netconfd's socket " << l.sock.string()
              << " would take " << l.sock.string().size() << " characters, at most "
              << kMaxSocketPath << " fit in a socket address\n";
    return false;
  }
  l.plugin = args.plugin.empty() ? tools::DefaultPlugin() : fs::absolute(args.plugin);
  l.yang = args.yang.empty() ? tools::DefaultYangDir() : fs::absolute(args.yang);
  l.sil_dir = SilDir();
  l.sil_yang_dir = SilYangDir();
  l.port = std::to_string(args.port);
  l.timeout = std::chrono::milliseconds(std::llround(args.timeout * 1000));
  l.user = UserName();
  return true;
}

// The running configuration netconfd starts from and saves each commit to:
// the seed asked for, else what the last run committed, provided that is a
// file this user's servers wrote. netconfd saves by writing the file over in
// place; when that was cut short, the copy our library keeps of the last
// commit (committed_config.h) takes its place. A server without our library
// (--no-check) keeps no such copy, so an older one must not outlive it.
constexpr const char *kRunning = "running.xml";

void PrepareRunning(const PrivateDir &d, const std::optional<std::string> &seed, bool keeps_copy) {
  d.Remove(std::string(kCommittedFile) + ".new");
  if (seed) {
    d.WriteFile(kRunning, *seed, 0600);
    d.Remove(kCommittedFile);
  } else if (d.IsOwnFile(kRunning) && IsWholeXml(ReadFile(d / kRunning))) {
    // As netconfd saved it.
  } else if (d.IsOwnFile(kRunning) && d.IsOwnFile(kCommittedFile)) {
    std::cerr << "ipapp-netconfd: " << (d / kRunning).string()
              << " is cut short (netconfd stopped while saving it); starting from "
              << (d / kCommittedFile).string() << ", the last commit\n";
    d.WriteFile(kRunning, ReadFile(d / kCommittedFile), 0600);
  } else if (!d.IsOwnFile(kRunning)) {
    std::error_code ec;
    if (fs::symlink_status(d / kRunning, ec).type() != fs::file_type::not_found) {
      std::cerr << "ipapp-netconfd: " << (d / kRunning).string()
                << " is not a plain file of this user; starting with an empty running "
                   "configuration\n";
    }
    d.WriteFile(kRunning, ipapp::netconfd::EmptyStartupConfig(), 0600);
  }
  if (!keeps_copy) d.Remove(kCommittedFile);
  if (!d.IsOwnFile("startup-cfg-txid.txt")) d.Remove("startup-cfg-txid.txt");
}

// The directories the servers write to, fresh keys, and sshd's configuration.
void PrepareServers(const PrivateDir &d, const Layout &l) {
  d.CreateDir("home", 0700);
  d.CreateDir("yuma", 0700);
  d.CreateDir("yuma/data", 0700);
  d.CreateDir("run", 0700);
  const int keygen_log = d.CreateFile("keygen.log", 0600);
  try {
    Keygen(d, "host_key", keygen_log);
    Keygen(d, "client_key", keygen_log);
  } catch (...) {
    close(keygen_log);
    throw;
  }
  close(keygen_log);
  std::string client_key = ReadFile(d / "client_key.pub");
  d.WriteFile("authorized_keys",
              "restrict,command=\"" + NetconfCommand(l.port, l.sock) + "\" " + client_key, 0600);
  d.WriteFile("sshd_config", SshdConfig(l.dir, l.port, l.user, l.sock), 0600);
  // sshd started by root insists on its privilege separation directory, which
  // the system's service would otherwise create when it starts.
  if (geteuid() == 0) mkdir("/run/sshd", 0755);
}

// Starts netconfd and waits until its socket is there.
void StartNetconfd(const PrivateDir &d, const Layout &l, const Args &args, Processes &procs) {
  std::vector<std::string> netconfd = {
      kNetconfd,
      "--config=/dev/null",
      "--home=" + (l.dir / "home").string(),
      "--yuma-home=" + (l.dir / "yuma").string(),
      "--modpath=" + l.yang.string() + ":" + l.sil_yang_dir.string() + ":" + kYumaModules,
      "--runpath=" + l.sil_dir.string(),
      "--target=candidate",
      "--startup=" + (l.dir / kRunning).string(),
      "--access-control=off",
      "--port=" + l.port,
      "--ncxserver-sockname=" + l.sock.string(),
      "--log-level=info",
  };
  for (const std::string &module : Modules(l.yang)) netconfd.push_back("--module=" + module);
  if (!args.no_check) netconfd.push_back("--module=ipapp-netconfd");

  const fs::path netconfd_log = l.dir / "netconfd.log";
  const int log = d.CreateFile("netconfd.log", 0600);
  char timeout_text[32];
  std::snprintf(timeout_text, sizeof timeout_text, "%.3f", args.timeout);
  procs.Add("netconfd", Spawn(netconfd,
                              {{"HOME", (l.dir / "home").string()},
                               {"YUMA_HOME", (l.dir / "yuma").string()},
                               {"IPAPP_NETCONFD_PLUGIN", l.plugin.string()},
                               {"IPAPP_NETCONFD_YANG", l.yang.string()},
                               {"IPAPP_NETCONFD_TIMEOUT", timeout_text},
                               {"IPAPP_NETCONFD_COMMITTED", (l.dir / kCommittedFile).string()}},
                              log));
  close(log);
  try {
    WaitUntil(procs, "netconfd's socket", [&] { return fs::exists(l.sock); });
  } catch (const StartError &e) {
    throw StartError(std::string(e.what()) + "; the end of " + netconfd_log.string() + ":\n" +
                     Tail(netconfd_log, 8));
  }
}

// Starts sshd and waits until it listens.
void StartSshd(const PrivateDir &d, const Layout &l, Processes &procs) {
  const fs::path sshd_log = l.dir / "sshd.log";
  const int log = d.CreateFile("sshd.log", 0600);
  procs.Add("sshd", Spawn({kSshd, "-D", "-e", "-f", (l.dir / "sshd_config").string()}, {}, log));
  close(log);
  try {
    // Our own sshd says so: a connection could reach another server.
    const std::string listening = "Server listening on 127.0.0.1 port " + l.port + ".";
    WaitUntil(procs, "sshd on 127.0.0.1:" + l.port, [&] { return Contains(sshd_log, listening); });
  } catch (const StartError &e) {
    throw StartError(std::string(e.what()) + "; the end of " + sshd_log.string() + ":\n" +
                     Tail(sshd_log, 4));
  }
}

// Everything up to a server a client can reach. The exit status when the
// launcher must stop, or nothing.
std::optional<int> Start(const PrivateDir &d, const Layout &l, const Args &args,
                         const std::optional<std::string> &seed, Processes &procs) {
  try {
    if (!args.no_check) ProbePlugin(l.plugin, l.yang, l.timeout);
    PrepareRunning(d, seed, !args.no_check);
    PrepareServers(d, l);
    StartNetconfd(d, l, args, procs);
    StartSshd(d, l, procs);
  } catch (const StartError &e) {
    std::cerr << "ipapp-netconfd: cannot start: " << e.what() << "\n";
    procs.StopAll();
    return kServerFailure;
  } catch (const ipapp::netconfd::DirError &e) {
    std::cerr << "ipapp-netconfd: cannot start: " << e.what() << "\n";
    procs.StopAll();
    return kServerFailure;
  } catch (const Interrupted &) {
    procs.StopAll();
    return kStopped;
  }
  return std::nullopt;
}

// Runs until a signal stops the launcher or a server ends.
int Serve(const Layout &l, Processes &procs) {
  std::cout << "ready: NETCONF over SSH on 127.0.0.1:" << l.port << ", user " << l.user << ", key "
            << (l.dir / "client_key").string() << " (try: ssh -p " << l.port << " -i "
            << (l.dir / "client_key").string() << " " << l.user << "@127.0.0.1 -s netconf); log "
            << (l.dir / "netconfd.log").string() << std::endl;
  for (;;) {
    int sig = WaitSignal(std::chrono::milliseconds(1000));
    if (Stops(sig)) {
      procs.StopAll();
      return kStopped;
    }
    if (std::optional<std::string> ended = procs.Reap()) {
      std::cerr << "ipapp-netconfd: " << *ended << "; stopping (see " << l.dir.string() << ")\n";
      procs.StopAll();
      return kServerFailure;
    }
  }
}

int Run(const Args &args) {
  Layout layout;
  if (!Settle(args, &layout)) return kBadUsage;
  std::optional<PrivateDir> own;
  std::optional<std::string> seed;
  try {
    own.emplace(layout.dir);
    // The servers are given the path that was checked: symbolic links on
    // the way resolved.
    if (own->path() != layout.dir) {
      Args resolved = args;
      resolved.dir = own->path().string();
      if (!Settle(resolved, &layout)) return kBadUsage;
    }
    if (!args.running.empty()) {
      seed = ipapp::netconfd::StartupConfig(args.running, layout.yang.string());
    }
  } catch (const ipapp::netconfd::DirError &e) {
    std::cerr << "ipapp-netconfd: cannot use --dir: " << e.what() << "\n";
    return kBadUsage;
  } catch (const ipapp::host::InputError &e) {
    std::cerr << "ipapp-netconfd: --running: " << e.what() << "\n";
    return kBadUsage;
  }
  if (!PortFree(args.port)) {
    std::cerr << "ipapp-netconfd: cannot start: port " << layout.port
              << " on 127.0.0.1 is in use\n";
    return kServerFailure;
  }
  Processes procs;
  if (std::optional<int> stopped = Start(*own, layout, args, seed, procs)) return *stopped;
  return Serve(layout, procs);
}

// A port as the user means it: decimal digits only, 1 to 65535.
bool ParsePort(const std::string &text, int *port) {
  if (text.empty() || text.size() > 5 ||
      text.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  *port = std::stoi(text);
  return *port >= 1 && *port <= 65535;
}

}  // namespace

int main(int argc, char **argv) {
  CLI::App app{"Runs netconfd with the ip_app_validation plug-in checking every commit."};
  Args args;
  std::string port;
  app.add_option("--port", port, "SSH port on 127.0.0.1 for NETCONF clients (1-65535)")->required();
  app.add_option("--dir", args.dir, "directory of this user's for everything the servers write")
      ->required();
  CLI::Option *plugin = app.add_option("--plugin", args.plugin,
                                       "validation plug-in (default: the one installed or built)");
  CLI::Option *yang =
      app.add_option("--yang", args.yang, "directory of the element's YANG modules");
  CLI::Option *running = app.add_option(
      "--running", args.running,
      "running configuration to start with (.xml or .json) instead of the one kept in DIR");
  app.add_flag("--no-check", args.no_check,
               "run netconfd without the plug-in's check (to compare, e.g. for speed)");
  app.add_option("--timeout", args.timeout,
                 "seconds the plug-in may take for one commit or validate (default 60)")
      ->check(CLI::Range(0.001, 86400.0));
  try {
    app.parse(argc, argv);
    if (!ParsePort(port, &args.port)) {
      throw CLI::ValidationError("--port", "must be a decimal number from 1 to 65535: " + port);
    }
    if (args.dir.empty()) throw CLI::ValidationError("--dir", "must not be empty");
    for (CLI::Option *given : {plugin, yang, running}) {
      if (given->count() > 0 && given->as<std::string>().empty()) {
        throw CLI::ValidationError(given->get_name(), "must not be empty");
      }
    }
  } catch (const CLI::ParseError &e) {
    int rc = app.exit(e);
    return rc == 0 ? 0 : kBadUsage;
  }

  // A client that goes away must not kill the launcher; signals are taken
  // with sigtimedwait; children get default dispositions and an empty mask.
  signal(SIGPIPE, SIG_IGN);
  const sigset_t set = WaitedSignals();
  sigprocmask(SIG_BLOCK, &set, nullptr);
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  try {
    return Run(args);
  } catch (const std::exception &e) {
    std::cerr << "ipapp-netconfd: " << e.what() << "\n";
    return kServerFailure;
  }
}
