#include "process/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace korvel::process {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr auto kReadPollStep = 100ms;  // How often the reader looks whether it should stop.
constexpr auto kOutputDrain = 1s;      // After the exit, until the output has ended.

// A pipe whose ends are closed on exec; dup2 clears that flag on the child's copies.
void MakePipe(int fds[2]) {
  if (pipe2(fds, O_CLOEXEC) != 0) {
    throw std::runtime_error(std::string("pipe: ") + std::strerror(errno));
  }
}

// Closes `fd` unless it is -1 (or already closed by an earlier call), and marks it closed.
void CloseIfOpen(int& fd) {
  if (fd >= 0) close(fd);
  fd = -1;
}

int OpenOrThrow(const std::string& path, int flags) {
  const int fd = open(path.c_str(), flags | O_CLOEXEC, 0644);
  if (fd < 0) throw std::runtime_error("open " + path + ": " + std::strerror(errno));
  return fd;
}

int StatusCode(int status) {
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// The reaper's side (SpawnOptions::reapGroup), in a forked child: async-signal-safe calls only.
volatile sig_atomic_t g_reapedGroup = 0;

void EndReapedGroup(int) {
  const int saved = errno;
  if (g_reapedGroup > 0) kill(-g_reapedGroup, SIGKILL);
  errno = saved;
}

// Waits for the leader of the group, then ends the group and reaps its members (which were made
// this process's children as their parents died): the leader's status.
int ReapGroup(pid_t leader) {
  int leaderStatus = 0;
  for (;;) {
    int status = 0;
    const pid_t done = waitpid(-1, &status, 0);
    if (done == leader) {
      leaderStatus = status;
      break;
    }
    if (done < 0 && errno != EINTR) return 127;
  }
  kill(-leader, SIGKILL);
  while (waitpid(-leader, nullptr, 0) > 0 || errno == EINTR) {
  }
  return StatusCode(leaderStatus);
}

}  // namespace

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& argv,
                           const SpawnOptions& options)
    : m_processGroup(options.processGroup), m_reapGroup(options.reapGroup) {
  // The child's stdin, stdout and stderr, and the parent's ends of the pipes (-1 for none).
  int childFds[3] = {-1, -1, -1};
  int parentFds[3] = {-1, -1, -1};
  const auto closeAll = [&] {
    for (int& fd : childFds) CloseIfOpen(fd);
    for (int& fd : parentFds) CloseIfOpen(fd);
  };
  try {
    if (options.outputFile.empty()) {
      static const bool sigpipeIgnored = [] { return signal(SIGPIPE, SIG_IGN) != SIG_ERR; }();
      (void)sigpipeIgnored;
      for (int i = 0; i < 3; ++i) {
        int fds[2];
        MakePipe(fds);
        childFds[i] = fds[i == 0 ? 0 : 1];
        parentFds[i] = fds[i == 0 ? 1 : 0];
      }
    } else {
      childFds[0] = OpenOrThrow("/dev/null", O_RDONLY);
      childFds[1] = OpenOrThrow(options.outputFile, O_WRONLY | O_CREAT | O_APPEND);
      childFds[2] = fcntl(childFds[1], F_DUPFD_CLOEXEC, 0);
      if (childFds[2] < 0) throw std::runtime_error(std::string("dup: ") + std::strerror(errno));
    }
  } catch (...) {
    closeAll();
    throw;
  }

  // Everything the child needs is prepared here: after fork() it may only make
  // async-signal-safe calls.
  std::vector<char*> args;
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  std::vector<char*> environment;
  if (options.environment) {
    for (const std::string& entry : *options.environment) {
      environment.push_back(const_cast<char*>(entry.c_str()));
    }
    environment.push_back(nullptr);
  }
  const char* directory = options.directory.empty() ? nullptr : options.directory.c_str();
  const std::string execError =
      "cannot execute " + program + (directory ? " in " + options.directory : std::string()) + "\n";
  const pid_t parent = getpid();
  const long maxFd = sysconf(_SC_OPEN_MAX);

  m_pid = fork();
  if (m_pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);  // the parent died before prctl
    if (m_processGroup) setpgid(0, 0);
    for (int i = 0; i < 3; ++i) dup2(childFds[i], i);
#ifdef SYS_close_range
    if (syscall(SYS_close_range, 3U, ~0U, 0U) != 0)
#endif
      for (long fd = 3; fd < maxFd; ++fd) close(static_cast<int>(fd));
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    struct sigaction defaultAction {};
    defaultAction.sa_handler = SIG_DFL;
    sigaction(SIGPIPE, &defaultAction, nullptr);
    const auto exec = [&] {
      if (directory == nullptr || chdir(directory) == 0) {
        if (options.environment) {
          execve(program.c_str(), args.data(), environment.data());
        } else {
          execv(program.c_str(), args.data());
        }
      }
      ssize_t ignored = write(STDERR_FILENO, execError.data(), execError.size());
      (void)ignored;
      _exit(127);
    };
    if (!options.reapGroup) exec();
    // The reaper: out of the caller's group, so that a terminal's signals do not end it before
    // its group; SIGTERM blocked until the handler knows the group.
    setpgid(0, 0);
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    sigprocmask(SIG_BLOCK, &term, nullptr);
    const pid_t leader = fork();
    if (leader == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      setpgid(0, 0);
      sigprocmask(SIG_UNBLOCK, &term, nullptr);
      exec();
    }
    if (leader < 0) _exit(127);
    setpgid(leader, leader);
    g_reapedGroup = leader;
    struct sigaction end {};
    end.sa_handler = EndReapedGroup;
    sigaction(SIGTERM, &end, nullptr);
    sigprocmask(SIG_UNBLOCK, &term, nullptr);
    _exit(ReapGroup(leader));
  }
  const int forkErrno = errno;
  for (int& fd : childFds) CloseIfOpen(fd);
  if (m_pid < 0) {
    closeAll();
    throw std::runtime_error(std::string("fork: ") + std::strerror(forkErrno));
  }
  // Also here, so that the group exists before the first signal to it.
  if (m_processGroup) setpgid(m_pid, m_pid);
  m_stdin = parentFds[0];
  if (parentFds[1] >= 0) {
    m_captures[kStdout].closed = m_captures[kStderr].closed = false;
    m_reader = std::thread([this, stdoutFd = parentFds[1], stderrFd = parentFds[2]] {
      ReadOutput(stdoutFd, stderrFd);
    });
  }
}

