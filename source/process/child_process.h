// A child process started with fork and exec: the one way korvel (its command checks), its
// programs, tests and local servers start other programs. By default its stdin, stdout and stderr
// are pipes: commands go to its stdin line by line, its output is collected by a reader thread and
// can be waited for line by line. Alternatively its output goes to a file. Every wait is bounded.
//
// The child is killed by the kernel if the thread that started it dies (PR_SET_PDEATHSIG), and by
// the destructor if it still runs, so that no process outlives its owner and none is left a
// zombie; it starts with no signal blocked and SIGPIPE at its default. Starting the first child
// with pipes makes the calling process ignore SIGPIPE, so that writing to a child that has gone
// fails with EPIPE instead of ending the writer; a child writing to a file changes nothing.
//
// Thread-safety: create, use and destroy a ChildProcess on one thread (the one that started it).
#ifndef KORVEL_SOURCE_PROCESS_CHILD_PROCESS_H_
#define KORVEL_SOURCE_PROCESS_CHILD_PROCESS_H_

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace korvel::process {

struct SpawnOptions {
  // The child's whole environment, as "NAME=value" entries; unset: this process's.
  std::optional<std::vector<std::string>> environment;
  // The directory the child starts in; "": this process's.
  std::string directory;
  // A file that the child's stdout and stderr are appended to, its stdin reading /dev/null;
  // "": pipes for all three.
  std::string outputFile;
  // The child leads a process group of its own, and signals reach the whole group.
  bool processGroup = false;
  // The program leads a process group of its own below a reaper process, which is the child:
  // when the program ends, and on Signal or Kill (whatever the signal), the reaper kills what is
  // left of the group and reaps every member, so that no descendant is left running or as a
  // zombie, then exits with the program's status.
  bool reapGroup = false;
};

class ChildProcess {
 public:
  enum Stream { kStdout = 0, kStderr = 1 };

  // Starts `program` with the argument vector `argv` (argv[0] included). Throws
  // std::runtime_error if the pipes, the output file or the fork fail; a program that cannot be
  // executed (or a directory that cannot be entered) makes the child exit with code 127.
  ChildProcess(const std::string& program, const std::vector<std::string>& argv,
               const SpawnOptions& options = {});
  // Kills the child (its group, if it leads one) with SIGKILL if it still runs, and reaps it.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t Pid() const { return m_pid; }

  // Writes `data` to the child's stdin; false if the child does not read any more.
  bool Send(const std::string& data);
  // Writes `line` and a newline.
  bool SendLine(const std::string& line);
  void CloseStdin();

  // Everything the child wrote to `stream` so far ("" when its output goes to a file).
  std::string Output(Stream stream) const;
  // The first complete line on `stream` that `match` accepts and that no earlier call returned,
  // waiting up to `timeout` for it; nullopt when none came in time.
  std::optional<std::string> WaitForLine(Stream stream,
                                         const std::function<bool(const std::string&)>& match,
                                         std::chrono::milliseconds timeout);

  // True until the child has exited (and has been reaped).
  bool Running();
  // Its exit code, or 128 plus the number of the signal that ended it; nullopt while it runs.
  std::optional<int> ExitStatus();
  // Sends `signal` (to the group, if the child leads one) unless the child has been reaped.
  void Signal(int signal);
  // Waits up to `timeout` for the child to exit and for its output to end: its exit status as
  // ExitStatus gives it; nullopt if it still runs.
  std::optional<int> Wait(std::chrono::milliseconds timeout);
  // SIGKILL and reaping, bounded: the exit status.
  int Kill();
  // SIGTERM, up to `grace` to exit, then SIGKILL: the exit status.
  int Stop(std::chrono::milliseconds grace);

 private:
  struct Capture {
    std::string text;                // everything received
    std::size_t lineStart = 0;       // where the incomplete last line starts in `text`
    std::vector<std::string> lines;  // complete lines not returned by WaitForLine yet
    bool closed = true;              // until a pipe is open
  };

  void ReadOutput(int stdoutFd, int stderrFd);

  pid_t m_pid = -1;
  bool m_processGroup = false;
  bool m_reapGroup = false;
  std::optional<int> m_exitStatus;
  int m_stdin = -1;
  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
  Capture m_captures[2];
  bool m_stopReading = false;
  std::thread m_reader;
};

}  // namespace korvel::process

#endif  // KORVEL_SOURCE_PROCESS_CHILD_PROCESS_H_
