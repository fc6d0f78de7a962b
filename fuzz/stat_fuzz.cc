// fuzz-wraps: open
//
// Checks that for any "/proc/stat" the slots of the present CPUs are as a simple model computes
// them, and that nothing around them changes.
// SPDX-License-Identifier: Apache-2.0
#include "sysinfo/sampler.cc"

#include <sstream>
#include <vector>

#include "fuzz/redirect.hpp"

namespace {

using namespace fuzz;

struct Slot {
  std::uint64_t idle = 0, total = 0;
  std::uint32_t percent = 0;
};

bool take_slot(std::istringstream &line, Slot &slot) {
  int count = 0;
  for (std::uint64_t value; count < 7 && line >> value; ++count) {
    slot.total += value;
    if (count == 3) slot.idle = value;
  }
  if (count < 4) return false;
  return true;
}

void sample(Slot &slot, const Slot &now) {
  const std::uint64_t elapsed = now.total - slot.total;
  const std::uint64_t busy = elapsed - (now.idle - slot.idle);
  if (elapsed != 0) slot.percent = static_cast<std::uint32_t>(busy * 100 / elapsed);
  slot.idle = now.idle;
  slot.total = now.total;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, std::size_t size) {
  static const std::uint32_t present = sysinfo_get_cpu_num();
  redirected_path = kStatFile;
  std::vector<std::uint32_t> percent(present + 1);
  std::vector<std::uint64_t> idle(present + 1), total(present + 1);
  usage_percent = percent.data();
  last_idle = idle.data();
  last_total = total.data();
  attached.run([] { return 0; });

  std::string_view text = text_of(data, size);
  file().write(text);
  const int result = sysinfo_update_all_cpu_usage();

  // The model's streams read signs and too large numbers differently, and do not end a line at a
  // NUL.
  if (text.find_first_of(std::string_view("+-\0", 3)) != text.npos) return 0;
  std::vector<Slot> wanted(present + 1);
  bool is_sound = !text.empty();
  for (int number = 0; is_sound && !text.empty(); ++number) {
    const std::string line = take_until(text, '\n');
    if (line.size() >= kLineSize - 1) return 0;
    for (std::size_t at = 0, digits = 0; at < line.size(); ++at) {
      digits = line[at] >= '0' && line[at] <= '9' ? digits + 1 : 0;
      if (digits > 19) return 0;
    }
    std::uint64_t cpu = 0;
    Slot now;
    is_sound = line.starts_with("cpu");
    std::istringstream words(is_sound ? line.substr(3) : "");
    if (number > 0) is_sound = is_sound && words >> cpu;
    is_sound = is_sound && take_slot(words, now);
    if (number == 0) expect(result == (is_sound ? 0 : -1));
    if (is_sound && cpu < present) sample(wanted[number == 0 ? 0 : cpu + 1], now);
  }
  for (std::uint32_t slot = 0; slot <= present; ++slot)
    expect(percent[slot] == wanted[slot].percent && total[slot] == wanted[slot].total &&
           idle[slot] == wanted[slot].idle);
  return 0;
}
