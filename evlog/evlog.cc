// Defines the ten functions of the logging library.
// SPDX-License-Identifier: Apache-2.0
#include "evlog.h"

#include "base/cancellation_guard.hpp"
#include "base/errno_guard.hpp"
#include "console.hpp"
#include "message.hpp"
#include "modules.hpp"
#include "output.hpp"
#include "rate_limit.hpp"
#include "raw.hpp"

namespace logging {

namespace {

void report_rate_limit(unsigned int module, unsigned long dropped, const Place &place) {
  if (dropped == 0) return;
  const vorn::ErrnoGuard errno_stays; // the next message may show errno
  write_message(module, EVLOG_WARNING, place,
                "%lu log messages of group %d were dropped by the rate limit.", dropped,
                group_of(module));
}

// Writes only to the file: at this level no message goes to the console.
void report_console(Report report) {
  if (!has_log_file()) return;
  const unsigned long dropped = take_console_report(report);
  if (dropped == 0) return;
  write_message(0, EVLOG_INFO, {"evlog.c", __LINE__, __func__},
                "%lu texts for the console were dropped so far.", dropped);
}

} // namespace

} // namespace logging

using namespace logging;

int evlog_init(const char *program, const char *directory) {
  const vorn::CancellationGuard off;
  return open_log_file(program, directory);
}

int evlog_destroy() {
  const vorn::ErrnoGuard errno_stays;
  const vorn::CancellationGuard off;
  report_console(Report::kFinal);
  close_log_file();
  return 0;
}

int evlog_level_check(unsigned int module, int level) {
  return level <= module_level(module) ? 0 : 1;
}

int evlog(unsigned int module, int level, const char *file, unsigned int line, const char *function,
          unsigned int, const char *format, ...) {
  const vorn::ErrnoGuard errno_stays;
  const vorn::CancellationGuard off;
  unsigned long dropped;
  if (!admit_message(group_of(module), &dropped)) return 1;
  report_rate_limit(module, dropped, {"evlog.c", __LINE__, __func__});

  va_list args;
  va_start(args, format);
  const Written written = write_vmessage(module, level, {file, line, function}, format, args);
  va_end(args);
  if (written == Written::kToFile) report_console(Report::kScarce);
  return written == Written::kNot ? -1 : 0;
}

int evlog_original(const char *format, ...) {
  va_list args;
  va_start(args, format);
  const int written = write_raw(LineEnd::kAdded, format, args);
  va_end(args);
  return written;
}

int evlog_vraw(const char *format, va_list args) {
  return write_raw(LineEnd::kAsGiven, format, args);
}

int evlog_get_group_id(unsigned int module) { return group_of(module); }

int evlog_loglevel_get(unsigned int module) { return module_level(module); }

int evlog_loglevel_set(unsigned int module, int level) {
  return set_module_level(module, level) ? 0 : -1;
}

int evlog_ratelimit_set(int group, unsigned int burst, unsigned int interval_ms) {
  const vorn::ErrnoGuard errno_stays;
  const vorn::CancellationGuard off;
  unsigned long dropped;
  if (!set_rate_limit(group, burst, interval_ms, &dropped)) return -1;
  report_rate_limit(first_module_of(group), dropped, {"evlog.c", __LINE__, __func__});
  return 0;
}
