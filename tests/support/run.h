#pragma once
// Running the built programs (ota-publish, tavi-sim) and the host's tools from a test,
// with their exit status and what they wrote.
#include <errno.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "files.h"

// A word for sh -c, quoted so that the shell passes it as it stands.
inline std::string shell_quote(const std::string& word) {
  std::string out = "'";
  for (char c : word) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

struct Ran {
  int status = -1;  // the exit status; 128 + the signal when a signal ended the program
  std::string out;
  std::string err;
};

// Runs `program` with `words` after it in `cwd` (empty: the test's own) and waits for it.
// With errors_in_out, standard error goes where standard output goes, interleaved as
// written, and `err` stays empty.
inline Ran run_program(const std::string& program, const std::vector<std::string>& words, const std::string& cwd = "",
                       bool errors_in_out = false) {
  char out_name[] = "/tmp/ota-test-out-XXXXXX";
  char err_name[] = "/tmp/ota-test-err-XXXXXX";
  int out_fd = mkstemp(out_name);
  int err_fd = mkstemp(err_name);
  std::vector<std::string> all = {program};
  all.insert(all.end(), words.begin(), words.end());
  std::vector<char*> argv;
  for (std::string& w : all) argv.push_back(w.data());
  argv.push_back(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    if (!cwd.empty() && chdir(cwd.c_str()) != 0) _exit(126);
    dup2(out_fd, 1);
    dup2(errors_in_out ? out_fd : err_fd, 2);
    execvp(argv[0], argv.data());
    _exit(127);
  }
  int wstatus = 0;
  while (waitpid(pid, &wstatus, 0) < 0 && errno == EINTR) {
  }
  Ran r;
  r.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 128 + WTERMSIG(wstatus);
  close(out_fd);
  close(err_fd);
  r.out = read_all(out_name);
  r.err = read_all(err_name);
  unlink(out_name);
  unlink(err_name);
  return r;
}
