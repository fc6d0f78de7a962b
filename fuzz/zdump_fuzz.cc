// Checks that any output of zdump gives a table within its bounds, and that a parsed line has valid
// dates.
// SPDX-License-Identifier: Apache-2.0
#include "time/vorn_timeutil.cc"

#include "fuzz/harness.hpp"

using namespace fuzz;

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, std::size_t size) {
  std::string_view input = text_of(data, size);
  file().write(input);
  static Table table;
  table = {};
  read_timezone_file(file().path(), table);
  expect(table.count <= kMostTransitions);
  while (!input.empty()) {
    vorn_dst_line_s line;
    if (read_dst_line(c_string(take_until(input, '\n')).c_str(), &line) != 0) continue;
    expect(line.local.tm_mon >= 0 && line.local.tm_mon < 12 && line.local.tm_mday <= 31);
    expect(std::strlen(line.abbreviation) < sizeof line.abbreviation);
  }
  return 0;
}
