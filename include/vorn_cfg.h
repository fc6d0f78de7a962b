/* INI configuration files: a registry that keeps parsed files in memory and answers lookups from
 * them, one-shot reads, and edits that rewrite a file on disk.
 *
 * Syntax of a file: "[name]" at the start of a line opens a section, and "key=value" sets an item.
 * Blanks around name, key and value are ignored. Names consist of ASCII letters, digits and "_",
 * have at most 63 characters and are case-sensitive. A value is everything after the first "=" and
 * has at most 4194303 characters (VORN_CFG_VALUE_MAX); it cannot be quoted or followed by a
 * comment. The parser ignores lines that begin with ";" or "=", and lines that are neither a
 * section nor an item. Items before the first section header belong to the section "NULL". The
 * parser cuts a line at a NUL, removes carriage returns, and reads a line of more than 4194369
 * bytes as several lines.
 *
 * If a section header is repeated, it continues the first section. If an item is repeated in its
 * section, it replaces the earlier one; only vorn_cfg_getItemFromFile returns the first. A section
 * header without items creates no section.
 *
 * The path, as the caller passes it, identifies a file: two paths to one file count as two files.
 * Only regular files and devices are read; for a directory, a FIFO or a file that cannot be read
 * the functions return -1.
 *
 * Any thread may call these functions. None is safe in a signal handler. Calls block on the file
 * system and on the locks below while another thread holds them; edits also wait for other edits of
 * the same file in any process. No function is a cancellation point, not even while it waits or
 * runs the callback of an edit: a cancellation acts after the call. A child of fork() may make all
 * of these calls, whatever the library's threads in the parent were doing. Functions return 0, or
 * log a message and return -1, unless they say otherwise. Text arguments must end in a NUL; the
 * caller keeps ownership of them. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_CFG_H
#define VORN_CFG_H

#include "vorn_api.h"
#include "vorn_list.h"
#include "vorn_rwlock.h"

VORN_BEGIN_DECLS

#define VORN_CFG_PATH_SIZE 256u      /* size of a path in bytes, with its NUL */
#define VORN_CFG_NAME_SIZE 64u       /* size of a section or item name in bytes, with its NUL */
#define VORN_CFG_VALUE_MAX 0x3FFFFFu /* most characters of a value in a file */
#define VORN_CFG_SHORT_SIZE 256u     /* size of a value in vorn_cfg_item_s in bytes, with its NUL */

/* The buffer is too small for the value. */
#define VORN_CFG_TOO_SMALL (-10000)

/* An item of a section. */
typedef struct vorn_cfg_item_node {
  vorn_list_head_s link;         /* in the section's items */
  char name[VORN_CFG_NAME_SIZE]; /* the text before the "=" */
  char *value;                   /* a block from vorn_malloc, owned by the item */
} vorn_cfg_item_node_s;

/* A section of a file. */
typedef struct vorn_cfg_section_node {
  vorn_list_head_s link;         /* in the file's sections */
  vorn_list_head_s items;        /* in the file's order */
  char name[VORN_CFG_NAME_SIZE]; /* the text between the brackets */
} vorn_cfg_section_node_s;

/* A parsed file. */
typedef struct vorn_cfg_file_node {
  vorn_list_head_s link;         /* in the registry, newest first */
  vorn_list_head_s sections;     /* in the file's order */
  char path[VORN_CFG_PATH_SIZE]; /* as the caller passed it */
  vorn_rwlock_s lock;            /* of the sections, the items and the index */
  uint32_t reference_count;      /* calls of vorn_cfg_init not yet undone; 0: not registered */
  struct vorn_cfg_index *index;  /* private; NULL in a node that a caller builds */
} vorn_cfg_file_node_s;

/* The result of a one-shot read. */
typedef struct vorn_cfg_item {
  char name[VORN_CFG_NAME_SIZE];   /* the item's name */
  char value[VORN_CFG_SHORT_SIZE]; /* its value */
} vorn_cfg_item_s;

/* The parameters of an edit. A field that the edit does not need is NULL. */
typedef struct vorn_cfg_oper_param {
  const char *path;    /* the file to edit */
  const char *section; /* the section in it */
  const char *item;    /* the item in the section */
  const char *value;   /* the item's new value */
} vorn_cfg_oper_param_s;

/* Changes a parsed file. Returns 0; another value cancels the edit. */
typedef int (*vorn_cfg_edit_f)(vorn_cfg_file_node_s *node, const char *section, const char *item,
                               const char *value);

/* The kinds of lines. */
enum {
  VORN_CFG_LINE_SECTION = 0, /* a section header */
  VORN_CFG_LINE_ITEM = 1,
  VORN_CFG_LINE_COMMENT = 2, /* begins with ";" or "=" */
  VORN_CFG_LINE_BLANK = 3,   /* nothing but blanks */
  VORN_CFG_LINE_IGNORED = 4  /* none of these; a user has probably made a mistake */
};

