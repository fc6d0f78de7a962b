// Defines functions of every kind that a symbol table may list, in an object that its tests load.
// Only fixture_static is called.
// SPDX-License-Identifier: Apache-2.0
namespace fixture {

class Widget {
public:
  __attribute__((visibility("default"))) int turn(int by, const char *reason);
};

int Widget::turn(int by, const char *reason) { return reason[by]; }

namespace {
__attribute__((noinline)) int in_this_file_only(int x) {
  asm volatile("" : "+r"(x));
  return x;
}
} // namespace

} // namespace fixture

extern "C" {

__attribute__((visibility("default"))) int f(int x) { return x + 1; }

// The address of a function that .dynsym does not list.
__attribute__((visibility("default"))) int (*fixture_static())(int) {
  return fixture::in_this_file_only;
}
}

#define TEN(text) text text text text text text text text text text
#define P250 TEN("PPPPPPPPPPPPPPPPPPPPPPPPP")
#define FUNCTION(name) "\n.type " name ", %function\n" name ": .skip 16\n.size " name ", 16\n"

// 16 bytes each: a function with aliases, a gap, a function of unknown size, one whose name in
// .symtab carries its version, and three that take a pointer to a pointer and so on: demangling the
// last one exhausted a small stack.
asm(R"(
  .text
  .balign 64
  .globl fixture_sized
  .type fixture_sized, %function
  .weak fixture_weak_alias
  .type fixture_weak_alias, %function
  .type fixture_local_alias, %function
fixture_sized:
fixture_weak_alias:
fixture_local_alias:
  .skip 16
  .size fixture_sized, 16
  .size fixture_weak_alias, 16
  .size fixture_local_alias, 16
  .skip 16
  .type fixture_label, %function
fixture_label:
  .skip 16
  .globl fixture_version_1
  .type fixture_version_1, %function
fixture_version_1:
  .skip 16
  .size fixture_version_1, 16
  .symver fixture_version_1, fixture_versioned@@FIXTURE_1, remove
)" FUNCTION("_Z1f" P250 "Pi") FUNCTION("_Z1f" P250 "PPi") FUNCTION("_Z1f" P250 P250 P250 P250 "i"));
