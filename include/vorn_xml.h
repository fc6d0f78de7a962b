/* XML documents: wrappers for the functions of Mini-XML that read a document and walk it. Each
 * passes its arguments on unchanged and returns what Mini-XML returns. The documentation of
 * Mini-XML (www.msweet.org/mxml) defines them.
 *
 * A service that uses these functions needs the header <mxml.h>. It must link libmxml if it calls
 * Mini-XML itself, for the text of a node or for a load callback.
 *
 * Any thread may call these functions, but while a thread loads into a document or deletes from it,
 * no other thread may use that document. None is safe in a signal handler. Only vorn_xml_loadfd
 * blocks, as long as fd blocks; it is not a cancellation point, and neither is a function that its
 * callback calls. The functions log nothing: Mini-XML reports what it cannot read through the
 * calling thread's error callback, or on standard error if none is set. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_XML_H
#define VORN_XML_H

#include <mxml.h>

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Reads a document from fd, which stays open, and adds it below top, or makes a new tree if top is
 * NULL: mxmlLoadFd. cb returns the type of the data below an element; if it is NULL
 * (MXML_NO_CALLBACK), the data is text.
 *   top: node to add the document below, or NULL
 *   fd: descriptor to read from
 *   cb: function that returns the type of data, or NULL
 * Returns top, or the first node of the new tree, which the caller deletes with vorn_xml_del; NULL
 * if there is no document or it is damaged. */
VORN_API mxml_node_t *vorn_xml_loadfd(mxml_node_t *top, int fd, mxml_load_cb_t cb);

/* Finds the first child of an element: mxmlGetFirstChild. The document owns it.
 *   node: the node
 * Returns the child; NULL if there is none, node is not an element, or node is NULL. */
VORN_API mxml_node_t *vorn_xml_getfirstchild(mxml_node_t *node);

/* Finds the next node below the same parent: mxmlGetNextSibling. The document owns it.
 *   node: the node
 * Returns the next node; NULL if there is none or node is NULL. */
VORN_API mxml_node_t *vorn_xml_getnextsibling(mxml_node_t *node);

/* Finds the value of an element's attribute: mxmlElementGetAttr. The element owns it; it is valid
 * until the element or the attribute changes.
 *   node: the node
 *   name: name of the attribute
 * Returns the value; NULL if there is none, node is not an element, or an argument is NULL. */
VORN_API const char *vorn_xml_element_getattr(mxml_node_t *node, const char *name);

/* Finds the next element after node in the tree below top that has this name and an attribute with
 * this name and value: mxmlFindElement. NULL matches any. descend selects the children to search:
 * MXML_DESCEND all, MXML_NO_DESCEND none, MXML_DESCEND_FIRST only those of node. The document owns
 * the element.
 *   node: node to begin after
 *   top: element to search below
 *   element: name of the element, or NULL for any
 *   attr: name of the attribute, or NULL for any
 *   value: value of the attribute, or NULL for any
 *   descend: MXML_DESCEND, MXML_NO_DESCEND or MXML_DESCEND_FIRST
 * Returns the element; NULL if there is none, if node or top is NULL, or if value is set without
 * attr. */
VORN_API mxml_node_t *vorn_xml_findelement(mxml_node_t *node, mxml_node_t *top, const char *element,
                                           const char *attr, const char *value, int descend);

/* Finds the node at a path of element names below node, such as "a/b"; "*" matches elements of any
 * name: mxmlFindPath. The result is the first child of the last element if that child is a value;
 * otherwise, the last element. The document owns it.
 *   node: node to begin below
 *   path: element names separated by slashes
 * Returns the node; NULL if there is none, an argument is NULL, or path is empty. */
VORN_API mxml_node_t *vorn_xml_findpath(mxml_node_t *node, const char *path);

/* Removes a node from its document, and frees it and all nodes below it: mxmlDelete. Does nothing
 * if node is NULL.
 *   node: node to delete */
VORN_API void vorn_xml_del(mxml_node_t *node);

VORN_END_DECLS

#endif