/* A line of a file. */
typedef struct vorn_cfg_line {
  uint64_t number;     /* in the file, from 1 */
  int kind;            /* VORN_CFG_LINE_* */
  const char *section; /* the section that a header names or any other line is in */
  const char *item;    /* an item's name; NULL in another line */
  const char *value;   /* an item's value; NULL in another line */
  const char *text;    /* the line without blanks at its end; NULL for a header and an item */
} vorn_cfg_line_s;

/* Handles a line. The line and its texts are valid until the function returns. Returns 0; another
 * value ends the walk. */
typedef int (*vorn_cfg_walk_f)(void *context, const vorn_cfg_line_s *line);

/* Guards the list of registered files. A thread that edits a registered file holds this lock for
 * writing too: vorn_cfg_getItemValue reads the values under it alone. Take it before the lock of a
 * file, never after it.
 *
 * If a thread waits to change the registry, the lookups here let it go first, for at most 10 ms, so
 * that a writer gets in however many threads look up. A thread that holds the lock for reading may
 * look up, with that delay. A service that takes this lock must ensure that no thread holds it
 * during a fork(): in the child it would stay locked forever. */
VORN_API extern vorn_rwlock_s g_stCfgRwlock;

/* --- The registry --- */

/* Parses the file and registers it. If the path is already registered, reads the file again: the
 * new content replaces the old one, the file becomes the newest, and its removal needs one more
 * vorn_cfg_destroy_ex.
 *   path: path of the file
 * Returns 0; logs a message and returns -1 if the file cannot be read, and leaves the registry
 * unchanged. */
VORN_API int vorn_cfg_init(const char *path);

/* Does what vorn_cfg_init does.
 *   path: path of the file
 * Returns what vorn_cfg_init returns. */
VORN_API int vorn_cfg_init_ex(const char *path);

/* Removes every file from the registry, however often it was registered.
 * Returns 0. */
VORN_API int vorn_cfg_destroy(void);

/* Undoes one vorn_cfg_init of the path. The last call removes the file from the registry.
 *   path: path of the file
 * Returns 0, also if the path is not registered. */
VORN_API int vorn_cfg_destroy_ex(const char *path);

/* Copies the value of an item, with its NUL, to buf, which has room for size bytes. Searches all
 * registered files, the newest first. Finds nothing if buf is NULL.
 *   section: name of the section
 *   item: name of the item
 *   buf: where the value goes
 *   size: bytes at buf
 * Returns 0. Logs an error and returns VORN_CFG_TOO_SMALL if the first item found does not fit.
 * Logs a rate-limited warning and returns -1 if there is no such item; returns -1 if section or
 * item is NULL or size is 0. Leaves buf unchanged on failure. */
VORN_API int vorn_cfg_getItemValue(const char *section, const char *item, char *buf,
                                   unsigned int size);

/* Copies the value of an item as vorn_cfg_getItemValue does, from one registered file.
 *   path: path of the file
 *   section: name of the section
 *   item: name of the item
 *   buf: where the value goes
 *   size: bytes at buf
 * Returns what vorn_cfg_getItemValue returns; -1 without a log message if the file does not have
 * the item. */
VORN_API int vorn_cfg_getItemValue_ex(const char *path, const char *section, const char *item,
                                      char *buf, unsigned int size);

/* Sets the value of an existing item in memory; writes no file. Changes the newest registered file
 * that has the item.
 *   section: name of the section
 *   item: name of the item
 *   value: value of the item
 * Returns 0; -1 without a log message if no file has the item; on another failure, logs an error
 * and returns -1. */
VORN_API int vorn_cfg_setItemValue(const char *section, const char *item, const char *value);

/* Sets the value of an existing item of one registered file in memory; writes no file.
 *   path: path of the file
 *   section: name of the section
 *   item: name of the item
 *   value: value of the item
 * Returns 0; on failure, logs an error and returns -1. */
VORN_API int vorn_cfg_setItemValue_ex(const char *path, const char *section, const char *item,
                                      const char *value);

/* Calls visit(context, line) for each line of a registered file, in the order of the file. Visits
 * repeated headers and items each time, and headers without items, so that the caller can name the
 * line of a mistake. The lines are as the parser sees them: cut at a NUL, without carriage returns.
 * A line that the parser reads as several lines is visited as often, each time with its number.
 *
 * The registry keeps no lines, so this function reads the file again. If the file was edited after
 * it was registered, visit gets the lines of the edited file; lookups still return the registered
 * values, and those that were set in memory. Takes no lock on the file: it may read a half-written
 * file while vorn_cfg_write_item_to_file runs.
 *
 * The function holds no lock while visit runs: visit may call any function of this header, also to
 * edit the file or to unregister it. After an edit in place, visit may get old or new lines. visit
 * must return: it must not call longjmp(3) or pthread_exit(3). This function is an addition
 * (docs/compatibility.md).
 *   path: path of the file, as it was registered
 *   visit: function that handles each line
 *   context: first argument of visit
 * Returns 0 after the last line, or the value of visit that ended the walk. Logs an error and
 * returns -1 if path or visit is NULL, the file is not registered or it cannot be read; visit may
 * have got some of the lines then. */
