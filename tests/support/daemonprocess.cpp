#include "tests/support/daemonprocess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "base/rootpath.h"

extern char** environ;

namespace apm {
namespace test {

namespace {

const std::chrono::milliseconds kPollInterval(2);

std::string ReadWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

std::string ReadLink(const std::string& path) {
  char target[PATH_MAX];
  ssize_t length = readlink(path.c_str(), target, sizeof(target) - 1);
  if (length < 0) return std::string();
  return std::string(target, static_cast<size_t>(length));
}

}  // namespace

DaemonProcess::DaemonProcess(std::string program) : program_(std::move(program)) {
  std::string pattern = (boost::filesystem::temp_directory_path() / "ecomm-daemon-XXXXXX").string();
  if (mkdtemp(&pattern[0]) == nullptr) throw std::runtime_error("mkdtemp failed for " + pattern);
  captureDir_ = pattern;
  stdoutPath_ = captureDir_ + "/stdout";
  stderrPath_ = captureDir_ + "/stderr";
}

DaemonProcess::~DaemonProcess() {
  if (pid_ > 0 && !Reap(false)) {
    kill(pid_, SIGKILL);
    Reap(true);
  }
  boost::system::error_code ignored;
  boost::filesystem::remove_all(captureDir_, ignored);
}

void DaemonProcess::SetEnv(const std::string& name, const std::string& value) { environment_[name] = value; }

void DaemonProcess::AddEnvironment(const std::vector<std::string>& entries) {
  for (const std::string& entry : entries) {
    size_t equals = entry.find('=');
    if (equals == std::string::npos) continue;
    environment_[entry.substr(0, equals)] = entry.substr(equals + 1);
  }
}

bool DaemonProcess::Start(const std::vector<std::string>& arguments) {
  if (pid_ > 0 && !Reap(false)) return false;
  // A daemon that detaches is re-parented to us, so that Adopt can follow it.
  prctl(PR_SET_CHILD_SUBREAPER, 1);

  std::vector<std::string> argumentStore;
  argumentStore.push_back(program_);
  argumentStore.insert(argumentStore.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (std::string& argument : argumentStore) argv.push_back(&argument[0]);
  argv.push_back(nullptr);

  std::map<std::string, std::string> variables;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    std::string text(*entry);
    size_t equals = text.find('=');
    if (equals != std::string::npos) variables[text.substr(0, equals)] = text.substr(equals + 1);
  }
  for (const auto& variable : environment_) variables[variable.first] = variable.second;
  std::vector<std::string> environmentStore;
  for (const auto& variable : variables) environmentStore.push_back(variable.first + "=" + variable.second);
  std::vector<char*> envp;
  for (std::string& entry : environmentStore) envp.push_back(&entry[0]);
  envp.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, stdoutPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, stderrPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t signals;
  sigemptyset(&signals);
  posix_spawnattr_setsigmask(&attributes, &signals);
  sigfillset(&signals);
  posix_spawnattr_setsigdefault(&attributes, &signals);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

  pid_t child = -1;
  int result = posix_spawn(&child, program_.c_str(), &actions, &attributes, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  if (result != 0) return false;
  pid_ = child;
  ended_ = false;
  status_ = 0;
  return true;
}

void DaemonProcess::Adopt(pid_t pid) {
  pid_ = pid;
  ended_ = false;
  status_ = 0;
}

bool DaemonProcess::Signal(int signal) const {
  if (pid_ <= 0 || ended_) return false;
  return kill(pid_, signal) == 0;
}

bool DaemonProcess::Reap(bool block) {
  if (ended_) return true;
  if (pid_ <= 0) return false;
  int status = 0;
  pid_t result;
  do {
    result = waitpid(pid_, &status, block ? 0 : WNOHANG);
  } while (result < 0 && errno == EINTR);
  if (result == pid_) {
    ended_ = true;
    status_ = status;
  }
  return ended_;
}

bool DaemonProcess::WaitForExit(std::chrono::milliseconds timeout) {
  return WaitFor([this] { return Reap(false); }, timeout);
}

bool DaemonProcess::SignalUntilExit(int signal, std::chrono::milliseconds timeout,
                                    std::chrono::milliseconds interval) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!Reap(false)) {
    auto now = std::chrono::steady_clock::now();
    if (now >= deadline) return false;
    Signal(signal);
    auto remaining = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now);
    if (WaitForExit(std::min(interval, remaining))) return true;
  }
  return true;
}

bool DaemonProcess::IsRunning() { return pid_ > 0 && !Reap(false); }

bool DaemonProcess::Exited() const { return ended_ && WIFEXITED(status_); }
int DaemonProcess::ExitStatus() const { return Exited() ? WEXITSTATUS(status_) : -1; }
bool DaemonProcess::Signaled() const { return ended_ && WIFSIGNALED(status_); }
int DaemonProcess::TermSignal() const { return Signaled() ? WTERMSIG(status_) : -1; }

std::string DaemonProcess::Stdout() const { return ReadWholeFile(stdoutPath_); }
std::string DaemonProcess::Stderr() const { return ReadWholeFile(stderrPath_); }

std::string DaemonProcess::DescriptorTarget(int fd) const {
  return ReadLink("/proc/" + std::to_string(pid_) + "/fd/" + std::to_string(fd));
}

std::string DaemonProcess::WorkingDirectory() const { return ReadLink("/proc/" + std::to_string(pid_) + "/cwd"); }

bool DaemonProcess::WaitUntilServing(std::chrono::milliseconds timeout) {
  const std::string dataDirectory = base::RootedPath("/var/opt/kelvora/ecomm");
  return WaitFor(
      [&] {
        if (!IsRunning()) return true;
        char* real = realpath(dataDirectory.c_str(), nullptr);
        if (real == nullptr) return false;
        bool inside = WorkingDirectory() == real;
        free(real);
        return inside;
      },
      timeout) && IsRunning();
}

bool DaemonProcess::WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(kPollInterval);
  }
  return true;
}

}  // namespace test
}  // namespace apm
