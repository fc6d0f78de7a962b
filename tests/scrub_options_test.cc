// test-links: scrub_objects
// Tests the command line and the settings file of vorn-scrub, and that its documents name the same
// options and settings.
// SPDX-License-Identifier: Apache-2.0
#include "options.hpp"

#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <vector>

#include "option_table.hpp"
#include "setting_table.hpp"
#include "settings_file.hpp"
#include "support/scratch.hpp"
#include "support/shell.hpp"

namespace {

using scrub::Command;
using scrub::CommandLine;
using scrub::Output;

using Words = std::vector<std::string>;
constexpr char kSample[] = VORN_SOURCE "/examples/scrub/scrub.ini";

Words words_of(const std::string &text, char separator = ' ') {
  Words words;
  std::istringstream stream(text);
  for (std::string word; std::getline(stream, word, separator);)
    words.push_back(word);
  return words;
}

CommandLine parse(const std::string &text) {
  Words words = words_of("vorn-scrub " + text);
  std::vector<char *> pointers;
  for (std::string &word : words)
    pointers.push_back(word.data());
  pointers.push_back(nullptr);
  return scrub::parse_options(static_cast<int>(words.size()), pointers.data());
}

TEST(ScrubOptions, TakesOptionsBeforeAndAfterTheCommand) {
  const CommandLine line =
      parse("--only=./a//b/ -q update --manifest m --json-lines /t/ --accept /t/a/b/c --accept a/b "
            "--only /t/d --exclude *.o --exclude x/ --any-tree");
  EXPECT_EQ(line.command, Command::kUpdate);
  ASSERT_EQ(line.targets.size(), 1u);
  EXPECT_EQ(line.targets[0].paths.manifest(), "./m");
  EXPECT_EQ(line.targets[0].paths.log(), "./m.log");
  EXPECT_EQ(line.options.scope.only, (Words{"a/b", "d"}));
  EXPECT_EQ(line.options.scope.excludes, (Words{"*.o", "x/"}));
  EXPECT_EQ(line.options.accepted, (Words{"a/b/c", "a/b"}));
  EXPECT_EQ(parse("verify d --max-errors 3").options.max_errors, 3u);
  EXPECT_EQ(line.options.output, Output::kJsonLines);
  EXPECT_TRUE(line.options.quiet && line.options.any_tree);

  const CommandLine several = parse("verify --part next/30 --log l a -- b --json");
  ASSERT_EQ(several.targets.size(), 3u);
  EXPECT_EQ(several.targets[1].paths.manifest(), "b/.vorn-scrub");
  EXPECT_EQ(several.targets[2].paths.log_directory, "l");
  EXPECT_EQ(several.options.part.number, 0u);
  EXPECT_EQ(several.options.part.of, 30u);
  EXPECT_EQ(parse("bad --help").command, Command::kHelp);
}

TEST(ScrubOptions, RefusesAWrongCommandLineWithOneLine) {
  const std::string part = ", wanted: K/N or next/N, with K from 1 to N, and N from 1 to 10000";
  const std::string below = ", wanted: the path of something below the directory, without '..'";
  const struct {
    std::string words, refusal;
  } kRows[] = {
      {"", "the command is missing"},
      {"check a", "the command is create, verify or update, not 'check'"},
      {"verify", "the directory is missing"},
      {"verify a --par 1/2", "there is no option --par"},
      {"verify -qx a", "there is no option -x"},
      {"verify a --log", "--log needs a value: DIR"},
      {"verify a --log=", "--log names no directory"},
      {"verify a --json=1", "--json takes no value"},
      {"verify a --json-lines --json", "--json and --json-lines exclude each other"},
      {"verify a --part 1/2 --part 2/2", "--part stands twice on the command line"},
      {"verify a --manifest /usr", "--manifest is '/usr', wanted: a file, not a directory"},
      {"verify a --manifest=", "--manifest is '', wanted: a file"},
      {"verify a --report x/", "--report is 'x/', wanted: a file, not a directory"},
      {"verify a --accept b", "--accept is no option of verify, only of update"},
      {"create a --any-tree", "--any-tree is no option of create, only of verify, update"},
      {"verify a b --manifest m", "--manifest needs one directory alone, not 2"},
      {"update a b --accept c", "--accept needs one directory alone, not 2"},
      {"update a --only b --accept bc", "--accept bc is outside of what --only names"},
      {"verify /a --only b/../c", "--only is 'b/../c'" + below},
      {"verify /a --only /ab", "--only is '/ab'" + below},
      {"verify /a --only /a/.", "--only is '/a/.'" + below},
      {"verify a --exclude /", "--exclude is '/', wanted: a pattern of names or of paths"},
      {"verify a --max-errors -1", "--max-errors is '-1', wanted: 0 to 1000000000"},
      {"verify a --part 0/3", "--part is '0/3'" + part},
      {"verify a --part 4/3", "--part is '4/3'" + part},
      {"verify a --part next/0", "--part is 'next/0'" + part},
      {"verify a --part 1/10001", "--part is '1/10001'" + part},
      {"verify a --part 3", "--part is '3'" + part},
      {"verify a --part 1/\t2", "--part is '1/%092'" + part},
  };
  for (const auto &row : kRows) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(parse(row.words).command, Command::kWrong) << row.words;
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "vorn-scrub: " + row.refusal +
                  "\nUsage: vorn-scrub create|verify|update [OPTION...] DIR...\n"
                  "Try 'vorn-scrub --help' for more.\n");
  }
}

