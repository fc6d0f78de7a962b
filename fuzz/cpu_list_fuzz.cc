// Checks the parsers of CPU lists, of NUMA nodes and of the system's files, against a simple model.
// SPDX-License-Identifier: Apache-2.0
#include <bitset>
#include <climits>
#include <cstring>
#include <string>

#include "fuzz/harness.hpp"
#include "vorn_cpumask.h"
#include "vorn_numa.h"

namespace {

using namespace fuzz;

constexpr std::size_t kCpus = VORN_NUMAM_CPUSET_WORDS * 64;
using Set = std::bitset<kCpus>;

const char *skip_blanks(const char *at) { return at + std::strspn(at, " \t\n\v\f\r"); }

// Moves at beyond a number, which may have a plus sign. Returns false if there is none.
bool take(const char *&at, unsigned long &number) {
  const char *digits = *at == '+' ? at + 1 : at;
  if (*digits < '0' || *digits > '9') return false;
  char *end = nullptr;
  number = std::min<unsigned long>(std::strtoul(digits, &end, 10), UINT_MAX);
  at = end;
  return true;
}

bool add(const char *item, Set &set) {
  unsigned long first = 0;
  const char *at = skip_blanks(item);
  if (!take(at, first)) return false;
  unsigned long last = first;
  if (*at == '-') {
    at = skip_blanks(at + 1);
    if (*at == '-') return false;
    take(at, last);
  }
  for (unsigned long cpu = first; cpu <= last && cpu < kCpus; ++cpu)
    set.set(cpu);
  return last >= first;
}

// Adds the items before the first wrong one.
bool add_list(std::string_view list, Set &set) {
  bool is_list = true;
  do
    is_list = add(take_until(list, ',').c_str(), set);
  while (is_list && list.data()[-1] == ',');
  return is_list;
}

template <class Words> Set set_of(const Words *words, std::size_t capacity) {
  Set set;
  for (std::size_t cpu = 0; cpu < capacity; ++cpu)
    set[cpu] = (words[cpu / 64] >> cpu % 64 & 1) != 0;
  return set;
}

void check_numa(const std::string &list) {
  Set wanted;
  const int result = add_list(list, wanted) ? 0 : -1;
  std::uint64_t words[VORN_NUMAM_CPUSET_WORDS] = {};
  expect(vorn_numam_parse_cpuset(list.c_str(), words) == result);
  expect(set_of(words, kCpus) == wanted);
  cpumask mask = {};
  expect(vorn_numam_parse_cpumask(list.c_str(), &mask) == result);
  expect(set_of(mask.words, VORN_CPUMASK_CPU_COUNT) ==
         (wanted & Set().set() >> (kCpus - VORN_CPUMASK_CPU_COUNT)));
}

// Checks that a file of one line gives the same CPUs as its items one by one.
void check_system(std::string_view line) {
  file().write(line);
  cpumask loaded = {};
  const int highest = load_cpumask(&loaded, file().path(), 0);
  if (line.empty() || line.size() > 200 || line.find_first_of("\r\n") != line.npos) return;
  cpumask wanted = {};
  int wanted_highest = 0;
  while (!line.empty())
    wanted_highest =
        std::max(wanted_highest, vorn_set_cpumask_bit(&wanted, take_until(line, ',').c_str()));
  expect(highest == wanted_highest);
  expect(std::memcmp(&loaded, &wanted, sizeof loaded) == 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, std::size_t size) {
  const std::string list = c_string(text_of(data, size));
  check_numa(list);
  check_system(list);
  return 0;
}
