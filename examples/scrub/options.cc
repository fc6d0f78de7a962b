// Reads the command line.
// SPDX-License-Identifier: Apache-2.0
#include "options.hpp"

#include <algorithm>
#include <cstdio>
#include <span>
#include <stdexcept>
#include <string_view>
#include <sys/resource.h>

#include "option_table.hpp"
#include "scope_filter.hpp"
#include "values.hpp"

namespace scrub {
namespace {

using Line = CommandLine;

[[noreturn]] void wrong(const std::string &what) { throw std::invalid_argument(what); }

std::string dashed(const KnownOption &option) { return std::string("--") + option.name; }

const char *name_of(Command command) {
  return std::ranges::find(kCommands, command, &CommandName::command)->name;
}

// Splits the arguments into options, which it takes, and other words.
class Arguments {
public:
  Arguments(int argc, char **argv, Line &line) : rest_(argv + 1, argv + argc), line_(line) {}

  // Stops at an option that asks for information.
  std::vector<std::string> take_options();

private:
  void take_long(std::string_view text);
  void take_letters(std::string_view letters);
  void take(const KnownOption &option, const std::string &value);

  std::span<char *> rest_;
  Line &line_;
};

std::vector<std::string> Arguments::take_options() {
  std::vector<std::string> words;
  bool options_end = false;
  while (!rest_.empty() && line_.command == Command::kWrong) {
    const std::string_view text = rest_.front();
    rest_ = rest_.subspan(1);
    if (options_end || text.size() < 2 || text[0] != '-') {
      words.emplace_back(text);
    } else if (text == "--") {
      options_end = true;
    } else if (text[1] == '-') {
      take_long(text.substr(2));
    } else {
      take_letters(text.substr(1));
    }
  }
  return words;
}

void Arguments::take_long(std::string_view text) {
  const std::size_t equals = text.find('=');
  const std::string_view name = text.substr(0, equals);
  const KnownOption *option = find_option(name);
  if (option == nullptr) wrong("there is no option --" + readable(name));
  if (option->argument == nullptr) {
    if (equals != text.npos) wrong(dashed(*option) + " takes no value");
    take(*option, {});
  } else if (equals != text.npos) {
    take(*option, std::string(text.substr(equals + 1)));
  } else {
    if (rest_.empty()) wrong(dashed(*option) + " needs a value: " + option->argument);
    const std::string value = rest_.front();
    rest_ = rest_.subspan(1);
    take(*option, value);
  }
}

void Arguments::take_letters(std::string_view letters) {
  for (const char letter : letters) {
    const auto option = std::ranges::find(known_options(), letter, &KnownOption::letter);
    if (letter == 0 || option == known_options().end())
      wrong("there is no option -" + readable({&letter, 1}));
    take(*option, {});
  }
}

void Arguments::take(const KnownOption &option, const std::string &value) {
  const bool first = line_.given.insert(option.name).second;
  if (!first && option.argument != nullptr && !option.repeatable)
    wrong(dashed(option) + " stands twice on the command line");
  option.take(line_, value);
}

Command command_of(const std::string &word) {
  const auto *known = std::ranges::find(
      kCommands, word, [](const CommandName &one) { return std::string(one.name); });
  if (known == std::end(kCommands))
    wrong("the command is create, verify or update, not '" + readable(word) + "'");
  return known->command;
}

void check_options(const Line &line) {
  for (const std::string &name : line.given) {
    const KnownOption &option = *find_option(name);
    if ((option.commands & command_bit(line.command)) == 0)
      wrong(dashed(option) + " is no option of " + name_of(line.command) + ", only of " +
            names_of(option.commands));
    if (line.targets.size() == 1) continue;
    if (name == "manifest" || name == "only" || name == "accept")
      wrong(dashed(option) + " needs one directory alone, not " +
            std::to_string(line.targets.size()));
  }
}

void set_manifest(OwnPaths &paths, const std::string &path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    paths.manifest_directory = ".";
    paths.manifest_name = path;
    return;
  }
  paths.manifest_directory = path.substr(0, std::max<std::size_t>(slash, 1));
  paths.manifest_name = path.substr(slash + 1);
}

void add_targets(Line &line, std::span<const std::string> roots) {
  for (const std::string &root : roots) {
    if (root.empty()) wrong("the name of a directory is empty");
    Target &target = line.targets.emplace_back();
    target.root = root;
    const std::string manifest = root + "/" + std::string(kDefaultManifest);
    set_manifest(target.paths, line.manifest.empty() ? manifest : line.manifest);
    target.paths.log_directory =
        line.log.empty() ? line.targets[0].paths.manifest_directory : line.log;
  }
}

// Makes the path of a file below root, with or without an absolute root before it, a path in the
// tree.
std::string tree_path(const char *option, const std::string &given, std::string_view root) {
  std::string path = given;
  while (root.ends_with('/'))
    root.remove_suffix(1);
  const bool begins_with_root =
      path.starts_with('/') && path.starts_with(root) && path.substr(root.size()).starts_with('/');
  if (begins_with_root) path.erase(0, path.find_first_not_of('/', root.size()));
  if (!normal_tree_path(path) || path.empty())
    refuse_value(option, given, "the path of something below the directory, without '..'");
  return path;
}

void set_tree_paths(Line &line) {
  const std::string &root = line.targets[0].root;
  std::vector<std::string> &only = line.options.scope.only;
  for (std::string &path : only)
    path = tree_path("--only", path, root);
  for (std::string &path : line.options.accepted) {
    path = tree_path("--accept", path, root);
    const auto holds_it = [&](const std::string &wanted) {
      return path == wanted || is_below(path, wanted);
    };
    if (!only.empty() && std::ranges::none_of(only, holds_it))
      wrong("--accept " + readable(path) + " is outside of what --only names");
  }
}

Line read_line(int argc, char **argv) {
  Line line;
  // The reading threads keep the nice value of the process unless a setting changes it.
  line.options.settings.nice =
      static_cast<std::uint64_t>(std::max(getpriority(PRIO_PROCESS, 0), 0));
  const std::vector<std::string> words = Arguments(argc, argv, line).take_options();
  if (line.command != Command::kWrong) return line;
  if (words.empty()) wrong("the command is missing");
  line.command = command_of(words[0]);
  if (words.size() == 1) wrong("the directory is missing");
  add_targets(line, std::span(words).subspan(1));
  check_options(line);
  set_tree_paths(line);
  return line;
}

} // namespace

CommandLine parse_options(int argc, char **argv) {
  try {
    return read_line(argc, argv);
  } catch (const std::invalid_argument &refused) {
    std::fprintf(stderr, "vorn-scrub: %s\nUsage: %s\nTry 'vorn-scrub --help' for more.\n",
                 refused.what(), kUsage);
    return {};
  }
}

} // namespace scrub