class ScrubSettings : public testing::Test {
protected:
  // Returns the refusal of a settings file, or nothing.
  std::string read(const std::string &text, CommandLine &line) const {
    std::ofstream(path_) << text;
    line.settings_file = path_;
    try {
      scrub::read_settings(line);
    } catch (const std::runtime_error &refused) {
      const std::string start = "settings " + path_;
      EXPECT_TRUE(std::string(refused.what()).starts_with(start)) << refused.what();
      return std::string(refused.what()).substr(start.size());
    }
    return {};
  }

  const scratch::Directory directory_;
  const std::string path_ = directory_ / "s.ini";
};

TEST_F(ScrubSettings, RefusesAWrongFileWithItsLine) {
  const std::string none = std::to_string(sysconf(_SC_NPROCESSORS_CONF));
  const struct {
    std::string text, refusal;
  } kRows[] = {
      {"THREADS=2\n", ": there is no section [SCRUB]"},
      {"[SCRUB]\nTHREADS=2 ; c\n", ", line 2: THREADS is '2 ; c', wanted: 1 to 16"},
      {"[SCRUB]\n\nTHREADS=\x01\n", ", line 3: THREADS is '%01', wanted: 1 to 16"},
      {"[SCRUB]\nREAD_SIZE_LIMIT=5000\n",
       ", line 2: READ_SIZE_LIMIT is '5000', wanted: 4096 to 1048576, a multiple of 4096"},
      {"[SCRUB]\nNICE=1\n[A]\nNICE\n[SCRUB]\nNICE=1\n", ", line 6: NICE stands in line 2 already"},
      {"[SCRUB]\nTHREAD=1\n", ", line 2: there is no setting THREAD"},
      {"[SCRUB]\nTHREADS 1\n", ", line 2: neither NAME=value nor a comment, which begins with ';'"},
      {"[SCRUB]\n;\n=1\n", ", line 3: neither NAME=value nor a comment, which begins with ';'"},
      {"[SCRUB]\nPART=next\n",
       ", line 2: PART is 'next', wanted: K/N or next/N, with K from 1 to N, "
       "and N from 1 to 10000"},
      {"[SCRUB]\nEXCLUDE=a::b\n",
       ", line 2: EXCLUDE is '', wanted: a pattern of names or of paths"},
      {"[SCRUB]\nOUTPUT=xml\n", ", line 2: OUTPUT is 'xml', wanted: text, json or json-lines"},
      {"[SCRUB]\nQUIET=yes\n", ", line 2: QUIET is 'yes', wanted: 0 to 1"},
      {"[SCRUB]\nREPORT=/usr\n", ", line 2: REPORT is '/usr', wanted: a file, not a directory"},
      {"[SCRUB]\nCPUS=0\nPRODUCT=/dev/null\n",
       ", line 3: PRODUCT is '/dev/null', which has no partitions"},
      {"[SCRUB]\nCPUS=0," + none + "\n",
       ", line 2: CPUS is '0," + none + "', and the machine has no CPU " + none},
      {"[SCRUB]\nCPUS=0,*/A\n", ", line 2: CPUS is '0,*/A', and '*/A' holds no CPU of the machine"},
      {"[SCRUB]\nCPUS=0;c\n",
       ", line 2: CPUS is '0;c', wanted: numbers, ranges and partitions, as 0-3,GROUP_0/CTRL"},
  };
  for (const auto &row : kRows) {
    CommandLine line;
    EXPECT_EQ(read(row.text, line), row.refusal) << row.text;
  }
}

