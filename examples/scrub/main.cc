// vorn-scrub finds damaged files. It is an example of a service on the library: it sets up logging,
// starts the library, does its job and shuts both down.
// SPDX-License-Identifier: Apache-2.0
#include <cstdio>
#include <deque>
#include <exception>
#include <fcntl.h>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "account.hpp"
#include "console.hpp"
#include "descriptors.hpp"
#include "html_report.hpp"
#include "instance.hpp"
#include "interrupt.hpp"
#include "json_report.hpp"
#include "log.hpp"
#include "opening.hpp"
#include "options.hpp"
#include "pool_setting.hpp"
#include "report.hpp"
#include "scrub.hpp"
#include "settings_file.hpp"
#include "text.hpp"
#include "vorn_init.h"
#include "vorn_log.h"

namespace scrub {
namespace {

// Starts the library and opens the log; the destructor shuts both down.
class Session {
public:
  explicit Session(const OwnPaths &paths) {
    // What a run writes is its owner's business, but services of other users share what the library
    // makes at its start.
    const mode_t mask = umask(S_IRWXG | S_IRWXO);
    // Of an older version. What a link leads to is left alone.
    [[maybe_unused]] const int changed =
        fchmodat(AT_FDCWD, paths.log().c_str(), S_IRUSR | S_IWUSR, AT_SYMLINK_NOFOLLOW);
    has_log_ = vorn_log_init(paths.log_name().c_str(), paths.log_directory.c_str()) == 0;
    umask(mask);
    pool_setting_.emplace(); // after the log is open: the library may log about it
    started_ = vorn_Init() == 0;
    umask(S_IRWXG | S_IRWXO);
  }
  Session(const Session &) = delete;
  Session &operator=(const Session &) = delete;
  ~Session() {
    if (has_hanging_thread()) return;
    vorn_destory();
    vorn_log_destroy(0);
  }

  bool has_log() const { return has_log_; }
  bool started() const { return started_; }

private:
  std::optional<PoolSetting> pool_setting_;
  bool has_log_ = false;
  bool started_ = false;
};

bool is_there(const std::string &path, mode_t type) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && (status.st_mode & S_IFMT) == type;
}

// Called before the log is opened, so that a mistyped name creates no log.
std::string what_is_missing(const Job &job, Command command) {
  if (!is_there(job.root, S_IFDIR)) return "there is no directory " + job.root;
  if (!is_there(job.paths.manifest_directory, S_IFDIR))
    return "there is no directory " + job.paths.manifest_directory;
  if (is_there(job.paths.manifest(), S_IFDIR))
    return "the manifest " + job.paths.manifest() + " is a directory";
  if (command != Command::kCreate && !is_there(job.paths.manifest(), S_IFREG))
    return "there is no manifest " + job.paths.manifest() + ", make one with create";
  return {};
}

// The whole run, for all directories.
class Run {
public:
  Run(CommandLine line, Console &console) : line_(std::move(line)), console_(console) {
    for (const auto &[root, paths] : line_.targets)
      jobs_.push_back(Job{root, paths, line_.options});
  }

  ExitStatus run() {
    begin_json();
    const std::string missing = what_is_missing();
    if (!missing.empty()) return refuse(missing);
    raise_descriptor_limit();
    note_ignored_signals();
    const Session session(jobs_[0].paths);
    catch_signals(); // replaces the library's handlers
    if (session.has_log()) console_.hide_library_messages();
    if (!session.started())
      return refuse(session.has_log() ? "the library did not start; the log says why"
                                      : "the library did not start");
    return attempt([&] { return do_jobs(session.has_log()); });
  }

private:
  void begin_json() {
    if (line_.options.output != Output::kText)
      json_.emplace(line_.options.output, line_.command, SCRUB_VERSION);
  }

  std::string what_is_missing() const {
    for (const Job &job : jobs_) {
      const std::string missing = scrub::what_is_missing(job, line_.command);
      if (!missing.empty()) return missing;
    }
    if (!line_.settings_file.empty() && !is_there(line_.settings_file, S_IFREG))
      return "there is no settings file " + line_.settings_file;
    return {};
  }

  ExitStatus refuse(const std::string &why) {
    std::fflush(stdout);
    console_.say("%s", why.c_str());
    if (json_) json_->finish(kCouldNotRun, why);
    return kCouldNotRun;
  }

  // Calls fail with the text of an exception of body.
  template <class Body, class Fail> static ExitStatus attempt(Body body, Fail fail) {
    try {
      return body();
    } catch (const std::bad_alloc &) {
      return fail("out of memory");
    } catch (const std::exception &failure) {
      return fail(failure.what());
    }
  }
  template <class Body> ExitStatus attempt(Body body) {
    return attempt(body, [this](const char *why) { return refuse(why); });
  }

