// ipapp-netconfd: a private NETCONF server with the validation plug-in, for a
// person or a test to try the plug-in with an ordinary NETCONF client.
//
// It starts netconfd (candidate target, the element's modules, the module
// ipapp-netconfd whose library checks each commit) and a private sshd on
// 127.0.0.1:PORT whose netconf subsystem reaches that netconfd. Everything
// they write goes under DIR. It prints one line beginning with "ready" once a
// client can connect, stays in the foreground, and on SIGINT or SIGTERM stops
// every process it started, including the SSH sessions, then exits 0. It exits
// 1 when the servers cannot be started or one of them dies, 2 on bad usage.
#include <CLI/CLI.hpp>

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

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

enum ExitCode { kStopped = 0, kServerFailure = 1, kBadUsage = 2 };

constexpr const char *kNetconfd = "/usr/sbin/netconfd";
constexpr const char *kSubsystem = "/usr/sbin/netconf-subsystem";
constexpr const char *kSshd = "/usr/sbin/sshd";
constexpr const char *kKeygen = "/usr/bin/ssh-keygen";
constexpr const char *kYumaModules = "/usr/share/yuma/modules";
constexpr auto kStartTimeout = std::chrono::seconds(30);
constexpr auto kStopTimeout = std::chrono::seconds(5);

struct Args {
  int port = 0;
  std::string dir;
  std::string plugin;
  std::string yang;
};

class StartError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// --- Where things are -------------------------------------------------------

fs::path ExecutableDir() {
  std::error_code ec;
  fs::path self = fs::read_symlink("/proc/self/exe", ec);
  return ec ? fs::current_path() : self.parent_path();
}

// The first candidate that exists, or the first one (so that the error that
// follows names a sensible place).
fs::path FirstExisting(const std::vector<fs::path> &candidates) {
  for (const fs::path &p : candidates) {
    std::error_code ec;
    if (fs::exists(p, ec)) return p.lexically_normal();
  }
  return candidates.front().lexically_normal();
}

// Installed next to the executable (${bindir}/../${libdir}, ${datadir}), or
// else where this build tree made them.
fs::path DefaultPlugin() {
  const fs::path lib = ExecutableDir() / IPAPP_NETCONFD_BIN_TO_LIB;
  return FirstExisting({lib / "ip_app_validation" / IPAPP_NETCONFD_PLUGIN_NAME,
                        lib / IPAPP_NETCONFD_PLUGIN_NAME, IPAPP_NETCONFD_BUILD_PLUGIN});
}

fs::path DefaultYangDir() {
  return FirstExisting({ExecutableDir() / IPAPP_NETCONFD_BIN_TO_DATA / "ip_app_validation" / "yang",
                        IPAPP_NETCONFD_SOURCE_YANG});
}

// The directory holding libipapp-netconfd.so, and the one holding
// ipapp-netconfd.yang (the same one in the build tree).
fs::path SilDir() {
  return FirstExisting(
      {ExecutableDir() / IPAPP_NETCONFD_BIN_TO_LIB / "ip_app_validation" / "netconfd",
       IPAPP_NETCONFD_BUILD_SIL_DIR});
}

fs::path SilYangDir() {
  return FirstExisting(
      {ExecutableDir() / IPAPP_NETCONFD_BIN_TO_DATA / "ip_app_validation" / "netconfd",
       IPAPP_NETCONFD_BUILD_SIL_DIR});
}

std::vector<std::string> ModuleNames(const fs::path &dir) {
  std::vector<std::string> names;
  std::error_code ec;
  for (const fs::directory_entry &entry : fs::directory_iterator(dir, ec)) {
    if (entry.path().extension() != ".yang") continue;
    std::string stem = entry.path().stem().string();
    names.push_back(stem.substr(0, stem.find('@')));
  }
  if (ec || names.empty()) throw StartError("no YANG modules in " + dir.string());
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
// output in log (emptied first unless fresh_log is false).
pid_t Spawn(const std::vector<std::string> &argv, const std::map<std::string, std::string> &env,
            const fs::path &log, bool fresh_log = true) {
  int fd =
      open(log.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | (fresh_log ? O_TRUNC : O_APPEND), 0644);
  if (fd < 0) throw StartError("cannot open " + log.string() + ": " + std::strerror(errno));
  std::vector<char *> args;
  for (const std::string &a : argv) args.push_back(const_cast<char *>(a.c_str()));
  args.push_back(nullptr);

  pid_t pid = fork();
  if (pid < 0) {
    close(fd);
    throw StartError(std::string("fork failed: ") + std::strerror(errno));
  }
  if (pid == 0) {
    setpgid(0, 0);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    for (const auto &[name, value] : env) setenv(name.c_str(), value.c_str(), 1);
    int null = open("/dev/null", O_RDONLY);
    dup2(null, STDIN_FILENO);
    dup2(fd, STDOUT_FILENO);
    dup2(fd, STDERR_FILENO);
    execv(args[0], args.data());
    dprintf(STDERR_FILENO, "ipapp-netconfd: cannot run %s: %s\n", args[0], std::strerror(errno));
    _exit(127);
  }
  close(fd);
  return pid;
}

// Runs argv to completion; throws StartError if it fails.
void RunTool(const std::vector<std::string> &argv, const fs::path &log) {
  pid_t pid = Spawn(argv, {}, log, false);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    throw StartError(argv[0] + " failed; see " + log.string());
  }
}