VORN_API int vorn_cfg_walk(const char *path, vorn_cfg_walk_f visit, void *context);

/* --- One-shot reads, which do not use the registry --- */

/* Finds the first item with this name in the file.
 *   path: path of the file
 *   section: name of the section
 *   item: name of the item
 *   out: where the item goes
 * Returns 0 and fills *out. Returns -1 if there is no such item or the file cannot be read; logs an
 * error and returns -1 if the value has more than 255 characters. Leaves *out unchanged on failure.
 * Takes no lock on the file: it may read a half-written file while vorn_cfg_write_item_to_file
 * runs. */
VORN_API int vorn_cfg_getItemFromFile(const char *path, const char *section, const char *item,
                                      vorn_cfg_item_s *out);

/* --- Edits on disk ---
 *
 * Edits of one file, in all threads and processes, exclude each other with an exclusive flock(2),
 * so that no edit is lost. An edit keeps only section headers and items: it removes comments, blank
 * lines and every other line that the parser ignores, and it puts items before the first header
 * under the header "[NULL]".
 *
 * An edit refuses a section, item or value that contains a line feed or a carriage return. It
 * writes every other name as passed, but a name with anything other than letters, digits and "_"
 * cannot be read back. Of a value of more than VORN_CFG_VALUE_MAX characters, a reader takes the
 * rest as further lines. Blanks at the ends of a value are lost when it is read back. */

/* Sets an item. Creates the file (mode 0600), the section or the item if it is missing. The
 * function builds the whole new text and then overwrites the file in place: a crash at that moment
 * may leave the file damaged, other links to the file stay valid, and the registry does not change.
 *
 * The function sets the item at its first place in its section. By design, it also sets every other
 * item with this name, in any section, that is not the first item of its section; one of these
 * alone counts as setting the item. A section that occurs several times in the file keeps all its
 * headers. A new item goes after the first part of its section. Items of a section with an empty
 * name lose their header if no other section precedes it.
 *   path: path of the file
 *   section: name of the section
 *   item: name of the item
 *   value: value of the item
 * Returns 0. Logs an error and returns 22 (EINVAL) if the new text is more than 4 MiB longer than
 * the file; returns -1 on another failure. Leaves the file unchanged on failure. If the system cuts
 * a write short, logs that and still returns 0. If a name has more than 63 characters, closes
 * descriptor 0 and returns -1. */
VORN_API int vorn_cfg_write_item_to_file(const char *path, const char *section, const char *item,
                                         const char *value);

/* Adds a new item, and its section if that is missing, at the end.
 *
 * This edit and the three after it write a temporary file, path followed by ".temp", sync it, and
 * rename it over the target: a crash at any moment leaves either the old file or the new one
 * complete. The new file has the owner, the group and the mode of the old one. If the path is
 * registered, the registry takes over the new content, and values that were set only in memory are
 * lost. The file must exist, and the new text must not exceed 4 MiB. If path is a symbolic link,
 * the new file replaces the link, and its target stays unchanged. Other links to the old file also
 * keep the old content.
 *   path: path of the file
 *   section: name of the section
 *   item: name of the item
 *   value: value of the item
 * Returns 0; -1 on failure, which leaves the file unchanged. */
VORN_API int vorn_cfg_file_addItem(const char *path, const char *section, const char *item,
                                   const char *value);

/* Removes an item, and its section if that has no other item. Writes the file as
 * vorn_cfg_file_addItem does.
 *   path: path of the file
 *   section: name of the section
 *   item: name of the item
 * Returns 0; -1 on failure, which leaves the file unchanged. */
VORN_API int vorn_cfg_file_delItem(const char *path, const char *section, const char *item);

/* Removes a section with all its items. Writes the file as vorn_cfg_file_addItem does.
 *   path: path of the file
 *   section: name of the section
 * Returns 0; -1 on failure, which leaves the file unchanged. */
VORN_API int vorn_cfg_file_delSection(const char *path, const char *section);

/* Sets the value of an existing item. Writes the file as vorn_cfg_file_addItem does.
 *   path: path of the file
 *   section: name of the section
 *   item: name of the item
 *   value: value of the item
 * Returns 0; -1 on failure, which leaves the file unchanged. */
VORN_API int vorn_cfg_file_setItemValue(const char *path, const char *section, const char *item,
                                        const char *value);

