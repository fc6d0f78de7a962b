// Implements the AVL tree.
//
// 1. An insertion links the node where the search ended, and goes up while a subtree has grown.
// 2. A removal replaces a node that has two children by its neighbour on the heavier side, and goes
//    up while a subtree has become lower.
// 3. On the way up, a node of balance 0 leans to one side. A node that leaned the other way is
//    balanced. A node that would lean by two levels is rotated, once or twice.
// 4. The way ends at the first node whose subtree has kept its height.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_avl.h"

#include <cstddef>
#include <cstdint>

#include "base/log.hpp"

namespace vorn::avl {
namespace {

using Node = vorn_avl_node_s;
using Tree = vorn_avl_tree_s;

static_assert(offsetof(Node, children) == 0 && offsetof(Node, parent) == 16 &&
              offsetof(Node, child_index) == 24 && offsetof(Node, balance) == 28 &&
              sizeof(Node) == 32);
static_assert(offsetof(Tree, root) == 0 && offsetof(Tree, add_compare) == 8 &&
              offsetof(Tree, find_compare) == 16 && offsetof(Tree, node_offset) == 24 &&
              offsetof(Tree, record_size) == 28 && offsetof(Tree, node_count) == 32 &&
              sizeof(Tree) == 40);

constexpr unsigned int kLeft = 0;
constexpr unsigned int kRight = 1;

// The address of a node is even, so its lowest bit holds the side.
static_assert(alignof(Node) > 1);
constexpr unsigned long kSideBit = 1;

// Returns the change of the balance if the subtree on a side grows by one level.
constexpr std::int32_t kStepOfSide[] = {-1, 1};

// The index is a balance, or the result of a comparison, plus 1.
constexpr unsigned int kSideOfBalance[] = {kLeft, kLeft, kRight};

// A link of the tree: to the child of parent on that side, or to the top node if parent is NULL.
struct Place {
  Node *parent;
  unsigned int side;
};

unsigned int opposite(unsigned int side) { return 1 - side; }

unsigned int side_of(unsigned int direction) { return direction == 0 ? kLeft : kRight; }

Place place_of(const Node *node) { return {node->parent, node->child_index}; }

Node *node_of(const Tree *tree, void *record) {
  return reinterpret_cast<Node *>(static_cast<char *>(record) + tree->node_offset);
}

void *record_of(const Tree *tree, Node *node) {
  return reinterpret_cast<char *>(node) - tree->node_offset;
}

void *record_or_null(const Tree *tree, Node *node) {
  return node == nullptr ? nullptr : record_of(tree, node);
}

unsigned long position(Place place) {
  return reinterpret_cast<unsigned long>(place.parent) | place.side;
}

Place place_at(unsigned long where) {
  return {reinterpret_cast<Node *>(where & ~kSideBit), static_cast<unsigned int>(where & kSideBit)};
}

// Stores node, which may be NULL, at a place below a parent.
void link_child(Place place, Node *node) {
  place.parent->children[place.side] = node;
  if (node == nullptr) return;
  node->parent = place.parent;
  node->child_index = place.side;
}

// The same for any place.
void link(Tree *tree, Place place, Node *node) {
  if (place.parent != nullptr) return link_child(place, node);
  tree->root = node;
  if (node == nullptr) return;
  node->parent = nullptr;
  node->child_index = place.side;
}

Node *outermost(Node *node, unsigned int side) {
  while (node->children[side] != nullptr)
    node = node->children[side];
  return node;
}

Node *neighbour(Node *node, unsigned int side) {
  if (node->children[side] != nullptr) return outermost(node->children[side], opposite(side));
  while (node->parent != nullptr && node->child_index == side)
    node = node->parent;
  return node->parent;
}

// Loads both children during the comparison, and selects one without a branch: the processor could
// not predict the direction of a search.
void *find_val_node(const Tree *tree, const void *value, unsigned long *where, bool use_find) {
  const vorn_avl_compare_f compare = use_find ? tree->find_compare : tree->add_compare;
  Node *parent = nullptr;
  int order = 0;
  for (Node *node = tree->root; node != nullptr;) {
    Node *left = node->children[kLeft];
    Node *right = node->children[kRight];
    __builtin_prefetch(left);
    __builtin_prefetch(right);
    void *record = record_of(tree, node);
    order = compare(value, record);
    if (order == 0) return record;
    if (order < -1 || order > 1) {
      parent = nullptr;
      order = -1;
      break;
    }
    parent = node;
    node = order > 0 ? right : left;
  }
  if (where != nullptr) *where = position({parent, kSideOfBalance[order + 1]});
  return nullptr;
}

// Rotates: node is heavy on that side, and its child there takes its place. Returns whether the
// subtree became lower.
bool rotate_single(Tree *tree, Node *node, unsigned int heavy) {
  const unsigned int light = opposite(heavy);
  Node *child = node->children[heavy];
  link(tree, place_of(node), child);
  link_child({node, heavy}, child->children[light]);
  link_child({child, light}, node);

  const bool lower = child->balance != 0;
  child->balance -= kStepOfSide[heavy];
  node->balance = -child->balance;
  return lower;
}

// Rotates twice: the child on the heavy side leans the other way, and its inner child takes node's
// place.
void rotate_double(Tree *tree, Node *node, unsigned int heavy) {
  const unsigned int light = opposite(heavy);
  Node *child = node->children[heavy];
  Node *inner = child->children[light];
  link(tree, place_of(node), inner);
  link_child({node, heavy}, inner->children[light]);
  link_child({child, light}, inner->children[heavy]);
  link_child({inner, light}, node);
  link_child({inner, heavy}, child);

  const std::int32_t step = kStepOfSide[heavy];
  node->balance = inner->balance == step ? -step : 0;
  child->balance = inner->balance == -step ? step : 0;
  inner->balance = 0;
}

// Rebalances a node whose balance would be 2 levels towards heavy. Returns whether its subtree
// became lower.
bool rotate(Tree *tree, Node *node, unsigned int heavy) {
  if (node->children[heavy]->balance != -kStepOfSide[heavy])
    return rotate_single(tree, node, heavy);
  rotate_double(tree, node, heavy);
  return true;
}

// Rebalances the ancestors after the subtree at place has grown by one level. Returns whether an
// ancestor came into balance by that.
bool retrace_insertion(Tree *tree, Place place) {
  while (place.parent != nullptr) {
    Node *node = place.parent;
    const std::int32_t old_balance = node->balance;
    const std::int32_t balance = old_balance + kStepOfSide[place.side];
    if (old_balance != 0 && balance != 0) {
      rotate(tree, node, place.side);
      return false;
    }
    node->balance = balance;
    if (balance == 0) return true;
    place = place_of(node);
  }
  return false;
}

// Rebalances the ancestors after the subtree at place has become lower by one level.
void retrace_removal(Tree *tree, Place place) {
  while (place.parent != nullptr) {
    Node *node = place.parent;
    const unsigned int side = place.side;
    const std::int32_t old_balance = node->balance;
    const std::int32_t balance = old_balance - kStepOfSide[side];
    place = place_of(node);
    if (old_balance != 0 && balance != 0) {
      if (!rotate(tree, node, opposite(side))) return;
      continue;
    }
    node->balance = balance;
    if (balance != 0) return;
  }
}

// Removes node without rebalancing. Returns the place whose subtree became lower: that of node, or
// that of the neighbour that replaced it.
Place unlink(Tree *tree, Node *node) {
  Node *left = node->children[kLeft];
  Node *right = node->children[kRight];
  const Place place = place_of(node);
  if (left == nullptr || right == nullptr) {
    link(tree, place, left != nullptr ? left : right);
    return place;
  }

  const unsigned int side = kSideOfBalance[node->balance + 1];
  Node *heir = outermost(node->children[side], opposite(side));
  const Place gap = place_of(heir);
  link_child(gap, heir->children[side]);
  link(tree, place, heir);
  link_child({heir, kLeft}, node->children[kLeft]);
  link_child({heir, kRight}, node->children[kRight]);
  heir->balance = node->balance;
  return gap.parent == node ? Place{heir, side} : gap;
}

} // namespace
} // namespace vorn::avl

