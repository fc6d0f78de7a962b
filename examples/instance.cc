// Runs instances with variables: two movers run at the same time, and each counts its blocks in its
// own value of the variable "moved".
//
//   ./instance                       prints how many blocks each has moved
//
// The function that moves blocks needs no argument: it counts for the instance that its thread
// works for.
// SPDX-License-Identifier: Apache-2.0
#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>

#include <vorn_init.h>
#include <vorn_log.h>
#include <vorn_lwp.h>
#include <vorn_sched.h>

namespace {

std::uint64_t moved = LWP_NONE; // the variable's id

// The value of an instance; 0 is the instance of the calling thread. Another thread may read it.
std::atomic_ref<std::uint64_t> value(std::uint64_t instance) {
  return std::atomic_ref(*static_cast<std::uint64_t *>(LwpVarRaw(instance, moved)));
}

void move_block() {
  vorn_msleep(1);
  ++value(0);
}

// The reference keeps the instance alive while the thread works for it. The library refuses a
// reference to an instance that is being deleted, and the thread ends.
void *move_blocks(void *) {
  const std::uint64_t own = LwpCtxCurrent();
  while (LwpInstGet(own) == 0) {
    move_block();
    LwpInstPut(own);
  }
  return nullptr;
}

// The library calls this at the deletion of an instance, after its thread has ended.
int report(std::uint64_t instance, void *) {
  std::printf("%s moved %" PRIu64 " blocks\n", LwpInstGetName(instance), value(instance).load());
  return 0;
}

bool register_variable() {
  constexpr std::uint64_t kNone = 0;
  const lwp_var_ops_s functions = {nullptr, nullptr, report, nullptr};
  return LwpVarRegister("moved", &kNone, sizeof kNone, &functions, &moved) != LWP_NONE;
}

// Owns an instance with a thread. The destructor deletes it.
class Mover {
public:
  explicit Mover(const char *name) : id_(LwpInstNew(name, nullptr, move_blocks, nullptr)) {}
  Mover(const Mover &) = delete;
  Mover &operator=(const Mover &) = delete;
  ~Mover() {
    if (started()) LwpInstDelete(id_, -1);
  }

  bool started() const { return id_ != LWP_NONE; }
  std::uint64_t moved_so_far() const { return value(id_).load(); }

private:
  const std::uint64_t id_;
};

bool run() {
  if (LwpModuleInit() != 0 || !register_variable()) return false;
  const Mover first("mover_1");
  const Mover second("mover_2");
  if (!first.started() || !second.started()) return false;
  while (first.moved_so_far() < 10 || second.moved_so_far() < 10)
    vorn_msleep(5);
  return true;
}

} // namespace

int main() {
  if (vorn_log_init("instance", ".") != 0 || vorn_Init() != 0) {
    std::fputs("instance: the library does not start\n", stderr);
    return EXIT_FAILURE;
  }
  const bool done = run();
  vorn_destory();
  vorn_log_destroy(std::uintptr_t{0});
  return done ? EXIT_SUCCESS : EXIT_FAILURE;
}
