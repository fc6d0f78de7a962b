/* XML documents: Mini-XML's calls under names of this library, for reading a document and walking
 * it. Each passes its arguments on as they are and returns what Mini-XML returns; its documentation
 * (www.msweet.org/mxml) is what defines them.
 *
 * A service that uses these needs the header <mxml.h>, and links libmxml where it calls Mini-XML
 * itself, for the text of a node or a load callback.
 *
 * Any thread may call, two threads not on the same document while one of them loads into it or
 * deletes from it. Nothing here is safe in a signal handler; vorn_xml_loadfd alone blocks, for as
 * long as fd does, and it is no cancellation point, nor is anything in its callback. No message is
 * logged: Mini-XML reports what it cannot read through the calling thread's error callback, on
 * standard error where none was set. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_XML_H
#define VORN_XML_H

#include <mxml.h>

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* mxmlLoadFd: reads the document from fd, which stays open, and adds it below top (NULL: a tree of
 * its own). cb tells the type of the data below an element; NULL, which is MXML_NO_CALLBACK, makes
 * them text.
 *   top: node to add the document below, or NULL
 *   fd: descriptor to read from
 *   cb: function that tells the type of data, or NULL
 * Returns top, or the first node of the new tree, which the caller deletes with vorn_xml_del; NULL
 * when there is no document or it is damaged. */
VORN_API mxml_node_t *vorn_xml_loadfd(mxml_node_t *top, int fd, mxml_load_cb_t cb);

/* Finds the first child of an element: mxmlGetFirstChild. It belongs to its document.
 *   node: the node
 * Returns the node; NULL without one, for a node of another type, and for NULL. */
VORN_API mxml_node_t *vorn_xml_getfirstchild(mxml_node_t *node);

/* Finds the node after this one below the same parent: mxmlGetNextSibling. It belongs to its
 * document.
 *   node: the node
 * Returns the node; NULL without one and for NULL. */
VORN_API mxml_node_t *vorn_xml_getnextsibling(mxml_node_t *node);

/* Finds the value of an element's attribute: mxmlElementGetAttr. It belongs to the element and
 * lasts until that or the attribute changes.
 *   node: the node
 *   name: name of the attribute
 * Returns the value; NULL without one, for a node of another type, and when an argument is NULL. */
VORN_API const char *vorn_xml_element_getattr(mxml_node_t *node, const char *name);

/* Finds the next element after node in the tree below top that has this name, this attribute and
 * this value of it; NULL takes any: mxmlFindElement. descend says how far: MXML_DESCEND into all
 * children, MXML_NO_DESCEND into none, MXML_DESCEND_FIRST into those of node alone. The element
 * belongs to its document.
 *   node: node to begin after
 *   top: element to search below
 *   element: name of the element, or NULL for any
 *   attr: name of the attribute, or NULL for any
 *   value: value of the attribute, or NULL for any
 *   descend: MXML_DESCEND, MXML_NO_DESCEND or MXML_DESCEND_FIRST
 * Returns the element; NULL when there is none, when node or top is NULL, and for a value without
 * an attribute. */
VORN_API mxml_node_t *vorn_xml_findelement(mxml_node_t *node, mxml_node_t *top, const char *element,
                                           const char *attr, const char *value, int descend);

/* Finds the node at a path of element names below node, such as "a/b"; "*" stands for elements of
 * any name: mxmlFindPath. It is the first child of the last element where that is a value,
 * otherwise the element. It belongs to its document.
 *   node: node to begin below
 *   path: element names between slashes
 * Returns the node; NULL when there is none, when an argument is NULL, and for an empty path. */
VORN_API mxml_node_t *vorn_xml_findpath(mxml_node_t *node, const char *path);

/* mxmlDelete: takes a node out of its document and releases it and all below. NULL is passed over.
 *   node: node to release */
VORN_API void vorn_xml_del(mxml_node_t *node);

VORN_END_DECLS

#endif