using namespace vorn::avl;

int vorn_create_avl(vorn_avl_tree_s *tree, vorn_avl_compare_f cmp, uint32_t size, uint32_t offset) {
  if (tree == nullptr || cmp == nullptr) return VORN_FAIL(-1, "NULL POINTER");
  *tree = {nullptr, cmp, cmp, offset, size, 0};
  return 0;
}

int vorn_create_avl_new(vorn_avl_tree_s *tree, vorn_avl_compare_f add_cmp,
                        vorn_avl_compare_f find_cmp, uint32_t size, uint32_t offset) {
  if (tree == nullptr || add_cmp == nullptr || find_cmp == nullptr)
    return VORN_FAIL(-1, "NULL POINTER");
  *tree = {nullptr, add_cmp, find_cmp, offset, size, 0};
  return 0;
}

int vorn_destroy_avl(vorn_avl_tree_s *tree) {
  if (tree == nullptr) return VORN_FAIL(-1, "NULL POINTER");
  tree->root = nullptr;
  tree->node_count = 0;
  return 0;
}

void *vorn_find_avl_node(vorn_avl_tree_s *tree, const void *value, unsigned long *where) {
  if (tree == nullptr) return VORN_FAIL(nullptr, "NULL POINTER");
  return find_val_node(tree, value, where, true);
}

