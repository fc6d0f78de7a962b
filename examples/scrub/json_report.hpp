// Writes the findings and the figures of a run as JSON, for programs. docs/vorn-scrub-output.md
// describes the objects.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_JSON_REPORT_HPP
#define SCRUB_JSON_REPORT_HPP

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

#include "instance.hpp"
#include "json.hpp"
#include "page_figures.hpp"
#include "scrub.hpp"
#include "spill.hpp"
#include "summary.hpp"

namespace scrub {

// The object of a whole run, for all directories. One thread at a time may use it.
class JsonRun {
public:
  // Command::kWrong is no command. output is kJson or kJsonLines.
  JsonRun(Output output, Command command, std::string version);

  void begin_directory(const Job &job, bool has_log);

  // With kJsonLines, prints the finding. Otherwise keeps it, as long as the object and the disk
  // have room.
  void finding(const Finding &finding);

  // summary is null if an error ended the run of the directory: figures.failure says which. taken
  // is the time of the run in nanoseconds.
  void end_directory(const DirectoryFigures &figures, const Tally &tally, const Summary *summary,
                     std::uint64_t taken);

  // Prints the object on standard output. error says why the run did not start or went no further;
  // empty if it did.
  void finish(ExitStatus status, const std::string &error = {});

  // Limits of the findings that the object holds, for all directories together.
  static constexpr std::size_t kMostFindings = 10000;
  static constexpr std::size_t kMostBytes = 4 * 1024 * 1024;

private:
  // The object of a directory: the text between head and tail is in findings_.
  struct Directory {
    Json head;
    std::uint64_t begin;
    std::uint64_t end;
    Json tail;
  };

  void keep(const String &finding);
  void print_findings(const Directory &directory);

  const Output output_;
  const Command command_;
  const std::string version_;
  const std::time_t started_;
  Vector<Directory> directories_;
  std::optional<TemporaryFile> findings_; // with commas
  std::size_t kept_ = 0;
  std::uint64_t bytes_ = 0;    // in findings_
  std::uint64_t begin_ = 0;    // of the current directory
  std::uint64_t left_out_ = 0; // likewise

  std::string root_;
  std::string manifest_;
  std::string log_; // empty: none
};

} // namespace scrub

#endif
