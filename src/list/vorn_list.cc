// Implements the checked operations of the list.
// SPDX-License-Identifier: Apache-2.0
#include "list/vorn_list.hpp"

#include "base/log.hpp"
#include "list/links.hpp"

namespace vorn::list {
namespace {

struct Caller {
  Show show;
  const char *file;
  const char *function;
  unsigned int line;
};

bool is_link(const vorn_list_head_s *prev) {
  return prev != nullptr && prev != VORN_LIST_POISON_PREV;
}

const void *address(const vorn_list_head_s *node) { return node; }

// The previous neighbour must point to cur.
void check_prev(vorn_list_head_s *prev, vorn_list_head_s *cur, const Caller &by) {
  if (!is_link(prev)) {
    VORN_LOG_AT(by.file, by.line, by.function, kInfo, "List node prev:(%p), cur:(%p)",
                address(prev), address(cur));
    return;
  }
  if (prev->next == cur) return;
  VORN_LOG_AT(by.file, by.line, by.function, kError,
              "Abnormal list node prev:%p(%p,%p) is not point to cur:%p(%p,%p)", address(prev),
              address(prev->next), address(prev->prev), address(cur), address(cur->next),
              address(cur->prev));
  by.show(cur);
  by.show(prev);
}

// The next neighbour must point back to cur.
void check_next(vorn_list_head_s *next, vorn_list_head_s *cur, const Caller &by) {
  if (next->prev == cur) return;
  VORN_LOG_AT(by.file, by.line, by.function, kError,
              "Abnormal list node next:%p(%p,%p) is not point to cur:%p(%p,%p)", address(next),
              address(next->next), address(next->prev), address(cur), address(cur->next),
              address(cur->prev));
  by.show(cur);
  by.show(next);
}

void remove(vorn_list_head_s *node, const Caller &by) {
  check_prev(node->prev, node, by);
  check_next(node->next, node, by);
  unlink(node);
  vorn_list_poison(node);
}

} // namespace

// Not inlined, so that the attribute of insert_between holds.
__attribute__((no_sanitize("null"))) void insert_tail(vorn_list_head_s *head,
                                                      vorn_list_head_s *node, Show show,
                                                      const char *file, const char *function,
                                                      unsigned int line) {
  vorn_list_head_s *last = head->prev;
  check_prev(last, head, {show, file, function, line});
  insert_between(last, node, head);
}

void remove(vorn_list_head_s *node, Show show, const char *file, const char *function,
            unsigned int line) {
  remove(node, {show, file, function, line});
}

vorn_list_head_s *checked_first(vorn_list_head_s *head, Show show, const char *file,
                                const char *function, unsigned int line) {
  vorn_list_head_s *node = vorn_list_first(head);
  if (node == nullptr || node->prev == head) return node;
  VORN_LOG_AT(file, line, function, kError,
              "Abnormal list node cur:%p(%p,%p), is not point to last:%p", address(node),
              address(node->next), address(node->prev), address(head));
  show(node);
  return node;
}

vorn_list_head_s *take_first(vorn_list_head_s *head, Show show, const char *file,
                             const char *function, unsigned int line) {
  vorn_list_head_s *node = checked_first(head, show, file, function, line);
  if (node != nullptr) remove(node, {show, file, function, line});
  return node;
}

} // namespace vorn::list
