// Declares the checked list: insertion and removal verify the neighbours' links first, and report a
// corrupt list in the owner's name. The operation goes on after a failed check: a NULL or poisoned
// link faults, and the fault handlers report the state.
//
// The list has no lock: its owner holds one around each call. file is the owner's VORN_FILE;
// function and line are those of the caller.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_LIST_HPP
#define VORN_LIST_HPP

#include "vorn_list.h"

namespace vorn::list {

// Logs the owner's structure that contains node.
using Show = void (*)(vorn_list_head_s *node);

// Appends node, which must be on no list.
void insert_tail(vorn_list_head_s *head, vorn_list_head_s *node, Show show, const char *file,
                 const char *function = __builtin_FUNCTION(), unsigned int line = __builtin_LINE());

// Removes node from its list and poisons its links.
void remove(vorn_list_head_s *node, Show show, const char *file,
            const char *function = __builtin_FUNCTION(), unsigned int line = __builtin_LINE());

// Returns the first node, or NULL if there is none. Checks it as take_first() does, and leaves it
// on the list.
vorn_list_head_s *checked_first(vorn_list_head_s *head, Show show, const char *file,
                                const char *function = __builtin_FUNCTION(),
                                unsigned int line = __builtin_LINE());

// Removes and returns the first node, or NULL if there is none. The node must point back to the
// head.
vorn_list_head_s *take_first(vorn_list_head_s *head, Show show, const char *file,
                             const char *function = __builtin_FUNCTION(),
                             unsigned int line = __builtin_LINE());

} // namespace vorn::list

#endif
