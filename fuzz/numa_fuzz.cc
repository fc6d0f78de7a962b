// Checks that any file of NUMA nodes is either loaded or refused. A loaded file has every node that
// it counts, and the process uses no others.
// SPDX-License-Identifier: Apache-2.0
#include "cpu/vorn_numa.cc"

#include "fuzz/harness.hpp"

namespace {

using namespace fuzz;

void forget_nodes() {
  free_nodes(nodes, [](vorn_list_head_s *link) { vorn_free(vorn_list_entry(link, Node, link)); });
  vorn_list_init_head(&nodes);
  numa_num = 0;
  cpu_num = 0;
  vorn_cfg_destroy();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, std::size_t size) {
  file().write(text_of(data, size));
  forget_nodes();
  const int result = vorn_numam_init_inner(file().path());
  std::int32_t count = 0;
  each_node([&](const Node &node) {
    expect(node.id == static_cast<std::uint32_t>(count++));
    std::uint64_t cpus[VORN_NUMAM_CPUSET_WORDS];
    vorn_numam_cpuset_get(node.id, cpus);
    cpumask mask;
    vorn_numam_cpumask_get(node.id, &mask);
  });
  expect(count <= vorn_numam_num_get());
  expect(result != 0 || (count == vorn_numam_num_get() && vorn_numam_status_get() <= 1));
  std::uint64_t used = 0;
  expect(vorn_numam_proc_numamask_get(&used) == 0);
  expect(count >= 64 || used >> count == 0);
  return 0;
}