ChildProcess::~ChildProcess() {
  if (Running()) {
    Signal(SIGKILL);
    int status = 0;
    while (waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
    }
  }
  if (m_reader.joinable()) {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_stopReading = true;
    }
    m_reader.join();
  }
  CloseStdin();
}

void ChildProcess::ReadOutput(int stdoutFd, int stderrFd) {
  pollfd fds[2] = {{stdoutFd, POLLIN, 0}, {stderrFd, POLLIN, 0}};
  char buffer[4096];
  for (;;) {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      if (m_stopReading || (m_captures[kStdout].closed && m_captures[kStderr].closed)) break;
    }
    if (poll(fds, 2, static_cast<int>(kReadPollStep.count())) < 0 && errno != EINTR) break;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      const ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
      if (n < 0 && errno == EINTR) continue;
      std::lock_guard<std::mutex> lock(m_mutex);
      Capture& capture = m_captures[i];
      if (n <= 0) {
        capture.closed = true;
        close(fds[i].fd);
        fds[i].fd = -1;  // poll skips negative descriptors
      } else {
        capture.text.append(buffer, static_cast<std::size_t>(n));
        for (std::size_t end;
             (end = capture.text.find('\n', capture.lineStart)) != std::string::npos;) {
          capture.lines.push_back(capture.text.substr(capture.lineStart, end - capture.lineStart));
          capture.lineStart = end + 1;
        }
      }
      m_changed.notify_all();
    }
  }
  for (const pollfd& fd : fds) {
    if (fd.fd >= 0) close(fd.fd);
  }
}

bool ChildProcess::SendLine(const std::string& line) {
  return Send(line + "\n");
}

bool ChildProcess::Send(const std::string& data) {
  std::size_t written = 0;
  while (m_stdin >= 0 && written < data.size()) {
    const ssize_t n = write(m_stdin, data.data() + written, data.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    written += static_cast<std::size_t>(n);
  }
  return written == data.size();
}

void ChildProcess::CloseStdin() {
  if (m_stdin >= 0) close(m_stdin);
  m_stdin = -1;
}

std::string ChildProcess::Output(Stream stream) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_captures[stream].text;
}

std::optional<std::string> ChildProcess::WaitForLine(
    Stream stream, const std::function<bool(const std::string&)>& match,
    std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(m_mutex);
  std::vector<std::string>& lines = m_captures[stream].lines;
  std::optional<std::string> found;
  m_changed.wait_for(lock, timeout, [&] {
    for (auto it = lines.begin(); it != lines.end(); ++it) {
      if (!match(*it)) continue;
      found = std::move(*it);
      lines.erase(it);
      return true;
    }
    return m_captures[stream].closed;
  });
  return found;
}

bool ChildProcess::Running() {
  if (m_exitStatus) return false;
  int status = 0;
  if (waitpid(m_pid, &status, WNOHANG) != m_pid) return true;
  m_exitStatus = StatusCode(status);
  return false;
}

std::optional<int> ChildProcess::ExitStatus() {
  Running();
  return m_exitStatus;
}

void ChildProcess::Signal(int signal) {
  if (!Running()) return;
  if (m_reapGroup) {
    kill(m_pid, SIGTERM);  // the reaper ends the group
  } else {
    kill(m_processGroup ? -m_pid : m_pid, signal);
  }
}

std::optional<int> ChildProcess::Wait(std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (Running()) {
    if (Clock::now() >= deadline) return std::nullopt;
    std::this_thread::sleep_for(10ms);
  }
  std::unique_lock<std::mutex> lock(m_mutex);
  m_changed.wait_for(lock, kOutputDrain,
                     [this] { return m_captures[kStdout].closed && m_captures[kStderr].closed; });
  return m_exitStatus;
}

int ChildProcess::Kill() {
  Signal(SIGKILL);
  // A killed process is reaped at once; the bound is only a guard.
  return Wait(10s).value_or(128 + SIGKILL);
}

int ChildProcess::Stop(std::chrono::milliseconds grace) {
  Signal(SIGTERM);
  if (auto status = Wait(grace)) return *status;
  return Kill();
}

}  // namespace korvel::process