std::string Describe(int status) {
  if (WIFEXITED(status)) return "exited with status " + std::to_string(WEXITSTATUS(status));
  if (WIFSIGNALED(status)) return std::string("was killed by ") + strsignal(WTERMSIG(status));
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

// Waits for the signals SIGINT, SIGTERM and SIGCHLD (all blocked) for at most
// timeout; returns the signal, or 0.
int WaitSignal(std::chrono::milliseconds timeout) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGCHLD);
  timespec ts{};
  ts.tv_sec = timeout.count() / 1000;
  ts.tv_nsec = (timeout.count() % 1000) * 1000000L;
  int sig = sigtimedwait(&set, nullptr, &ts);
  return sig < 0 ? 0 : sig;
}

class Interrupted : public std::exception {};

// Polls ready() until it holds; throws Interrupted on SIGINT or SIGTERM and
// StartError when a server ends or the time runs out.
template <typename Ready>
void WaitUntil(Processes &procs, const std::string &what, Ready ready) {
  const auto deadline = Clock::now() + kStartTimeout;
  while (!ready()) {
    if (std::optional<std::string> ended = procs.Reap()) throw StartError(*ended);
    if (Clock::now() >= deadline) throw StartError("timed out waiting for " + what);
    int sig = WaitSignal(std::chrono::milliseconds(50));
    if (sig == SIGINT || sig == SIGTERM) throw Interrupted();
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

void Keygen(const fs::path &key, const fs::path &log) {
  if (fs::exists(key)) return;
  RunTool({kKeygen, "-q", "-t", "ed25519", "-N", "", "-C", "ipapp-netconfd", "-f", key.string()},
          log);
}

void WriteFile(const fs::path &path, const std::string &text) {
  std::ofstream out(path, std::ios::trunc);
  out << text;
  if (!out) throw StartError("cannot write " + path.string());
}

std::string ReadFile(const fs::path &path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// A private sshd for one user, key login only, whose netconf subsystem
// reaches the netconfd listening on sock.
std::string SshdConfig(const fs::path &dir, const std::string &port, const std::string &user,
                       const fs::path &sock) {
  std::ostringstream out;
  out << "# Written by ipapp-netconfd.\n"
      << "Port " << port << "\n"
      << "ListenAddress 127.0.0.1\n"
      << "HostKey " << (dir / "host_key").string() << "\n"
      << "PidFile none\n"
      << "AuthorizedKeysFile " << (dir / "authorized_keys").string() << "\n"
      << "AllowUsers " << user << "\n"
      << "PubkeyAuthentication yes\n"
      << "PasswordAuthentication no\n"
      << "KbdInteractiveAuthentication no\n"
      << "PermitRootLogin prohibit-password\n"
      << "UsePAM no\n"
      << "StrictModes no\n"
      << "AllowTcpForwarding no\n"
      << "AllowAgentForwarding no\n"
      << "X11Forwarding no\n"
      << "PermitTTY no\n"
      // netconf-subsystem reaches netconfd through sock and tells it the port
      // the client came in on; netconfd refuses ports missing from its --port.
      << "Subsystem netconf " << kSubsystem << " --ncxserver-sockname=" << port << "@"
      << sock.string() << "\n";
  return out.str();
}

int Run(const Args &args) {
  const fs::path dir = fs::absolute(args.dir).lexically_normal();
  if (dir.string().find_first_of(" \t\n\"'\\$`") != std::string::npos) {
    std::cerr << "ipapp-netconfd: --dir must not hold spaces, quotes, '\\', '$' or '`': " << dir
              << "\n";
    return kBadUsage;
  }
  const fs::path plugin = args.plugin.empty() ? DefaultPlugin() : fs::absolute(args.plugin);
  const fs::path yang = args.yang.empty() ? DefaultYangDir() : fs::absolute(args.yang);
  const fs::path sil_dir = SilDir();
  const fs::path sil_yang_dir = SilYangDir();
  const std::string port = std::to_string(args.port);
  const std::string user = UserName();
  const fs::path sock = dir / "ncxserver.sock";
  const fs::path netconfd_log = dir / "netconfd.log";
  const fs::path sshd_log = dir / "sshd.log";
  if (!PortFree(args.port)) {
    std::cerr << "ipapp-netconfd: cannot start: port " << port << " on 127.0.0.1 is in use\n";
    return kServerFailure;
  }

  fs::create_directories(dir / "home");
  fs::create_directories(dir / "yuma" / "data");
  Keygen(dir / "host_key", dir / "keygen.log");
  Keygen(dir / "client_key", dir / "keygen.log");
  WriteFile(dir / "authorized_keys", ReadFile(dir / "client_key.pub"));
  WriteFile(dir / "sshd_config", SshdConfig(dir, port, user, sock));
  // sshd started by root insists on its privilege separation directory, which
  // the system's service would otherwise create when it starts.
  if (geteuid() == 0) mkdir("/run/sshd", 0755);
  // A socket left by a server that was killed would stop netconfd binding.
  fs::remove(sock);

  std::vector<std::string> netconfd = {
      kNetconfd,
      "--config=/dev/null",
      "--home=" + (dir / "home").string(),
      "--yuma-home=" + (dir / "yuma").string(),
      "--modpath=" + yang.string() + ":" + sil_yang_dir.string() + ":" + kYumaModules,
      "--runpath=" + sil_dir.string(),
      "--target=candidate",
      "--no-startup",
      "--access-control=off",
      "--port=" + port,
      "--ncxserver-sockname=" + sock.string(),
      "--log-level=info",
  };
  for (const std::string &module : ModuleNames(yang)) netconfd.push_back("--module=" + module);
  netconfd.push_back("--module=ipapp-netconfd");

  Processes procs;
  try {
    procs.Add("netconfd", Spawn(netconfd,
                                {{"HOME", (dir / "home").string()},
                                 {"YUMA_HOME", (dir / "yuma").string()},
                                 {"IPAPP_NETCONFD_PLUGIN", plugin.string()},
                                 {"IPAPP_NETCONFD_YANG", yang.string()}},
                                netconfd_log));
    try {
      WaitUntil(procs, "netconfd's socket", [&] { return fs::exists(sock); });
    } catch (const StartError &e) {
      throw StartError(std::string(e.what()) + "; the end of " + netconfd_log.string() + ":\n" +
                       Tail(netconfd_log, 8));
    }
    procs.Add("sshd",
              Spawn({kSshd, "-D", "-e", "-f", (dir / "sshd_config").string()}, {}, sshd_log));
    try {
      // Our own sshd says so: a connection could reach another server.
      const std::string listening = "Server listening on 127.0.0.1 port " + port + ".";
      WaitUntil(procs, "sshd on 127.0.0.1:" + port, [&] { return Contains(sshd_log, listening); });
    } catch (const StartError &e) {
      throw StartError(std::string(e.what()) + "; the end of " + sshd_log.string() + ":\n" +
                       Tail(sshd_log, 4));
    }
  } catch (const StartError &e) {
    std::cerr << "ipapp-netconfd: cannot start: " << e.what() << "\n";
    procs.StopAll();
    return kServerFailure;
  } catch (const Interrupted &) {
    procs.StopAll();
    return kStopped;
  }

  std::cout << "ready: NETCONF over SSH on 127.0.0.1:" << port << ", user " << user << ", key "
            << (dir / "client_key").string() << " (try: ssh -p " << port << " -i "
            << (dir / "client_key").string() << " " << user << "@127.0.0.1 -s netconf); log "
            << netconfd_log.string() << std::endl;

  for (;;) {
    int sig = WaitSignal(std::chrono::milliseconds(1000));
    if (sig == SIGINT || sig == SIGTERM) {
      procs.StopAll();
      return kStopped;
    }
    if (std::optional<std::string> ended = procs.Reap()) {
      std::cerr << "ipapp-netconfd: " << *ended << "; stopping (see " << dir.string() << ")\n";
      procs.StopAll();
      return kServerFailure;
    }
  }
}

}  // namespace

int main(int argc, char **argv) {
  CLI::App app{"Runs netconfd with the ip_app_validation plug-in checking every commit."};
  Args args;
  app.add_option("--port", args.port, "SSH port on 127.0.0.1 for NETCONF clients")
      ->required()
      ->check(CLI::Range(1, 65535));
  app.add_option("--dir", args.dir, "directory for everything the servers write")->required();
  app.add_option("--plugin", args.plugin,
                 "validation plug-in (default: the one installed or built)");
  app.add_option("--yang", args.yang, "directory of the element's YANG modules");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &e) {
    int rc = app.exit(e);
    return rc == 0 ? 0 : kBadUsage;
  }

  // Signals are taken with sigtimedwait; children get an empty mask back.
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGCHLD);
  sigprocmask(SIG_BLOCK, &set, nullptr);
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  try {
    return Run(args);
  } catch (const std::exception &e) {
    std::cerr << "ipapp-netconfd: " << e.what() << "\n";
    return kServerFailure;
  }
}
