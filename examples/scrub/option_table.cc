// Lists the options of the command line, with the code that takes their values.
// SPDX-License-Identifier: Apache-2.0
#include "options.hpp"

#include <algorithm>
#include <charconv>

#include "scope_filter.hpp"

namespace scrub {
namespace {

constexpr std::uint64_t kMostParts = 10000;

template <bool Options::*Flag> bool set(CommandLine &line, const std::string &) {
  line.options.*Flag = true;
  return true;
}

template <bool Scope::*Flag> bool set(CommandLine &line, const std::string &) {
  line.options.scope.*Flag = true;
  return true;
}

template <std::string CommandLine::*Text> bool set(CommandLine &line, const std::string &value) {
  line.*Text = value;
  return !value.empty();
}

template <Output Kind> bool set_output(CommandLine &line, const std::string &) {
  line.options.output = Kind;
  return true;
}

bool add_exclude(CommandLine &line, const std::string &value) {
  line.options.scope.excludes.push_back(value);
  return !value.empty() && value != "/";
}

bool add_path(std::vector<std::string> &paths, std::string path) {
  if (!normal_tree_path(path) || path.empty()) return false;
  paths.push_back(std::move(path));
  return true;
}

bool add_only(CommandLine &line, const std::string &value) {
  return add_path(line.options.scope.only, value);
}

bool add_accepted(CommandLine &line, const std::string &value) {
  return add_path(line.options.accepted, value);
}

bool set_part(CommandLine &line, const std::string &value) {
  const std::string_view text(value);
  const std::size_t slash = text.find('/');
  Part &part = line.options.part;
  if (slash == text.npos || !parse_number(text.substr(slash + 1), 1, kMostParts, part.of))
    return false;
  part.number = 0;
  return text.substr(0, slash) == "next" ||
         parse_number(text.substr(0, slash), 1, part.of, part.number);
}

bool set_max_errors(CommandLine &line, const std::string &value) {
  return parse_number(value, 0, 1'000'000'000, line.options.max_errors);
}

bool set_html(CommandLine &line, const std::string &value) {
  line.options.html = value;
  return !value.empty();
}

bool nothing(CommandLine &, const std::string &) { return true; }

constexpr char kTreePath[] = "a path in the tree, relative and without '..'";

constexpr Option kOptions[] = {
    {"manifest", 0, "FILE", "cvu", false, "a file", set<&CommandLine::manifest>,
     "the manifest of the one directory; DIR/.vorn-scrub by default"},
    {"log", 0, "DIR", "cvu", false, "a directory", set<&CommandLine::log_directory>,
     "the directory of the log; that of the first manifest by default"},
    {"settings", 0, "FILE", "cvu", false, "a file", set<&CommandLine::settings_file>,
     "settings: how many threads read, the rate and more; scrub.ini is a sample"},
    {"exclude", 0, "PATTERN", "cvu", true, "a pattern", add_exclude,
     "leave out what matches; a pattern with a slash matches paths, one without matches names, one "
     "that ends with a slash matches directories alone; the manifest keeps the patterns of create "
     "and update"},
    {"only", 0, "PATH", "vu", true, kTreePath, add_only,
     "look only at this path in the tree and what is below it"},
    {"one-file-system", 0, nullptr, "cvu", false, "", set<&Scope::one_file_system>,
     "leave out what is on other file systems"},
    {"pseudo", 0, nullptr, "cvu", false, "", set<&Scope::pseudo>,
     "look also at file systems such as proc"},
    {"any-tree", 0, nullptr, "vu", false, "", set<&Options::any_tree>,
     "take a manifest that was made of another tree, a copy of this one"},
    {"accept", 0, "FILE", "u", true, kTreePath, add_accepted,
     "record this damaged file as it is now"},
    {"part", 0, "K/N", "v", false, "K/N or next/N, with K at most N and N at most 10000", set_part,
     "verify part K of N; next/N: the part after the last that was verified"},
    {"resume", 0, nullptr, "cv", false, "", set<&Options::resume>,
     "go on where an interrupted run ended"},
    {"max-errors", 0, "N", "v", false, "a number; 0: no limit", set_max_errors,
     "end the run after N damaged files"},
    {"cached", 0, nullptr, "cvu", false, "", set<&Options::cached>,
     "believe the page cache: read what it holds instead of the medium"},
    {"quiet", 'q', nullptr, "cvu", false, "", set<&Options::quiet>, "print only what was found"},
    {"json", 0, nullptr, "cvu", false, "", set_output<Output::kJson>,
     "print one JSON object at the end"},
    {"json-lines", 0, nullptr, "cvu", false, "", set_output<Output::kJsonLines>,
     "print each finding as a JSON object on a line, and one object at the end"},
    {"report", 0, "FILE", "cvu", false, "a file", set_html,
     "write a page for a web browser; it needs no network"},
    {"stall", 0, nullptr, "cvu", false, "", set<&Options::stall>,
     "a drill: an item of scheduled work overruns its time limit of 15 seconds; the run ends after "
     "the library has noticed this"},
    {"crash", 0, nullptr, "cvu", false, "", set<&Options::crash>,
     "a drill: a reading thread faults; the process dies of SIGSEGV, and the log holds the fault "
     "report"},
    {"help", 'h', nullptr, "cvu", true, "", nothing, "print this text"},
    {"version", 0, nullptr, "cvu", true, "", nothing, "print the version"},
};

} // namespace

bool parse_number(std::string_view text, std::uint64_t least, std::uint64_t most,
                  std::uint64_t &value) {
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.begin(), text.end(), number);
  if (error != std::errc() || end != text.end() || number < least || number > most) return false;
  value = number;
  return true;
}

std::span<const Option> all_options() { return kOptions; }

const Option *find_option(std::string_view name) {
  const auto at = std::ranges::find(
      kOptions, name, [](const Option &option) { return std::string_view(option.name); });
  return at == std::end(kOptions) ? nullptr : at;
}

bool takes(Command command, const Option &option) {
  const char letter = command == Command::kCreate ? 'c' : command == Command::kVerify ? 'v' : 'u';
  return std::string_view(option.commands).find(letter) != std::string_view::npos;
}

} // namespace scrub
