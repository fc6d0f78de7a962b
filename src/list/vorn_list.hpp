// The checked list: insertion and removal that verify the neighbours' links first and report a
// corrupt list in the owner's name. A failed check stops nothing: the links are followed as they
// are, and one that is NULL or poisoned faults, so that the fault handlers record the state.
//
// The list has no lock: its owner holds one around each call. file is the owner's VORN_FILE;
// function and line are the calling place.
#ifndef VORN_LIST_HPP
#define VORN_LIST_HPP

#include "vorn_list.h"

namespace vorn::list {

// Shows the owner's record that node is embedded in.
using Show = void (*)(vorn_list_head_s *node);

// Appends node, which is on no list.
void insert_tail(vorn_list_head_s *head, vorn_list_head_s *node, Show show, const char *file,
                 const char *function = __builtin_FUNCTION(), unsigned int line = __builtin_LINE());

// Takes node off its list and poisons it.
void remove(vorn_list_head_s *node, Show show, const char *file,
            const char *function = __builtin_FUNCTION(), unsigned int line = __builtin_LINE());

// The first node, NULL when there is none: checked like the one that take_first takes, and left on
// the list.
vorn_list_head_s *checked_first(vorn_list_head_s *head, Show show, const char *file,
                                const char *function = __builtin_FUNCTION(),
                                unsigned int line = __builtin_LINE());

// Takes the first node off, NULL when there is none: a list is drained by calling it until then.
// The nodes before the one it takes have been removed, so that one must point back at the head.
vorn_list_head_s *take_first(vorn_list_head_s *head, Show show, const char *file,
                             const char *function = __builtin_FUNCTION(),
                             unsigned int line = __builtin_LINE());

} // namespace vorn::list

#endif
