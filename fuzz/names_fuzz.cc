// Checks that any table of module names gives only valid names, each within its text.
// SPDX-License-Identifier: Apache-2.0
#include "process/node_names.cc"

#include <string>

#include "fuzz/harness.hpp"

using namespace fuzz;
using namespace vorn::process;

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, std::size_t size) {
  std::string text(text_of(data, size));
  std::fill(std::begin(names), std::end(names), nullptr);
  const bool is_kept = take_rows(text.data(), text.size());
  bool has_name = false;
  for (const char *name : names) {
    if (name == nullptr) continue;
    has_name = true;
    expect(name >= text.data() && name < text.data() + text.size() && is_name(name));
  }
  expect(has_name == is_kept);
  return 0;
}
