// Implements the red-black tree.
//
// An insertion links a red node. While its parent is red too:
//   1. If the uncle is red, both become black and the grandparent red; go on with the grandparent.
//   2. Otherwise one or two rotations put a black node above two red ones, and end the repair.
// An erasure takes a node with at most one child out of the tree. If the node was black:
//   3. If a red node is in its place now, it becomes black, which ends the repair.
//   4. Otherwise a rotation replaces a red sibling by a black one. If both children of the sibling
//      are black, it becomes red, and the repair goes on with the parent.
//   5. If not, one or two rotations restore the black node, and end the repair.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_rbtree.h"

#include <cstddef>

namespace vorn::rbtree {
namespace {

using Node = vorn_rb_node_s;
using Root = vorn_rb_root_s;
using Child = Node *Node::*;

static_assert(offsetof(Node, parent_color) == 0);
static_assert(offsetof(Node, right) == sizeof(void *));
static_assert(offsetof(Node, left) == 2 * sizeof(void *));
static_assert(sizeof(Node) == 3 * sizeof(void *) && alignof(Node) > VORN_RB_COLOR_MASK);
static_assert(sizeof(Root) == sizeof(void *));

bool is_red(const Node *node) { return (node->parent_color & VORN_RB_BLACK) == 0; }
bool is_black_or_empty(const Node *node) { return node == nullptr || !is_red(node); }

unsigned long color_of(const Node *node) { return node->parent_color & VORN_RB_BLACK; }
unsigned long address(const Node *node) { return reinterpret_cast<unsigned long>(node); }

void set_parent(Node *node, const Node *parent) {
  node->parent_color = address(parent) | color_of(node);
}
void set_parent_if_any(Node *node, const Node *parent) {
  if (node != nullptr) set_parent(node, parent);
}
void set_red(Node *node) { node->parent_color = address(vorn_rb_parent(node)); }
void set_black(Node *node) { node->parent_color = address(vorn_rb_parent(node)) | VORN_RB_BLACK; }

// Returns the link of parent, or of the root, to child.
Node **slot_of(const Node *child, Node *parent, Root *root) {
  if (parent == nullptr) return &root->node;
  return parent->left == child ? &parent->left : &parent->right;
}

// Returns the last node down that side, or NULL for an empty subtree.
template <Child kSide> Node *outermost(Node *node) {
  while (node != nullptr && node->*kSide != nullptr)
    node = node->*kSide;
  return node;
}

// Returns the next node in order towards side kFar.
template <Child kNear, Child kFar> Node *neighbour(const Node *node) {
  if (vorn_rb_is_clear(node)) return nullptr;
  if (node->*kFar != nullptr) return outermost<kNear>(node->*kFar);
  Node *parent = vorn_rb_parent(node);
  while (parent != nullptr && parent->*kFar == node) {
    node = parent;
    parent = vorn_rb_parent(node);
  }
  return parent;
}

// Rotates top down to side kNear; its child on side kFar takes its place. Keeps the colours.
template <Child kNear, Child kFar> void rotate(Node *top, Root *root) {
  Node *riser = top->*kFar;
  Node *between = riser->*kNear;
  Node *parent = vorn_rb_parent(top);
  *slot_of(top, parent, root) = riser;
  set_parent(riser, parent);
  riser->*kNear = top;
  set_parent(top, riser);
  top->*kFar = between;
  set_parent_if_any(between, top);
}

// Repairs a red node with a red parent, which is grand's child on side kNear. Returns the node that
// may now be red below a red parent, or NULL.
template <Child kNear, Child kFar>
Node *part_reds(Node *node, Node *parent, Node *grand, Root *root) {
  Node *uncle = grand->*kFar;
  if (!is_black_or_empty(uncle)) {
    set_black(parent);
    set_black(uncle);
    set_red(grand);
    return grand;
  }
  if (node == parent->*kFar) {
    rotate<kNear, kFar>(parent, root);
    parent = node;
  }
  set_black(parent);
  set_red(grand);
  rotate<kFar, kNear>(grand, root);
  return nullptr;
}

// Repairs the paths below parent on side kNear, which lack a black node. Returns the node whose
// paths lack one after that, or NULL.
template <Child kNear, Child kFar> Node *even_out(Node *parent, Root *root) {
  Node *sibling = parent->*kFar;
  if (is_red(sibling)) {
    set_black(sibling);
    set_red(parent);
    rotate<kNear, kFar>(parent, root);
    sibling = parent->*kFar;
  }

  const bool is_outer_black = is_black_or_empty(sibling->*kFar);
  if (is_outer_black && is_black_or_empty(sibling->*kNear)) {
    set_red(sibling);
    return parent;
  }
  if (is_outer_black) {
    set_red(sibling);
    rotate<kFar, kNear>(sibling, root);
    sibling = parent->*kFar;
  }
  sibling->parent_color = address(vorn_rb_parent(sibling)) | color_of(parent);
  set_black(parent);
  set_black(sibling->*kFar);
  rotate<kNear, kFar>(parent, root);
  return nullptr;
}

// Repairs the paths through node, a child of parent that may be NULL, after the loss of a black
// node.
void restore_black(Node *node, Node *parent, Root *root) {
  while (parent != nullptr && is_black_or_empty(node)) {
    node = node == parent->left ? even_out<&Node::left, &Node::right>(parent, root)
                                : even_out<&Node::right, &Node::left>(parent, root);
    if (node == nullptr) return;
    parent = vorn_rb_parent(node);
  }
  if (node != nullptr) set_black(node);
}

// Walks up to the top node, and visits the other child of each level too: a rotation may have moved
// it there.
void update_path(Node *node, vorn_rb_augment_f fn, void *data) {
  fn(node, data);
  while (Node *parent = vorn_rb_parent(node)) {
    const bool has_right_sibling = node == parent->left && parent->right != nullptr;
    Node *other = has_right_sibling ? parent->right : parent->left;
    if (other != nullptr) fn(other, data);
    fn(parent, data);
    node = parent;
  }
}

// node is linked as a red leaf.
void restore_colors(Node *node, Root *root) {
  while (node != nullptr) {
    Node *parent = vorn_rb_parent(node);
    if (parent == nullptr || !is_red(parent)) break;
    Node *grand = vorn_rb_parent(parent); // exists, because the top node is black
    node = parent == grand->left ? part_reds<&Node::left, &Node::right>(node, parent, grand, root)
                                 : part_reds<&Node::right, &Node::left>(node, parent, grand, root);
  }
  set_black(root->node);
}

void erase(Node *node, Root *root) {
  Node *parent = vorn_rb_parent(node);
  Node **slot = slot_of(node, parent, root);
  unsigned long lost = color_of(node);
  Node *child;
  if (node->left == nullptr || node->right == nullptr) {
    child = node->left != nullptr ? node->left : node->right;
    set_parent_if_any(child, parent);
    *slot = child;
  } else {
    Node *successor = outermost<&Node::left>(node->right);
    lost = color_of(successor);
    child = successor->right;
    parent = vorn_rb_parent(successor);
    if (parent == node) {
      parent = successor;
    } else {
      parent->left = child;
      set_parent_if_any(child, parent);
      successor->right = node->right;
      set_parent(successor->right, successor);
    }
    successor->left = node->left;
    set_parent(successor->left, successor);
    successor->parent_color = node->parent_color;
    *slot = successor;
  }
  if (lost == VORN_RB_BLACK) restore_black(child, parent, root);
}

// The nodes that rebalancing moved below a new node are on the path up from a child of it.
Node *lowest_changed_by_insert(Node *node) {
  if (node->left != nullptr) return node->left;
  return node->right != nullptr ? node->right : node;
}

Node *lowest_changed_by_erase(Node *node) {
  if (node->left == nullptr && node->right == nullptr) return vorn_rb_parent(node);
  if (node->left == nullptr) return node->right;
  if (node->right == nullptr) return node->left;
  Node *successor = outermost<&Node::left>(node->right);
  if (successor->right != nullptr) return successor->right;
  Node *parent = vorn_rb_parent(successor);
  return parent == node ? successor : parent;
}

} // namespace
} // namespace vorn::rbtree

