/* INI configuration files: a registry of parsed files that answers lookups from memory, one-shot
 * reads, and edits that rewrite a file on disk.
 *
 * What a file may hold. "[name]" at the start of a line opens a section, "key=value" sets an item;
 * blanks around name, key and value do not count. Names are of ASCII letters, digits and "_", at
 * most 63 of them, and case counts. A value is everything after the first "=", at most 4194303
 * characters (VORN_CFG_VALUE_MAX); there is no quoting and no comment after it. Lines that begin
 * with ";" or "=", and lines that are neither, are dropped. Items before the first header belong to
 * the section "NULL". A line is cut at a NUL, carriage returns in it are dropped, and one of more
 * than 4194369 bytes is read as several lines.
 *
 * A section that comes again continues the first one. An item that comes again in its section
 * replaces the earlier one; only vorn_cfg_getItemFromFile answers with the first. A header without
 * items opens nothing.
 *
 * Files are told apart by their path as given: two strings that name one file are two files. Only
 * regular files are read, and devices; a directory, a FIFO and a file that fails to be read are
 * refused with -1.
 *
 * Any thread may call; nothing here is safe in a signal handler. Calls block on the file system, on
 * the locks below for as long as another thread holds them, and editors on other editors of the
 * same file in any process. None is a cancellation point, while it waits or during the callback of
 * an edit: a cancellation acts after the call, and leaves nothing. A child of fork() may make
 * all of these calls, whatever the library's threads in the parent were doing. Results are 0, or -1
 * after a message in the log, unless a function says otherwise. Text arguments end in a NUL and
 * stay the caller's. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_CFG_H
#define VORN_CFG_H

#include "vorn_api.h"
#include "vorn_list.h"
#include "vorn_rwlock.h"

VORN_BEGIN_DECLS

#define VORN_CFG_PATH_SIZE 256u      /* bytes of a path with its NUL */
#define VORN_CFG_NAME_SIZE 64u       /* bytes of a section's or an item's name with its NUL */
#define VORN_CFG_VALUE_MAX 0x3FFFFFu /* characters of a value that is read from a file */
#define VORN_CFG_SHORT_SIZE 256u     /* bytes of a value in vorn_cfg_item_s with its NUL */

/* The buffer is too small for the value. */
#define VORN_CFG_TOO_SMALL (-10000)

/* An item of a section. */
typedef struct vorn_cfg_item_node {
  vorn_list_head_s link;         /* in the section's items */
  char name[VORN_CFG_NAME_SIZE]; /* what stands before the "=" */
  char *value;                   /* a block of vorn_malloc that the item owns */
} vorn_cfg_item_node_s;

/* A section of a file. */
typedef struct vorn_cfg_section_node {
  vorn_list_head_s link;         /* in the file's sections */
  vorn_list_head_s items;        /* in the file's order */
  char name[VORN_CFG_NAME_SIZE]; /* what stands between the brackets */
} vorn_cfg_section_node_s;

/* A parsed file. */
typedef struct vorn_cfg_file_node {
  vorn_list_head_s link;         /* in the registry, newest first */
  vorn_list_head_s sections;     /* in the file's order */
  char path[VORN_CFG_PATH_SIZE]; /* as the caller gave it */
  vorn_rwlock_s lock;            /* guards the sections, the items and the index */
  uint32_t reference_count;      /* calls of vorn_cfg_init not yet balanced; 0: not registered */
  struct vorn_cfg_index *index;  /* the library's own; NULL in a node of yours */
} vorn_cfg_file_node_s;

/* What a one-shot read returns. */
typedef struct vorn_cfg_item {
  char name[VORN_CFG_NAME_SIZE];   /* the item's name */
  char value[VORN_CFG_SHORT_SIZE]; /* its value */
} vorn_cfg_item_s;

/* What an edit is about; a field that the edit does not need is NULL. */
typedef struct vorn_cfg_oper_param {
  const char *path;    /* the file to edit */
  const char *section; /* the section in it */
  const char *item;    /* the item in the section */
  const char *value;   /* the item's new value */
} vorn_cfg_oper_param_s;

