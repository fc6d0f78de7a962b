// Runs a command of the shell, and returns its status and output.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_TESTS_SHELL_HPP
#define VORN_TESTS_SHELL_HPP

#include <cstdio>
#include <string>
#include <sys/wait.h>

struct Outcome {
  int status;       // -1 if a signal ended it
  std::string text; // standard output and standard error
};

inline Outcome shell(const std::string &line) {
  Outcome outcome{-1, {}};
  std::FILE *output = popen(("exec 2>&1; " + line).c_str(), "r");
  for (int c; (c = std::getc(output)) != EOF;)
    outcome.text += static_cast<char>(c);
  const int status = pclose(output);
  if (WIFEXITED(status)) outcome.status = WEXITSTATUS(status);
  return outcome;
}

#endif