using namespace vorn::rbtree;

void vorn_rb_insert_color(vorn_rb_node_s *node, vorn_rb_root_s *root) {
  restore_colors(node, root);
}

void vorn_rb_erase(vorn_rb_node_s *node, vorn_rb_root_s *root) { erase(node, root); }

vorn_rb_node_s *vorn_rb_first(const vorn_rb_root_s *root) {
  return outermost<&vorn_rb_node_s::left>(root->node);
}

vorn_rb_node_s *vorn_rb_last(const vorn_rb_root_s *root) {
  return outermost<&vorn_rb_node_s::right>(root->node);
}

vorn_rb_node_s *vorn_rb_next(const vorn_rb_node_s *node) {
  return neighbour<&vorn_rb_node_s::left, &vorn_rb_node_s::right>(node);
}

vorn_rb_node_s *vorn_rb_prev(const vorn_rb_node_s *node) {
  return neighbour<&vorn_rb_node_s::right, &vorn_rb_node_s::left>(node);
}

void vorn_rb_replace_node(vorn_rb_node_s *victim, vorn_rb_node_s *fresh, vorn_rb_root_s *root) {
  *slot_of(victim, vorn_rb_parent(victim), root) = fresh;
  set_parent_if_any(victim->left, fresh);
  set_parent_if_any(victim->right, fresh);
  *fresh = *victim;
}

void vorn_rb_augment_insert(vorn_rb_node_s *node, vorn_rb_augment_f fn, void *data) {
  update_path(lowest_changed_by_insert(node), fn, data);
}

vorn_rb_node_s *vorn_rb_augment_erase_begin(vorn_rb_node_s *node) {
  return lowest_changed_by_erase(node);
}

void vorn_rb_augment_erase_end(vorn_rb_node_s *node, vorn_rb_augment_f fn, void *data) {
  if (node != nullptr) update_path(node, fn, data);
}