/* Carries out an edit: parses param->path, calls v_pfnProc to change the parsed file, and replaces
 * the file. The caller owns fd, a descriptor of the file, which stays locked during the edit. If
 * the path now names another file, the function opens, locks and edits that file instead. v_pfnProc
 * gets the section, item and value of param. It must not keep the node or edit the file.
 *   fd: descriptor of the file, open for reading and writing
 *   param: parameters of the edit
 *   v_pfnProc: function that edits the parsed file
 * Returns 0; -1 on failure, which leaves the file unchanged. */
VORN_API int vorn_cfg_file_writeOperate(int fd, vorn_cfg_oper_param_s *param,
                                        vorn_cfg_edit_f v_pfnProc);

/* Adds a new item, and its section if that is missing. This function and the three after it are
 * callbacks for vorn_cfg_file_writeOperate. Each takes the node's lock for writing, so the caller
 * must not hold it. None uses an argument that its edit does not need.
 *   node: parsed file to edit
 *   section: name of the section
 *   item: name of the item
 *   value: value of the item
 * Returns 0; -1 on failure, which leaves the node unchanged. */
VORN_API int vorn_cfg_add_item_func(vorn_cfg_file_node_s *node, const char *section,
                                    const char *item, const char *value);

/* Sets the value of an existing item. Locks the node as vorn_cfg_add_item_func does.
 *   node: parsed file to edit
 *   section: name of the section
 *   item: name of the item
 *   value: the new value
 * Returns 0; -1 on failure, which leaves the node unchanged. */
VORN_API int vorn_cfg_set_item_func(vorn_cfg_file_node_s *node, const char *section,
                                    const char *item, const char *value);

/* Removes an item, and its section if that has no other item. Locks the node as
 * vorn_cfg_add_item_func does.
 *   node: parsed file to edit
 *   section: name of the section
 *   item: name of the item
 *   value: not used
 * Returns 0; -1 on failure, which leaves the node unchanged. */
VORN_API int vorn_cfg_del_item_func(vorn_cfg_file_node_s *node, const char *section,
                                    const char *item, const char *value);

/* Removes a section with all its items. Locks the node as vorn_cfg_add_item_func does.
 *   node: parsed file to edit
 *   section: name of the section
 *   item: not used
 *   value: not used
 * Returns 0; -1 on failure, which leaves the node unchanged. */
VORN_API int vorn_cfg_del_section_func(vorn_cfg_file_node_s *node, const char *section,
                                       const char *item, const char *value);

/* Creates an item with copies of name (at most 63 characters) and value. Its link points to itself.
 *   name: name of the item
 *   value: value of the item
 * Returns the item. The caller puts it into a section, or frees its value and then the item with
 * vorn_free. On failure, logs an error and returns NULL. */
VORN_API vorn_cfg_item_node_s *vorn_cfg_new_item_node_ex(const char *name, const char *value);

/* Creates the temporary file of an edit, with the owner, the group and the mode of the file of fd.
 * Removes a temporary file that an earlier edit left.
 *   path: path of the file
 *   fd: descriptor of the file, open for reading and writing
 *   tmpName: where the name of the temporary file goes
 * Returns a descriptor, which the caller closes, and stores the file's name in *tmpName, which the
 * caller frees with vorn_free. On failure, returns -1 and leaves *tmpName unchanged. */
VORN_API int vorn_cfg_create_tmpfile(const char *path, int fd, char **tmpName);

/* Replaces the whole content of the file of fd with the text of node. Holds the node's lock for
 * writing while it builds the text.
 *   fd: descriptor of the file, open for reading and writing
 *   node: parsed file
 * Returns 0; on failure, logs an error and returns -1. */
VORN_API int vorn_cfg_writeFnodeTofile(int fd, vorn_cfg_file_node_s *node);

/* Replaces the registered file that has the path of node with node, a block from vorn_malloc, and
 * destroys the old one. The registry then owns node.
 *   node: parsed file that replaces the registered one
 * Returns 0; -1 without a log message if no such file is registered, and the caller still owns
 * node. */
VORN_API int vorn_cfg_updateFileNode(vorn_cfg_file_node_s *node);

/* --- Text --- */

/* Copies at most srcLen characters from src to dst, up to the first for which isprint(3) returns 0
 * (a NUL is one), and appends a NUL. If srcLen is below 1, the copy is empty.
 *   src: text to copy
 *   srcLen: most characters to copy
 *   dst: where the copy goes
 *   dstSize: bytes at dst
 * Returns 0; -1 if dstSize is below 1 or not greater than srcLen; logs an error and returns -1 if a
 * pointer is NULL. */
VORN_API int vorn_remove_noneprint_characters(const char *src, int srcLen, char *dst, int dstSize);

VORN_END_DECLS

#endif
