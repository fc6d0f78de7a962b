#ifndef VORN_ARCH_AARCH64_FORWARD_HPP
#define VORN_ARCH_AARCH64_FORWARD_HPP

// hint 34 is BTI C, a landing pad where the processor asks for one. The branch goes through the
// linkage table, so that a process may put its own function in front.
#define VORN_FORWARD_JUMP(to) "  hint 34\n  b " #to "\n"

#endif