/* Changes a parsed file. Returns 0, or anything else to give the edit up. */
typedef int (*vorn_cfg_edit_f)(vorn_cfg_file_node_s *node, const char *section, const char *item,
                               const char *value);

/* Guards the list of registered files, not what they hold. It is taken before the lock of a file,
 * never after it.
 *
 * The lookups here let a thread that waits to change the registry go first, for 10 ms at most, so
 * that writers get in however many threads look up; a thread that holds the lock for reading may
 * look up, and is delayed by that time. A service that takes the lock itself sees to it that no
 * thread holds it during a fork(): the child would find it held forever. */
VORN_API extern vorn_rwlock_s g_stCfgRwlock;

/* --- The registry --- */

/* Parses the file and registers it. A path that is registered is read again: the new content takes
 * the place of the old one, becomes the newest, and one more vorn_cfg_destroy_ex is needed.
 *   path: path of the file
 * Returns 0; -1 after a log message when the file cannot be read: the registry stays as it is. */
VORN_API int vorn_cfg_init(const char *path);

/* Does what vorn_cfg_init does.
 *   path: path of the file
 * Returns what vorn_cfg_init returns. */
VORN_API int vorn_cfg_init_ex(const char *path);

/* Drops every registered file, however often it was registered.
 * Returns 0. */
VORN_API int vorn_cfg_destroy(void);

/* Takes back one vorn_cfg_init of the path; the last one drops the file.
 *   path: path of the file
 * Returns 0, for a path that is not registered too. */
VORN_API int vorn_cfg_destroy_ex(const char *path);

/* Copies the value of an item and its NUL to buf, which has room for size bytes. Searches all
 * registered files, the newest first. A NULL buf finds nothing.
 *   section: name of the section
 *   item: name of the item
 *   buf: where the value goes
 *   size: bytes at buf
 * Returns 0; VORN_CFG_TOO_SMALL after an error message when the item that it finds first does not
 * fit; -1 when there is none (with a warning, at a limited rate), section or item is NULL, or size
 * is 0. buf is left alone then. */
VORN_API int vorn_cfg_getItemValue(const char *section, const char *item, char *buf,
                                   unsigned int size);

/* Copies the value of an item as vorn_cfg_getItemValue does, from one registered file.
 *   path: path of the file
 *   section: name of the section
 *   item: name of the item
 *   buf: where the value goes
 *   size: bytes at buf
 * Returns what vorn_cfg_getItemValue does; -1 without a log message when the file lacks the item.
 */
VORN_API int vorn_cfg_getItemValue_ex(const char *path, const char *section, const char *item,
                                      char *buf, unsigned int size);

/* Gives an existing item a new value in memory; no file is written. The first registered file that
 * has the item takes it, the newest asked first.
 *   section: name of the section
 *   item: name of the item
 *   value: value of the item
 * Returns 0; -1 without a log message when no file has the item; logs an error and returns -1
 * otherwise. */
VORN_API int vorn_cfg_setItemValue(const char *section, const char *item, const char *value);

/* Gives an existing item of one registered file a new value in memory; no file is written.
 *   path: path of the file
 *   section: name of the section
 *   item: name of the item
 *   value: value of the item
 * Returns 0; logs an error and returns -1 otherwise. */
VORN_API int vorn_cfg_setItemValue_ex(const char *path, const char *section, const char *item,
                                      const char *value);

/* --- One-shot reads, which leave the registry alone --- */

/* Finds the first item of that name in the file.
 *   path: path of the file
 *   section: name of the section
 *   item: name of the item
 *   out: where the item goes
 * Returns 0 with *out filled; -1 when there is none, the file cannot be read, or the value has more
 * than 255 characters (an error message); *out is left alone then. Takes no lock on the file:
 * beside vorn_cfg_write_item_to_file it may meet a file that is half written. */
VORN_API int vorn_cfg_getItemFromFile(const char *path, const char *section, const char *item,
                                      vorn_cfg_item_s *out);

