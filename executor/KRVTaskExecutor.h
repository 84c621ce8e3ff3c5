#pragma once
// KRVTaskExecutor: runs one external program as the daemon's user with the client's arguments,
// never through a shell, and hands its output to a delegate while it runs.
//
// Standard output and standard error are read with poll() while the program runs; each chunk goes
// to the delegate on the calling thread in the order it arrived on its stream. After the program
// has exited, the rest of standard output is read and delivered as one chunk (empty at end of
// file), then the rest of standard error. Standard input is a pipe whose write end is offered to
// the delegate at launch and closed right after, so a program that reads its input sees end of
// file instead of waiting forever.
//
// The safety rule decides which programs may run at all: see hasExecutableSafePermissionsAtPath.
// The child inherits the process environment as it is at launch (read under the environment lock)
// and the working directory; no descriptor of the daemon leaks into it (all are close-on-exec).
//
// One task executor runs one program at a time and is used by one thread.

#include <sys/types.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "foundation/Result.h"
#include "foundation/Value.h"

namespace krv {

class KRVTaskExecutor;

class TaskDelegate {
 public:
  virtual ~TaskDelegate() = default;
  // One chunk of standard output (isError false) or standard error (true); may be empty.
  virtual void receiveTaskOutput(const Data& data, bool isError) = 0;
  virtual void taskWillExecute(KRVTaskExecutor& /*task*/) {}
  // The program runs; subTaskInputHandle() is its standard input until this returns.
  virtual void taskDidLaunch(KRVTaskExecutor& /*task*/) {}
};

class KRVTaskExecutor {
 public:
  // A program may run only when, after resolving every symbolic link in its path, it exists, is
  // not a directory, is owned by user 0 and group 0 and is writable by neither group nor others,
  // and its immediate parent directory passes the same ownership and write test.
  static bool hasExecutableSafePermissionsAtPath(const std::string& path);

  // The lock every reader and writer of the process environment takes, so that a launch never
  // reads the environment while another thread changes it.
  static std::mutex& environmentLock();

  KRVTaskExecutor() = default;
  virtual ~KRVTaskExecutor() = default;
  KRVTaskExecutor(const KRVTaskExecutor&) = delete;
  KRVTaskExecutor& operator=(const KRVTaskExecutor&) = delete;

  void setDelegate(TaskDelegate* delegate) { m_delegate = delegate; }
  TaskDelegate* delegate() const { return m_delegate; }
  // The write end of the running program's standard input (-1 when none).
  int subTaskInputHandle() const { return m_inputHandle; }

  // Runs the program to its end and returns its exit status (the signal number when a signal
  // ended it). A program that cannot be started is an error (POSIX domain, the launch's errno).
  virtual Result<int> executeProgramAtPath(const std::string& path,
                                           const std::vector<std::string>& arguments);

 private:
  void deliver(const Data& chunk, bool isError);

  TaskDelegate* m_delegate = nullptr;
  int m_inputHandle = -1;
};

// The runner every command uses: it pauses 40 ms after each program, so that a client issuing
// program commands back to back cannot saturate the machine.
class KRVHighLoadTaskExecutor final : public KRVTaskExecutor {
 public:
  Result<int> executeProgramAtPath(const std::string& path,
                                   const std::vector<std::string>& arguments) override;
};

}  // namespace krv
