// fuzz-wraps: open vorn_popen_s vorn_pclose
//
// Checks that the getters work with any content of the machine's files, tools and shared figures.
// NULs separate the parts of an input: the file of the online nodes, the model, the packages, the
// CPUs, and the shared figures.
// SPDX-License-Identifier: Apache-2.0
#include "sysinfo/vorn_cpuinfo.cc"

#include "fuzz/redirect.hpp"

using namespace fuzz;

static std::string_view rest;

extern "C" {
// Returns the next part of the input in a pipe, as the output of a tool.
FILE *__wrap_vorn_popen_s(const char *, const char *, const char *) {
  const std::string output = take_until(rest, '\0').substr(0, 4096);
  int ends[2];
  expect(pipe(ends) == 0);
  expect(write(ends[1], output.data(), output.size()) == static_cast<ssize_t>(output.size()));
  close(ends[1]);
  return fdopen(ends[0], "r");
}

int __wrap_vorn_pclose(FILE *stream) { return fclose(stream); }
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, std::size_t size) {
  redirected_path = kNodeFile;
  rest = text_of(data, size);
  file().write(take_until(rest, '\0'));
  Record record = {};
  if (size >= sizeof record) std::memcpy(&record, data + size - sizeof record, sizeof record);
  if (record.crc == 1) record.crc = crc_of(record); // an input is unlikely to have the right one
  shared_record = &record;
  own_record = {};
  machine = {};
  if (find() != 0) return 0;

  found.run([] { return 0; });
  std::uint32_t packages = 0;
  std::uint32_t cpus = 0;
  char model[VORN_CPUMODEL_SIZE];
  expect(vorn_get_phycpu_num(&packages) == 0 && vorn_get_logic_cpu_num(&cpus) == 0);
  expect(vorn_get_cpumodel_info(model) == 0 && strnlen(model, sizeof model) < sizeof model);
  cpumask mask;
  expect(vorn_get_cpumask_by_phycpu(&mask, packages) == -1);
  found.reset([] {});
  return 0;
}
