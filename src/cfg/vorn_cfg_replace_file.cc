// Rewrites a file through a temporary file. At every moment, the path names the complete old file
// or the complete new one:
//
// 1. Write the new text to a temporary file and sync it to the device.
// 2. Rename the temporary file to the path.
// 3. Sync the directory.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_cfg.c"
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "base/log.hpp"
#include "base/unique_fd.hpp"
#include "cfg/vorn_cfg_buffer.hpp"
#include "cfg/vorn_cfg_index.hpp"
#include "cfg/vorn_cfg_io.hpp"
#include "cfg/vorn_cfg_limits.hpp"
#include "cfg/vorn_cfg_lock.hpp"
#include "cfg/vorn_cfg_parse.hpp"
#include "cfg/vorn_cfg_registry.hpp"
#include "cfg/vorn_cfg_text.hpp"
#include "mem/owned.hpp"

namespace vorn::cfg {
namespace {

constexpr char kSuffix[] = ".temp";
constexpr mode_t kPermissionBits = 0777;
constexpr mode_t kModeBits = 07777;

// Returns true if the file holds the whole buffer.
bool replace_content(int fd, const TextBuffer &text) {
  if (ftruncate(fd, static_cast<off_t>(text.length())) != 0) return false;
  return vorn_lseek(fd, 0, SEEK_SET) >= 0 && write_file(fd, text.view());
}

bool put_section(TextBuffer *text, const vorn_cfg_section_node_s *section) {
  if (!text->put_header(section->name)) return false;
  for (vorn_list_head_s *at = section->items.next; at != &section->items; at = at->next) {
    const auto *item = vorn_list_entry(at, vorn_cfg_item_node_s, link);
    if (!text->put_item(item->name, item->value)) return false;
  }
  return true;
}

bool put_sections(TextBuffer *text, vorn_cfg_file_node_s *node) {
  const WriteGuard hold(node->lock);
  for (vorn_list_head_s *at = node->sections.next; at != &node->sections; at = at->next) {
    if (!put_section(text, vorn_list_entry(at, vorn_cfg_section_node_s, link))) return false;
  }
  return true;
}

// A temporary file. The destructor removes it unless it was renamed.
class TemporaryFile {
public:
  TemporaryFile(const char *path, int fd) : fd_(vorn_cfg_create_tmpfile(path, fd, &name_)) {}
  TemporaryFile(const TemporaryFile &) = delete;
  TemporaryFile &operator=(const TemporaryFile &) = delete;
  ~TemporaryFile() {
    if (name_ == nullptr) return;
    if (fd_ && !renamed_) unlink(name_);
    vorn_free(name_);
  }

  explicit operator bool() const { return static_cast<bool>(fd_); }
  int fd() const { return fd_.get(); }

  // Syncs and renames the file. Returns false with errno if either fails.
  bool rename_to(const char *path) {
    renamed_ = sync_file(fd()) && std::rename(name_, path) == 0;
    return renamed_;
  }

private:
  char *name_ = nullptr; // before fd_, whose initialiser sets it
  UniqueFd fd_;
  bool renamed_ = false;
};

// Opens the directory of path. Returns an invalid descriptor, with errno, on failure.
UniqueFd open_folder(const char *path) {
  char folder[VORN_CFG_PATH_SIZE] = ".";
  const std::string_view text(path);
  const std::size_t slash = text.rfind('/');
  if (slash != text.npos) copy_text(folder, sizeof folder, text.substr(0, slash + 1));
  return open_file(folder, O_RDONLY | O_DIRECTORY);
}

// Syncs a rename to the device. A failure does not undo the edit: the file is replaced already.
void sync_folder(const char *function, const char *path) {
  const UniqueFd folder = open_folder(path);
  if (folder && sync_file(folder.get())) return;
  VORN_LOG_AS(function, kWarning, "Sync folder of file(%s) failed, errno<%d>.", path, errno);
}

// Replaces the locked file by the content of node. The registry takes the content first. If the
// file then cannot be replaced, or another thread has registered a file in between, the registry
// reads the file again.
int replace_file(const char *function, const char *path, int fd, FileNode node) {
  TemporaryFile file(path, fd);
  if (!file) return -1; // frees node too: no caller can tell
  if (vorn_cfg_writeFnodeTofile(file.fd(), node.get()) != 0)
    return VORN_FAIL_AS(function, -1, "Write node file(%s) failed.", path);
  const unsigned long registration = update_file(node.get());
  const bool is_registered = registration != kNotRegistered;
  if (is_registered) node.release();
  if (!file.rename_to(path)) {
    VORN_LOG_AS(function, kError, "Replace file(%s) failed, errno<%d>.", path, errno);
    if (is_registered) read_again(path);
    return -1;
  }
  if (is_registered && !is_latest(registration)) read_again(path);
  sync_folder(function, path);
  return 0;
}

} // namespace
} // namespace vorn::cfg