/* --- Edits on disk ---
 *
 * Editors of one file wait for each other, in all threads and processes, by an exclusive flock(2),
 * and no edit is lost. What they write keeps only headers and items: comments, blank lines, and
 * whatever the parser drops disappear, and items before the first header get the header "[NULL]".
 *
 * A section, item or value that holds a line feed or a carriage return is refused. Other names are
 * written as given, though a name that holds anything but letters, digits and "_" is not read back.
 * A value of more than VORN_CFG_VALUE_MAX characters is not either: what comes after them is read
 * as further lines. Blanks at the ends of a value are not part of what is read back. */

/* Sets an item, and makes the file (mode 0600), the section or the item where it is missing. The
 * file is overwritten in place, once its whole new text is built: a crash at that moment may leave
 * it damaged, other links to it stay, and the registry does not learn of it.
 *
 * The item is set where it is met in its section, and so is, on purpose, every other item of this
 * name that is not the first of a section, in whatever section; that alone counts as setting it. A
 * section that the file has several times keeps all its headers. A new item is put after the first
 * run of its section. Items of a section with an empty name that no other precedes lose their
 * header.
 *   path: path of the file
 *   section: name of the section
 *   item: name of the item
 *   value: value of the item
 * Returns 0; 22 (EINVAL) after an error message when the new text outgrows the file's size by more
 * than 4 MiB; -1 otherwise. The file is untouched then. A write that the system cuts short is
 * logged, and the result is 0 all the same. When a name has more than 63 characters, -1 is returned
 * after descriptor 0 has been closed. */
VORN_API int vorn_cfg_write_item_to_file(const char *path, const char *section, const char *item,
                                         const char *value);

/* Adds an item that does not exist yet, and its section where that is missing, at the end.
 *
 * This edit and the three after it go through a temporary file, path followed by ".temp", that is
 * synced and then renamed over the target: a crash at any moment leaves the old file or the new
 * one, whole. The new file has the owner, the group and the mode of the old one. When the path is
 * registered, the registry takes over the new content, and values set in memory alone are lost. The
 * file must exist, and the new text must not exceed 4 MiB. A symbolic link at path is replaced by
 * the new file, and what it names stays as it was; so do other links to the old file.
 *   path: path of the file
 *   section: name of the section
 *   item: name of the item
 *   value: value of the item
 * Returns 0; -1 when the edit cannot be done: the file is untouched then. */
VORN_API int vorn_cfg_file_addItem(const char *path, const char *section, const char *item,
                                   const char *value);

/* Removes an item, and its section with the last item, as vorn_cfg_file_addItem adds one.
 *   path: path of the file
 *   section: name of the section
 *   item: name of the item
 * Returns 0; -1 when the edit cannot be done: the file is untouched then. */
VORN_API int vorn_cfg_file_delItem(const char *path, const char *section, const char *item);

/* Removes a section with all its items, as vorn_cfg_file_addItem adds an item.
 *   path: path of the file
 *   section: name of the section
 * Returns 0; -1 when the edit cannot be done: the file is untouched then. */
VORN_API int vorn_cfg_file_delSection(const char *path, const char *section);

/* Gives an existing item a new value, as vorn_cfg_file_addItem adds one.
 *   path: path of the file
 *   section: name of the section
 *   item: name of the item
 *   value: value of the item
 * Returns 0; -1 when the edit cannot be done: the file is untouched then. */
VORN_API int vorn_cfg_file_setItemValue(const char *path, const char *section, const char *item,
                                        const char *value);

/* Carries out those four edits: parses param->path, has v_pfnProc change what was parsed, and
 * replaces the file. fd is a descriptor of the file, which stays the caller's; it is locked
 * meanwhile. When the path names another file by now, that one is opened, locked and edited
 * instead. v_pfnProc gets the section, item and value of param; it must neither keep the node nor
 * edit the file.
 *   fd: descriptor of the file, open for reading and writing
 *   param: what the edit is about
 *   v_pfnProc: function that edits the parsed file
 * Returns 0; -1 when the edit cannot be done: the file is untouched then. */
VORN_API int vorn_cfg_file_writeOperate(int fd, vorn_cfg_oper_param_s *param,
                                        vorn_cfg_edit_f v_pfnProc);

