// Added to the fake plug-in: what a plug-in may do around the commit while it
// loads, chosen by IPAPP_UNRULY_MODE (a comma-separated list):
//   print    writes "accepted" lines to standard output, buffered and not,
//            and a line to standard error
//   linger   forks a child that stays until it is killed; the child writes
//            its pid and then the pipes it holds above descriptor 2
//            ("pipe:[inode]"), one a line, to the file IPAPP_UNRULY_FILE
//   escape   the same, from a grandchild in a session of its own (out of the
//            commit's process group) whose parent has already ended
#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

bool Asked(const char *behaviour) {
  const char *mode = std::getenv("IPAPP_UNRULY_MODE");
  if (mode == nullptr) return false;
  const std::string list = std::string(",") + mode + ",";
  return list.find(std::string(",") + behaviour + ",") != std::string::npos;
}

void Print() {
  std::printf("accepted\n{\"verdict\": \"accepted\"}\n");
  const char raw[] = "accepted\n";
  [[maybe_unused]] ssize_t n = write(STDOUT_FILENO, raw, sizeof raw - 1);
  std::fprintf(stderr, "unruly plug-in loading\n");
}

// In the lingering child: what it was handed.
void Record(const char *file) {
  std::string text = std::to_string(getpid()) + "\n";
  if (DIR *dir = opendir("/proc/self/fd")) {
    while (const dirent *entry = readdir(dir)) {
      const int fd = std::atoi(entry->d_name);
      if (fd <= STDERR_FILENO || fd == dirfd(dir)) continue;
      char target[256] = {};
      const std::string link = std::string("/proc/self/fd/") + entry->d_name;
      if (readlink(link.c_str(), target, sizeof target - 1) > 0 &&
          std::strncmp(target, "pipe:", 5) == 0) {
        text += std::string(target) + "\n";
      }
    }
    closedir(dir);
  }
  // Written under another name and renamed: the reader sees all or nothing.
  const std::string partial = std::string(file) + ".partial";
  if (FILE *out = std::fopen(partial.c_str(), "w")) {
    std::fputs(text.c_str(), out);
    std::fclose(out);
    std::rename(partial.c_str(), file);
  }
}

void Linger(bool escape) {
  const char *file = std::getenv("IPAPP_UNRULY_FILE");
  if (fork() == 0) {
    if (escape && (setsid() < 0 || fork() != 0)) _exit(0);
    if (file != nullptr) Record(file);
    for (;;) pause();
  }
  // The commit goes on once the child is settled, or it might be ended
  // before it could tell what it holds.
  for (int i = 0; file != nullptr && i < 500 && access(file, F_OK) != 0; ++i) usleep(10000);
}

[[maybe_unused]] const bool kUnruly = [] {
  if (Asked("print")) Print();
  if (Asked("linger") || Asked("escape")) Linger(Asked("escape"));
  return true;
}();

}  // namespace
