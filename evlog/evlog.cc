#include "evlog.h"
#include <cstdio>
int evlog_init(const char *, const char *) { return 0; }
int evlog_destroy() { return 0; }
int evlog_level_check(unsigned int, int level) { return level <= EVLOG_INFO ? 0 : 1; }
int evlog(unsigned int, int, const char *, unsigned int, const char *, unsigned int,
          const char *format, ...) {
  va_list args;
  va_start(args, format);
  vfprintf(stderr, format, args);
  va_end(args);
  return 0;
}
int evlog_vraw(const char *format, va_list args) { return vfprintf(stderr, format, args); }
int evlog_original(const char *format, ...) {
  va_list args;
  va_start(args, format);
  int r = evlog_vraw(format, args);
  va_end(args);
  return r;
}
int evlog_get_group_id(unsigned int module) { return static_cast<int>(module / 16); }
int evlog_loglevel_get(unsigned int) { return EVLOG_INFO; }
int evlog_loglevel_set(unsigned int, int) { return 0; }
int evlog_ratelimit_set(int, unsigned int, unsigned int) { return 0; }
