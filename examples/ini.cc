// Edits INI settings while threads read them: one thread rewrites an item again and again, and
// others look it up meanwhile.
//
//   ./ini                            uses the file ini-example.ini and prints the result
//
// An edit replaces the file, and its content in the registry, as a whole. A reader gets the old
// value or the new one, never a part of either, and never an older value after a newer one.
// SPDX-License-Identifier: Apache-2.0
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

#include <vorn_cfg.h>
#include <vorn_init.h>
#include <vorn_log.h>
#include <vorn_sem_enhance.h>
#include <vorn_thrd.h>

namespace {

constexpr char kPath[] = "ini-example.ini";
constexpr char kSection[] = "SERVICE";
constexpr char kItem[] = "LIMIT";
constexpr int kLast = 50; // the last value of the item; the first is 1

std::atomic<bool> failed = false;
vorn_sem_enhance_s ended; // a unit for each reader that has ended

// Creates the file and registers it with the library; the destructor removes it.
class Settings {
public:
  Settings()
      : made_(vorn_cfg_write_item_to_file(kPath, kSection, kItem, "1") == 0),
        registered_(made_ && vorn_cfg_init(kPath) == 0) {}
  Settings(const Settings &) = delete;
  Settings &operator=(const Settings &) = delete;
  ~Settings() {
    if (registered_) vorn_cfg_destroy_ex(kPath);
    if (made_) unlink(kPath);
  }

  bool ready() const { return registered_; }

  // Returns 0 if there is no such item, or if it is not a positive number.
  int limit() const {
    char text[16];
    if (vorn_cfg_getItemValue_ex(kPath, kSection, kItem, text, sizeof text) != 0) return 0;
    return std::atoi(text);
  }

  bool set_limit(int limit) {
    const std::string text = std::to_string(limit);
    return vorn_cfg_file_setItemValue(kPath, kSection, kItem, text.c_str()) == 0;
  }

private:
  const bool made_;
  const bool registered_;
};

// Looks the item up until it has its last value. The value must never decrease.
void *read_limits(void *argument) {
  const auto &settings = *static_cast<const Settings *>(argument);
  vorn_thrd_setname("reader");
  for (int seen = 1; seen < kLast && !failed;) {
    const int limit = settings.limit();
    if (limit < seen || limit > kLast) failed = true;
    seen = limit;
  }
  vorn_sem_enhance_up(&ended);
  return nullptr;
}

// Owns threads that read the settings. The destructor waits for their end.
class Readers {
public:
  Readers(Settings &settings, int count) {
    vorn_sem_enhance_init(&ended, 0);
    while (started_ < count && vorn_thrd_create(read_limits, &settings, nullptr) == 0)
      ++started_;
    if (started_ < count) failed = true;
  }
  Readers(const Readers &) = delete;
  Readers &operator=(const Readers &) = delete;
  ~Readers() {
    for (; started_ > 0; --started_)
      vorn_sem_enhance_down(&ended);
  }

private:
  int started_ = 0;
};

void run() {
  Settings settings;
  if (!settings.ready()) failed = true;
  const Readers readers(settings, 2);
  for (int limit = 2; limit <= kLast && !failed; ++limit) {
    if (!settings.set_limit(limit)) failed = true;
  }
}

} // namespace

int main() {
  if (vorn_log_init("ini", ".") != 0 || vorn_Init() != 0) {
    std::fputs("ini: the library does not start\n", stderr);
    return EXIT_FAILURE;
  }
  run();
  if (!failed) std::printf("%d edits, each seen whole and in order\n", kLast - 1);
  vorn_destory();
  vorn_log_destroy(std::uintptr_t{0});
  return failed ? EXIT_FAILURE : EXIT_SUCCESS;
}