TEST_F(ScrubSettings, KeepsWhatTheCommandLineSays) {
  const std::string file = "[SCRUB]\nPART=2/3\nEXCLUDE=a:b/c\nOUTPUT=json\nCACHED=0\nRESUME=1\n"
                           "MAX_ERRORS=9\nTHREADS=7\nCPUS=0\n";
  CommandLine verify = parse("verify d --cached --json-lines --exclude x");
  EXPECT_EQ(read(file, verify), "");
  EXPECT_EQ(verify.options.part.number, 2u);
  EXPECT_EQ(verify.options.scope.excludes, Words{"x"});
  EXPECT_EQ(verify.options.output, Output::kJsonLines);
  EXPECT_TRUE(verify.options.cached && verify.options.resume);
  EXPECT_EQ(verify.options.settings.threads, 7u);

  CommandLine create = parse("create d");
  EXPECT_EQ(read(file, create), "");
  EXPECT_EQ(create.options.part.of, 0u) << "create has no --part";
  EXPECT_EQ(create.options.max_errors, 0u);
  EXPECT_EQ(create.options.scope.excludes, (Words{"a", "b/c"}));
  EXPECT_EQ(create.options.output, Output::kJson);
}

TEST_F(ScrubSettings, SampleHoldsTheDefaults) {
  CommandLine sample;
  sample.settings_file = kSample;
  scrub::read_settings(sample);
  EXPECT_EQ(settings_text(sample.options.settings), settings_text(scrub::Settings{}));
  EXPECT_EQ(sample.options.output, Output::kText);
  const scrub::Options &options = sample.options;
  EXPECT_FALSE(options.quiet || options.cached || options.resume || options.scope.pseudo ||
               options.scope.one_file_system || options.max_errors != 0);
}

// The words that a pipeline finds in a file, sorted.
std::string found(const std::string &file, const std::string &pipeline) {
  return shell("<" VORN_SOURCE "/" + file + " " + pipeline + " | LC_ALL=C sort -u").text;
}

std::string sorted(const Words &words) {
  std::string text;
  for (const std::string &word : std::set<std::string>(words.begin(), words.end()))
    text += word + "\n";
  return text;
}

TEST(ScrubDocuments, NameTheSameOptionsAndSettings) {
  Words options;
  for (const scrub::KnownOption &option : scrub::known_options())
    options.push_back(std::string("--") + option.name);
  EXPECT_EQ(found("docs/vorn-scrub.1", R"(sed -n '/^.SH OPTIONS/,/^.SH/p' | tr -d '\\' |
              sed -nE 's/^\.BR? (-[a-z] , ~)?(--[a-z-]+)$/\2/p; s/^\.BI (--[a-z-]+)~ .*/\1/p')"),
            sorted(options));
  Words settings;
  for (const scrub::KnownSetting &setting : scrub::known_settings())
    settings.emplace_back(setting.name);
  EXPECT_EQ(found("examples/scrub/scrub.ini", "sed -nE 's/^;?([A-Z_]+)=.*/\\1/p'"),
            sorted(settings));
  EXPECT_EQ(found("docs/vorn-scrub.1",
                  "sed -n '/^.SH SETTINGS/,/^.SH EX/p' | sed -nE 's/^\\.B ([A-Z_]+)$/\\1/p'"),
            sorted(settings));
}

// What bash offers for the last word of a line.
std::string offered(const std::string &line) {
  return shell("bash -c '. " VORN_SOURCE "/packaging/bash-completion/vorn-scrub; COMP_WORDS=(" +
               line +
               " \"\"); COMP_CWORD=$((${#COMP_WORDS[@]} - 2)); _vorn_scrub; "
               "printf \"%s\\n\" \"${COMPREPLY[@]}\"' | LC_ALL=C sort")
      .text;
}

TEST(ScrubDocuments, CompletionOffersTheOptionsOfACommand) {
  const std::pair<const char *, Command> kRows[] = {
      {"create", Command::kCreate}, {"verify", Command::kVerify}, {"update", Command::kUpdate}};
  for (const auto &[name, command] : kRows) {
    Words options;
    for (const scrub::KnownOption &option : scrub::known_options()) {
      if ((option.commands & scrub::command_bit(command)) != 0)
        options.push_back(std::string("--") + option.name);
    }
    EXPECT_EQ(offered(std::string("vorn-scrub --manifest verify ") + name + " d -"),
              sorted(options));
  }
  EXPECT_EQ(offered("vorn-scrub -q v"), "verify\n");
  EXPECT_EQ(offered("vorn-scrub verify --settings = " VORN_SOURCE "/examples/scrub/scrub.i"),
            std::string(kSample) + "\n");
  EXPECT_EQ(offered("vorn-scrub update " VORN_SOURCE "/examples --accept scrub/scrub.i"),
            "scrub/scrub.ini\n");
}

} // namespace
