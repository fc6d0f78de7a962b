// vorn-scrub finds damaged files. It is an example of a service on the library: it sets up logging,
// starts the library, does its job and shuts both down.
// SPDX-License-Identifier: Apache-2.0
#include <cstdio>
#include <deque>
#include <exception>
#include <new>
#include <string>
#include <sys/stat.h>

#include "descriptors.hpp"
#include "instance.hpp"
#include "interrupt.hpp"
#include "log.hpp"
#include "options.hpp"
#include "scrub.hpp"
#include "text.hpp"
#include "vorn_init.h"
#include "vorn_log.h"

namespace scrub {
namespace {

// Starts the library and opens the log; the destructor shuts both down.
class Session {
public:
  explicit Session(const OwnPaths &paths) {
    has_log_ = vorn_log_init(paths.log_name().c_str(), paths.log_directory.c_str()) == 0;
    started_ = vorn_Init() == 0;
  }
  Session(const Session &) = delete;
  Session &operator=(const Session &) = delete;
  ~Session() {
    vorn_destory();
    vorn_log_destroy(0);
  }

  bool has_log() const { return has_log_; }
  bool started() const { return started_; }

private:
  bool has_log_ = false;
  bool started_ = false;
};

ExitStatus refuse(const char *why) {
  std::fflush(stdout);
  std::fprintf(stderr, "vorn-scrub: %s\n", why);
  return kCouldNotRun;
}

ExitStatus could_not_run(const char *why) {
  SCRUB_LOG(EVLOG_ERROR, "%s.", why);
  return refuse(why);
}

bool is_there(const std::string &path, mode_t type) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && (status.st_mode & S_IFMT) == type;
}

// Called before the log is opened, so that a mistyped name creates no log.
std::string what_is_missing(const Job &job, Command command) {
  if (!is_there(job.root, S_IFDIR)) return "there is no directory " + job.root;
  if (!is_there(job.paths.manifest_directory, S_IFDIR))
    return "there is no directory " + job.paths.manifest_directory;
  if (command == Command::kVerify && !is_there(job.paths.manifest(), S_IFREG))
    return "there is no manifest " + job.paths.manifest() + ", make one with create";
  return {};
}

std::string what_is_missing(const Options &options) {
  for (const Job &job : options.jobs) {
    const std::string missing = what_is_missing(job, options.command);
    if (!missing.empty()) return missing;
  }
  if (!options.settings_file.empty() && !is_there(options.settings_file, S_IFREG))
    return "there is no settings file " + options.settings_file;
  return {};
}

void take_settings(Options &options) {
  if (options.settings_file.empty()) return;
  const Settings settings = read_settings(options.settings_file);
  for (Job &job : options.jobs)
    job.settings = settings;
  const std::string text = settings_text(settings);
  std::printf("Settings of %s: %s\n", options.settings_file.c_str(), text.c_str());
  SCRUB_LOG(EVLOG_INFO, "settings of %s: %s.", escape(options.settings_file).c_str(), text.c_str());
}

// Reports an exception of body as a failed run.
template <class Body> ExitStatus attempt(Body body) {
  try {
    const ExitStatus status = body();
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
      return could_not_run("cannot write to standard output");
    return status;
  } catch (const std::bad_alloc &) {
    return could_not_run("out of memory");
  } catch (const std::exception &failure) {
    return could_not_run(failure.what());
  }
}

const char *name_of(ExitStatus status) {
  switch (status) {
  case kClean:
    return "clean";
  case kDamage:
    return "damage";
  case kPassingFault:
    return "passing faults";
  default:
    return "could not run";
  }
}

// Runs the job of one directory and waits for its end.
struct Run {
  Run(const Job &job, Command command)
      : instance(job.root, [this, &job, command] {
          status = attempt([&] { return command == Command::kCreate ? create(job) : verify(job); });
        }) {
    instance.wait();
  }

  ExitStatus status = kCouldNotRun;
  Instance instance;
};

// The worst status of a run: could not run, then damage, then passing faults.
ExitStatus worse(ExitStatus one, ExitStatus other) {
  const auto weight = [](ExitStatus status) {
    constexpr int kWeights[] = {0, 2, 3, 1};
    return kWeights[status];
  };
  return weight(one) < weight(other) ? other : one;
}

ExitStatus do_jobs(Options &options) {
  take_settings(options);
  prepare_instances(options.jobs.size());
  std::deque<Run> runs;
  ExitStatus worst = kClean;
  for (const Job &job : options.jobs) {
    worst = worse(worst, runs.emplace_back(job, options.command).status);
    if (interrupted()) break;
  }
  if (options.jobs.size() == 1) return worst;
  std::puts("\nBy directory:");
  for (std::size_t i = 0; i < runs.size(); ++i) {
    const Instance &instance = runs[i].instance;
    std::printf("  %-14s %s: %s files, %s bytes read\n", name_of(runs[i].status),
                options.jobs[i].root.c_str(), grouped(instance.count(Count::kFiles)).c_str(),
                grouped(instance.count(Count::kBytes)).c_str());
  }
  return worst;
}

int run(int argc, char **argv) {
  keep_standard_descriptors();
  Options options = parse_options(argc, argv);
  switch (options.command) {
  case Command::kWrong:
    return kCouldNotRun;
  case Command::kHelp:
    print_help();
    return kClean;
  case Command::kVersion:
    std::puts("vorn-scrub " SCRUB_VERSION);
    return kClean;
  default:
    break;
  }

  const std::string missing = what_is_missing(options);
  if (!missing.empty()) return refuse(missing.c_str());
  raise_descriptor_limit();
  const Session session(options.jobs[0].paths);
  catch_signals(); // replaces the library's handlers
  if (!session.started()) return could_not_run("the library did not start; the log says why");
  for (Job &job : options.jobs)
    job.has_log = session.has_log();
  return attempt([&] { return do_jobs(options); });
}

} // namespace
} // namespace scrub

int main(int argc, char **argv) { return scrub::run(argc, argv); }
