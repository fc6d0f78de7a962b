// Compares starting a shell from a process with 2 GiB resident memory with the system's functions.
// SPDX-License-Identifier: Apache-2.0
#include <cstdio>
#include <cstdlib>
#include <sys/mman.h>

#include "support/bench.hpp"
#include "vorn_cmd.h"

namespace {

constexpr std::size_t kResident = std::size_t{2} << 30;

// Uses small pages, as most memory of an allocator does.
bool become_large() {
  void *memory =
      mmap(nullptr, kResident, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) return false;
  madvise(memory, kResident, MADV_NOHUGEPAGE);
  auto *bytes = static_cast<volatile char *>(memory);
  for (std::size_t at = 0; at < kResident; at += 4096)
    bytes[at] = 1;
  return true;
}

int last_character(FILE *stream) {
  int last = EOF;
  for (int c = std::fgetc(stream); c != EOF; c = std::fgetc(stream))
    last = c;
  return last;
}

int ours_reads() {
  FILE *stream = vorn_popen_s("echo text", "r", nullptr);
  return last_character(stream) + vorn_pclose(stream);
}

int popen_reads() {
  FILE *stream = popen("echo text", "r");
  return last_character(stream) + pclose(stream);
}

} // namespace

int main(int argc, char **argv) {
  if (!become_large()) {
    std::perror("2 GiB");
    return 1;
  }
  const bench::Table table{argc, argv, "Commands at 2 GiB resident"};
  table.row("vorn_popen_s, read, vorn_pclose",
            {bench::ours(ours_reads), bench::peer("popen", popen_reads)});
  table.row("vorn_system_s", {bench::ours([] { return vorn_system_s("exit 0", nullptr); }),
                              bench::peer("system", [] { return std::system("exit 0"); })});
}
