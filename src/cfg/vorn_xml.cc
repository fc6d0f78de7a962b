// Exports Mini-XML's calls under this library's own names.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_xml.h"

#include "base/cancellation_guard.hpp"

mxml_node_t *vorn_xml_loadfd(mxml_node_t *top, int fd, mxml_load_cb_t cb) {
  const vorn::CancellationGuard off; // a cancelled thread would lose the tree
  return mxmlLoadFd(top, fd, cb);
}

mxml_node_t *vorn_xml_getfirstchild(mxml_node_t *node) { return mxmlGetFirstChild(node); }

mxml_node_t *vorn_xml_getnextsibling(mxml_node_t *node) { return mxmlGetNextSibling(node); }

const char *vorn_xml_element_getattr(mxml_node_t *node, const char *name) {
  return mxmlElementGetAttr(node, name);
}

mxml_node_t *vorn_xml_findelement(mxml_node_t *node, mxml_node_t *top, const char *element,
                                  const char *attr, const char *value, int descend) {
  return mxmlFindElement(node, top, element, attr, value, descend);
}

mxml_node_t *vorn_xml_findpath(mxml_node_t *node, const char *path) {
  return mxmlFindPath(node, path);
}

void vorn_xml_del(mxml_node_t *node) { mxmlDelete(node); }
