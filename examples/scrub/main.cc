// vorn-scrub: finds damaged files. An example of a service on the library: it sets up logging,
// starts the library, does its job, and takes both down again.
#include <cstdio>
#include <exception>
#include <new>
#include <string>
#include <sys/stat.h>

#include "descriptors.hpp"
#include "interrupt.hpp"
#include "log.hpp"
#include "options.hpp"
#include "scrub.hpp"
#include "text.hpp"
#include "vorn_init.h"
#include "vorn_log.h"

namespace scrub {
namespace {

// The library is up and the log is open as long as this lives.
class Session {
public:
  explicit Session(Job &job) {
    job.has_log =
        vorn_log_init(job.places.log_name().c_str(), job.places.log_directory.c_str()) == 0;
    started_ = vorn_Init() == 0;
  }
  Session(const Session &) = delete;
  Session &operator=(const Session &) = delete;
  ~Session() {
    vorn_destory();
    vorn_log_destroy(0);
  }

  bool started() const { return started_; }

private:
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

// Asked before the log is opened, so that a mistyped name leaves no log behind.
std::string what_is_missing(const Options &options) {
  const Job &job = options.job;
  if (!is_there(job.root, S_IFDIR)) return "there is no directory " + job.root;
  if (!is_there(job.places.manifest_directory, S_IFDIR))
    return "there is no directory " + job.places.manifest_directory;
  if (!options.settings_file.empty() && !is_there(options.settings_file, S_IFREG))
    return "there is no settings file " + options.settings_file;
  if (options.command == Command::kVerify && !is_there(job.places.manifest(), S_IFREG))
    return "there is no manifest " + job.places.manifest() + ", make one with create";
  return {};
}

void take_settings(Options &options) {
  if (options.settings_file.empty()) return;
  options.job.settings = read_settings(options.settings_file);
  const std::string text = settings_text(options.job.settings);
  std::printf("Settings of %s: %s\n", options.settings_file.c_str(), text.c_str());
  SCRUB_LOG(EVLOG_INFO, "settings of %s: %s.", escape(options.settings_file).c_str(), text.c_str());
}

ExitStatus do_job(Options &options) {
  try {
    take_settings(options);
    const Job &job = options.job;
    const ExitStatus status = options.command == Command::kCreate ? create(job) : verify(job);
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
      return could_not_run("cannot write to standard output");
    return status;
  } catch (const std::bad_alloc &) {
    return could_not_run("out of memory");
  } catch (const std::exception &failure) {
    return could_not_run(failure.what());
  }
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
  const Session session(options.job);
  catch_signals(); // in the place of the library's handlers
  if (!session.started()) return could_not_run("the library did not start; the log tells why");
  return do_job(options);
}

} // namespace
} // namespace scrub

int main(int argc, char **argv) { return scrub::run(argc, argv); }