/* Adds an item that does not exist yet, and its section where that is missing. This function and
 * the three after it are the edits themselves, to be given to vorn_cfg_file_writeOperate. Each
 * takes the node's lock for writing, so its caller must not hold it; none uses an argument that its
 * edit does not need.
 *   node: parsed file to edit
 *   section: name of the section
 *   item: name of the item
 *   value: value of the item
 * Returns 0; -1 on failure: the node is as it was then. */
VORN_API int vorn_cfg_add_item_func(vorn_cfg_file_node_s *node, const char *section,
                                    const char *item, const char *value);

/* Gives an existing item a new value, as vorn_cfg_add_item_func adds one.
 *   node: parsed file to edit
 *   section: name of the section
 *   item: name of the item
 *   value: the new value
 * Returns 0; -1 on failure: the node is as it was then. */
VORN_API int vorn_cfg_set_item_func(vorn_cfg_file_node_s *node, const char *section,
                                    const char *item, const char *value);

/* Removes an item, and its section with the last item, as vorn_cfg_add_item_func adds one.
 *   node: parsed file to edit
 *   section: name of the section
 *   item: name of the item
 *   value: not used
 * Returns 0; -1 on failure: the node is as it was then. */
VORN_API int vorn_cfg_del_item_func(vorn_cfg_file_node_s *node, const char *section,
                                    const char *item, const char *value);

/* Removes a section with all its items, as vorn_cfg_add_item_func adds an item.
 *   node: parsed file to edit
 *   section: name of the section
 *   item: not used
 *   value: not used
 * Returns 0; -1 on failure: the node is as it was then. */
VORN_API int vorn_cfg_del_section_func(vorn_cfg_file_node_s *node, const char *section,
                                       const char *item, const char *value);

/* Makes a new item with copies of name (at most 63 characters) and value, its link pointing at
 * itself.
 *   name: name of the item
 *   value: value of the item
 * Returns the item, which is the caller's to put into a section, or to free (vorn_free), the value
 * first; logs an error and returns NULL otherwise. */
VORN_API vorn_cfg_item_node_s *vorn_cfg_new_item_node_ex(const char *name, const char *value);

/* Creates the temporary file of an edit, with the owner, the group and the mode of the file of fd;
 * one that is left over is removed first.
 *   path: path of the file
 *   fd: descriptor of the file, open for reading and writing
 *   tmpName: where the name of the temporary file goes
 * Returns a descriptor, which the caller closes, and the file's name in *tmpName, which the caller
 * frees with vorn_free; -1 leaves *tmpName alone. */
VORN_API int vorn_cfg_create_tmpfile(const char *path, int fd, char **tmpName);

/* Makes the text of node the whole content of the file of fd. Takes the node's lock for writing
 * while it builds the text.
 *   fd: descriptor of the file, open for reading and writing
 *   node: parsed file
 * Returns 0; logs an error and returns -1 otherwise. */
VORN_API int vorn_cfg_writeFnodeTofile(int fd, vorn_cfg_file_node_s *node);

/* Puts node, a block of vorn_malloc, in the place of the registered file of the same path, which is
 * destroyed; the registry owns node then.
 *   node: parsed file that replaces the registered one
 * Returns 0; -1 without a log message when no such file is registered: node stays the caller's. */
VORN_API int vorn_cfg_updateFileNode(vorn_cfg_file_node_s *node);

/* --- Text --- */

/* Copies characters from src to dst up to the first that isprint(3) refuses, a NUL included, and at
 * most srcLen of them; a NUL ends what was copied. A srcLen below 1 makes an empty text.
 *   src: text to copy
 *   srcLen: most characters to copy
 *   dst: where the copy goes
 *   dstSize: bytes at dst
 * Returns 0; -1 when dstSize is not greater than srcLen or below 1, or, after an error message, a
 * pointer is NULL. */
VORN_API int vorn_remove_noneprint_characters(const char *src, int srcLen, char *dst, int dstSize);

VORN_END_DECLS

#endif