  ExitStatus do_jobs(bool has_log) {
    // The settings file may ask for another output than the command line.
    if (!line_.settings_file.empty()) {
      read_settings(line_);
      tell_settings();
      if (!json_) begin_json();
    }
    std::vector<OwnPaths> own;
    for (const Job &job : jobs_)
      own.push_back(job.paths);
    if (!line_.options.html.empty()) {
      page_.emplace(line_.options.html, own);
      for (Job &job : jobs_)
        page_->name_in(job.paths);
    }
    const Outputs outputs{console_, json_ ? &*json_ : nullptr, page_ ? &*page_ : nullptr, has_log};
    prepare_instances(jobs_.size());
    ExitStatus worst = kClean;
    for (const Job &job : jobs_) {
      if (interrupted()) {
        console_.say("%s was not read: interrupted", printable(job.root).c_str());
        worst = worse(worst, kIncomplete);
        continue;
      }
      worst = worse(worst, do_job(job, outputs));
    }
    if (jobs_.size() > 1) print_directories();
    finish_page(worst);
    if (json_) json_->finish(worst);
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
      console_.say("cannot write to standard output");
      return kCouldNotRun;
    }
    return worst;
  }

  void tell_settings() const {
    const std::string text = settings_text(line_.options.settings);
    const String file = printable(line_.settings_file);
    SCRUB_LOG(EVLOG_INFO, "settings of %s: %s.", file.c_str(), text.c_str());
    if (line_.options.output == Output::kText && !line_.options.quiet)
      std::printf("Settings of %s: %s\n", file.c_str(), text.c_str());
  }

  // Runs a directory as an instance, and waits for its end.
  ExitStatus do_job(const Job &job, const Outputs &outputs) {
    ExitStatus status = kCouldNotRun;
    reports_.emplace_back();
    Instance instance(job.root, [&] {
      std::optional<Report> report;
      status = attempt(
          [&] {
            report.emplace(job, line_.command, outputs);
            start(job, *report);
            return report->status();
          },
          [&](const char *why) {
            console_.say("%s", why);
            if (report) report->fail(why);
            return kCouldNotRun;
          });
      if (!report) return;
      reports_.back() = report->figures();
      machine_ = report->machine();
    });
    instance.wait();
    return status;
  }

  void start(const Job &job, Report &report) const {
    if (line_.command == Command::kCreate) return create(job, report);
    if (line_.command == Command::kUpdate) return update(job, report);
    verify(job, report);
  }

  void print_directories() const {
    if (line_.options.output != Output::kText || line_.options.quiet) return;
    std::puts("\nBy directory:");
    for (const DirectoryFigures &figures : reports_)
      std::printf("  %-14s %s\n", status_name(figures.status), escape(figures.root).c_str());
  }

  void finish_page(ExitStatus status) {
    if (!page_) return;
    PageFigures figures;
    figures.command = line_.command;
    figures.status = status;
    figures.started = started_;
    figures.ended = std::time(nullptr);
    figures.directories.assign(reports_.begin(), reports_.end());
    figures.machine = machine_;
    figures.settings = {{"settings", settings_text(line_.options.settings)}};
    figures.version = SCRUB_VERSION;
    page_->finish(figures);
  }

  CommandLine line_;
  Console &console_;
  const std::time_t started_ = std::time(nullptr);
  std::deque<Job> jobs_;
  std::deque<DirectoryFigures> reports_;
  MachineFigures machine_; // of the last directory
  std::optional<JsonRun> json_;
  std::optional<HtmlReport> page_;
};

ExitStatus printed() {
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return kClean;
  Console().say("cannot write to standard output");
  return kCouldNotRun;
}

int run(int argc, char **argv) {
  keep_standard_descriptors();
  CommandLine line = parse_options(argc, argv);
  switch (line.command) {
  case Command::kWrong:
    return kCouldNotRun;
  case Command::kHelp:
    print_help();
    return printed();
  case Command::kVersion:
    std::puts("vorn-scrub " SCRUB_VERSION);
    return printed();
  default:
    break;
  }
  Console console;
  auto run = std::make_unique<Run>(std::move(line), console);
  const ExitStatus status = run->run();
  if (!has_hanging_thread()) return status;
  // A thread hangs in a read that no signal ends, and uses what it was given.
  std::fflush(nullptr);
  _exit(status);
}

} // namespace
} // namespace scrub

int main(int argc, char **argv) { return scrub::run(argc, argv); }