void vorn_add_avl_node(vorn_avl_tree_s *tree, void *record) {
  if (tree == nullptr || record == nullptr) {
    VORN_LOG(vorn::kError, "NULL POINTER");
    return;
  }
  unsigned long where;
  if (find_val_node(tree, record, &where, false) != nullptr) return;
  if (vorn_insert_avl_node(tree, record, where) != 0) VORN_LOG(vorn::kError, "InsertAvlNode fail.");
}

int vorn_insert_avl_node(vorn_avl_tree_s *tree, void *record, unsigned long where) {
  if (tree == nullptr || record == nullptr) return VORN_FAIL(-1, "NULL POINTER");
  const Place place = place_at(where);
  Node *node = node_of(tree, record);
  ++tree->node_count;
  *node = {{nullptr, nullptr}, nullptr, 0, 0};
  link(tree, place, node);
  if (retrace_insertion(tree, place)) VORN_LOG(vorn::kDebug, "Set AVL balance done.");
  return 0;
}

int vorn_insert_avl_node_specified(vorn_avl_tree_s *tree, void *record, void *here,
                                   unsigned int direction) {
  if (tree == nullptr || record == nullptr || here == nullptr) return VORN_FAIL(-1, "NULL POINTER");
  if (direction > kRight) return VORN_FAIL(-1, "Invalid Param");

  Place place{node_of(tree, here), direction};
  Node *child = place.parent->children[direction];
  if (child != nullptr) place = {outermost(child, opposite(direction)), opposite(direction)};
  const int result = vorn_insert_avl_node(tree, record, position(place));
  if (result != 0)
    VORN_LOG(vorn::kError, "InsertAvlNode fail: avl_tree=%p, new_node=%p, here=%p, direction=%d.",
             static_cast<void *>(tree), record, here, static_cast<int>(direction));
  return result;
}

int vorn_remove_avl_node(vorn_avl_tree_s *tree, void *record) {
  if (tree == nullptr || record == nullptr) return VORN_FAIL(0, "NULL POINTER");
  --tree->node_count;
  const Place place = unlink(tree, node_of(tree, record));
  if (tree->root == nullptr) {
    VORN_LOG(vorn::kDebug, "Remove node not need set balance.");
    return 0;
  }
  retrace_removal(tree, place);
  return 0;
}

void *vorn_walk_avl_node(vorn_avl_tree_s *tree, void *record, unsigned int direction) {
  if (tree == nullptr || record == nullptr) return VORN_FAIL(nullptr, "NULL POINTER");
  return record_or_null(tree, neighbour(node_of(tree, record), side_of(direction)));
}

void *vorn_find_avl_nearest_node(vorn_avl_tree_s *tree, unsigned long where,
                                 unsigned int direction) {
  if (tree == nullptr) return VORN_FAIL(nullptr, "NULL POINTER");
  const Place place = place_at(where);
  if (place.parent == nullptr) return nullptr;
  if (place.side != side_of(direction)) return record_of(tree, place.parent);
  return record_or_null(tree, neighbour(place.parent, place.side));
}

void *vorn_get_avl_first_node(vorn_avl_tree_s *tree) {
  if (tree == nullptr) return VORN_FAIL(nullptr, "NULL POINTER");
  return tree->root == nullptr ? nullptr : record_of(tree, outermost(tree->root, kLeft));
}

void *vorn_get_avl_last_node(vorn_avl_tree_s *tree) {
  if (tree == nullptr) return VORN_FAIL(nullptr, "NULL POINTER");
  return tree->root == nullptr ? nullptr : record_of(tree, outermost(tree->root, kRight));
}

int64_t vorn_get_avl_node_num(vorn_avl_tree_s *tree) {
  if (tree == nullptr) return VORN_FAIL(-1, "NULL POINTER");
  return static_cast<int64_t>(tree->node_count);
}
