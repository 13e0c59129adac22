#pragma once

// Host processes for the multi-process tests: started with fork/exec, their standard input and
// output (standard error merged into it) on pipes, killed with SIGKILL for real. A test waits for
// the lines a host prints, each wait bounded by a deadline that only turns a hang into a failure.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "zrtest.h"

namespace zrtest {

/// How a failed wait is reported: tests make it a test failure, benchmarks print it.
inline void (*hostFailure)(const std::string& message) = [](const std::string& message) {
  std::fprintf(stderr, "%s\n", message.c_str());
};

// Runs a shell command to its end: its exit status and standard output (with standard error
// when asked).
inline std::pair<int, std::string> shell(const std::string& command, bool withStderr = false) {
  FILE* p = popen(("{ " + command + "; }" + (withStderr ? " 2>&1" : " 2>/dev/null")).c_str(), "r");
  std::string out;
  char buf[4096];
  while (std::size_t n = std::fread(buf, 1, sizeof buf, p)) out.append(buf, n);
  const int status = pclose(p);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
}

// Options for a zr process: the tests' heartbeat where it differs from the default.
inline const std::string kSanitizedHeartbeat =
    kHeartbeat == std::chrono::milliseconds(250)
        ? ""
        : " --heartbeat " + std::to_string(kHeartbeat.count());

// A command line's words, split at spaces (no quoting: test command lines have none).
inline std::vector<std::string> words(const std::string& text) {
  std::vector<std::string> out;
  std::size_t at = 0;
  while ((at = text.find_first_not_of(" \t\n", at)) != std::string::npos) {
    const std::size_t end = text.find_first_of(" \t\n", at);
    out.push_back(text.substr(at, end - at));
    at = end;
  }
  return out;
}

class HostProcess {
 public:
  HostProcess(const std::string& program, std::vector<std::string> args) {
    int out[2], in[2];
    // Close-on-exec: a host started later must not hold this one's pipes open.
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(in, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    pid_ = fork();
    if (pid_ == 0) {
      dup2(out[1], STDOUT_FILENO);
      dup2(out[1], STDERR_FILENO);
      dup2(in[0], STDIN_FILENO);
      std::vector<char*> argv{const_cast<char*>(program.c_str())};
      for (auto& a : args) argv.push_back(a.data());
      argv.push_back(nullptr);
      execv(program.c_str(), argv.data());
      _exit(127);
    }
    close(out[1]);
    close(in[0]);
    out_ = out[0];
    in_ = in[1];
  }
  ~HostProcess() {
    if (pid_ > 0) kill9();
    if (out_ >= 0) close(out_);
  }
  HostProcess(const HostProcess&) = delete;
  HostProcess& operator=(const HostProcess&) = delete;

  // Reads lines until one contains `part`, for at most `limit`; that line, or "" (a failure
  // recorded) when the host ended or the limit passed first.
  std::string waitFor(const std::string& part,
                      std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
      for (; next_ < lines_.size(); ++next_)
        if (lines_[next_].find(part) != std::string::npos) return lines_[next_++];
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      pollfd p{out_, POLLIN, 0};
      char buffer[4096];
      ssize_t n = 0;
      if (left.count() <= 0 || poll(&p, 1, static_cast<int>(left.count())) <= 0 ||
          (n = read(out_, buffer, sizeof buffer)) <= 0) {
        std::string last;
        for (std::size_t i = lines_.size() > 5 ? lines_.size() - 5 : 0; i < lines_.size(); ++i)
          last += "\n  " + lines_[i];
        hostFailure("no line with \"" + part + "\" within " + std::to_string(limit.count()) +
                    " ms; its last lines:" + last);
        return "";
      }
      partial_.append(buffer, static_cast<std::size_t>(n));
      for (std::size_t end; (end = partial_.find('\n')) != std::string::npos;) {
        lines_.push_back(partial_.substr(0, end));
        partial_.erase(0, end + 1);
      }
    }
  }
  // The next waitFor looks at every line again, from the first.
  void rewind() { next_ = 0; }
  // Every line read so far.
  const std::vector<std::string>& lines() const { return lines_; }
  // The endpoint from its "ready" line.
  std::string ready() {
    const std::string l = waitFor("ready ");
    return l.substr(std::min(l.size(), l.find("ready ") + 6));
  }
  void send(const std::string& line) {
    const std::string s = line + "\n";
    if (write(in_, s.data(), s.size()) != static_cast<ssize_t>(s.size())) hostFailure("write");
  }
  void kill9() { stop(SIGKILL); }
  pid_t pid() const { return pid_; }
  /// Sends `signal` without waiting (SIGSTOP freezes the process, SIGCONT thaws it).
  void signal(int signal) { kill(pid_, signal); }
  // Sends it `signal` (0: closes its input instead, so that it shuts down); its exit status.
  int stop(int signal) {
    if (signal != 0) kill(pid_, signal);
    closeInput();
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  int finish() { return stop(0); }

 private:
  void closeInput() {
    if (in_ >= 0) close(in_);
    in_ = -1;
  }
  pid_t pid_ = -1;
  int out_ = -1, in_ = -1;
  std::string partial_;
  std::vector<std::string> lines_;
  std::size_t next_ = 0;
};

}  // namespace zrtest