using namespace vorn::cfg;

int vorn_cfg_file_writeOperate(int fd, vorn_cfg_oper_param_s *param, vorn_cfg_edit_f v_pfnProc) {
  if (param == nullptr || param->path == nullptr || v_pfnProc == nullptr)
    return VORN_FAIL(-1, "Param is null.");
  const char *path = param->path;
  const PathLock lock(path, fd);
  if (!lock) return VORN_FAIL(-1, "Open file<%s> failed, errno<%d>", path, errno);
  bool is_whole = true; // the edit would remove an item that there was no memory for
  FileNode node = vorn_cfg_ini_file_parse(path, vorn_cfg_file_proc, &is_whole);
  // The message has the item instead of the path, as it has always had.
  if (node == nullptr || !is_whole) {
    return VORN_FAIL(-1, "Parse config file %s failed.",
                     param->item == nullptr ? "(null)" : param->item);
  }
  index_drop(node.get());
  if (v_pfnProc(node.get(), param->section, param->item, param->value) != 0) {
    node.reset();
    return VORN_FAIL(-1, "Exec v_pfnProc(%s) failed.", path);
  }
  return replace_file(__func__, path, lock.fd(), std::move(node));
}

int vorn_cfg_create_tmpfile(const char *path, int fd, char **tmpName) {
  if (path == nullptr || tmpName == nullptr) return VORN_FAIL(-1, "Param is null.");
  const std::size_t size = std::strlen(path) + sizeof kSuffix;
  vorn::mem::Block name = vorn::mem::allocate_block(size);
  if (name == nullptr) return VORN_FAIL(-1, "Malloc memory for tempFile failed.errno(%d).", errno);
  const std::size_t length = size - sizeof kSuffix;
  if (copy_text(name.get(), size, path) != 0 ||
      copy_text(name.get() + length, sizeof kSuffix, kSuffix) != 0)
    return VORN_FAIL(-1, "Sprintf_s failed.");
  unlink(name.get());
  const auto target = vorn::mem::create<struct stat>();
  if (target == nullptr) return VORN_FAIL(-1, "Malloc memory for stat failed.errno(%d).", errno);
  if (fstat(fd, target.get()) != 0)
    return VORN_FAIL(-1, "Stat of fd(%d) failed.errno(%d).", fd, errno);
  vorn::UniqueFd created = open_file(name.get(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW,
                                     target->st_mode & kPermissionBits);
  if (!created) return VORN_FAIL(-1, "Open %s failed.errno(%s).", name.get(), std::strerror(errno));
  // Sets the mode despite the umask. If the owner cannot be set, the editor stays the owner.
  const bool is_owned = fchown(created.get(), target->st_uid, target->st_gid) == 0;
  fchmod(created.get(), target->st_mode & (is_owned ? kModeBits : kPermissionBits));
  *tmpName = name.release();
  return created.release();
}

int vorn_cfg_writeFnodeTofile(int fd, vorn_cfg_file_node_s *node) {
  if (node == nullptr) return VORN_FAIL(-1, "Param is null.");
  const off_t size = vorn_lseek(fd, 0, SEEK_END);
  const std::size_t capacity = (size < 0 ? 0 : static_cast<std::size_t>(size)) + kTextSlack;
  const vorn::mem::Block buffer = vorn::mem::allocate_block(capacity);
  if (buffer == nullptr)
    return VORN_FAIL(-1, "Malloc size:%d memory failed,errno %d.", int_of(capacity), errno);
  TextBuffer text(buffer.get(), capacity);
  if (!put_sections(&text, node))
    return VORN_FAIL(-1, "sprintf_s secure function failed, destMax<%d>.", int_of(capacity));
  if (replace_content(fd, text)) return 0;
  return VORN_FAIL(-1, "Wirte file (%d) fail,errno %d", fd, errno);
}
