// Writes the records of a manifest in frames.
// SPDX-License-Identifier: Apache-2.0
#include "manifest_writer.hpp"

#include <algorithm>
#include <array>
#include <stdexcept>

#include "errors.hpp"

namespace scrub {
namespace {

// Returns no less than the bytes of a file's records. In the worst case blocks of zeros and of data
// alternate, each a run.
std::size_t most_bytes(const FileRecord &file) {
  constexpr std::uint64_t kEnough = kMaxPayload;
  const std::uint64_t blocks = std::min(block_count(file.size), kEnough);
  return kMaxFileRecord + file.path.size() + blocks * (kBlockBytes + kMaxVarint);
}

} // namespace

ManifestWriter::ManifestWriter(const OwnPaths &paths, const TreeRecord &tree) : file_(paths) {
  frame_.reserve(kFrameHead + kMaxPayload);
  run_.reserve(kMaxPayload);
  file_.append(kManifestHeader);
  now_.code.add(kManifestHeader);
  now_.written = file_.length();
  frame_.resize(kFrameHead);
  put_tree(tree);
  // A run that is killed leaves a file that names its tree.
  flush_frame();
}

void ManifestWriter::begin_file(const FileRecord &file) {
  if (file.path.empty() || file.path.size() > kMaxPath) fail("cannot record a path", ENAMETOOLONG);
  end_file();
  if (now_.totals.files != 0 && !path_before(now_.base.path, file.path))
    throw std::logic_error("a file of the manifest is out of order");

  // Thus drop_file() removes records of one frame, or whole frames.
  make_room(most_bytes(file));
  now_.frame = frame_.size();
  before_file_ = now_;

  put_path(file.path);
  put_varint(file.size);
  FileBase &base = now_.base;
  const auto written = static_cast<std::uint64_t>(file.written.tv_sec);
  const auto nanoseconds = static_cast<std::uint64_t>(file.written.tv_nsec);
  put_difference(written, base.written);
  put_varint(nanoseconds);
  const auto changed =
      file.has_changed_time() ? static_cast<std::uint64_t>(file.changed.tv_sec) : base.changed;
  const long changed_nanoseconds = file.has_changed_time() ? file.changed.tv_nsec : -1;
  put_difference(changed, base.changed);
  put_difference(static_cast<std::uint64_t>(changed_nanoseconds), nanoseconds);
  put_difference(file.inode, base.inode);
  base.path = file.path;
  base.written = written;
  base.changed = changed;
  base.inode = file.inode;

  size_ = file.size;
  block_ = 0;
  ++now_.totals.files;
  now_.totals.bytes += file.size;
}

void ManifestWriter::add_block(const Checksums &block) {
  if (block == zero_block() && size_ / kBlockSize > block_) {
    add_zero_blocks(1);
    return;
  }
  if (zeros_ != 0) put_run();
  std::array<char, kBlockBytes> bytes;
  const std::size_t size = store_block(block, bytes.data());
  if (kMaxVarint + run_.size() + size > room()) {
    put_run();
    flush_frame();
  }
  run_.insert(run_.end(), bytes.data(), bytes.data() + size);
  ++run_blocks_;
  ++block_;
  ++now_.totals.blocks;
}

void ManifestWriter::add_zero_blocks(std::uint64_t count) {
  if (count == 0) return;
  if (run_blocks_ != 0) put_run();
  zeros_ += count;
  block_ += count;
  now_.totals.blocks += count;
}

void ManifestWriter::drop_file() {
  run_.clear();
  run_blocks_ = zeros_ = 0;
  size_ = block_ = 0;
  if (before_file_.written < now_.written) file_.cut(before_file_.written);
  now_ = before_file_;
  frame_.resize(now_.frame);
}

void ManifestWriter::commit() {
  end_file();
  make_room(4 * kMaxVarint);
  put_head(RecordKind::kEnd, 0);
  put_varint(now_.totals.files);
  put_varint(now_.totals.blocks);
  put_varint(now_.totals.bytes);
  flush_frame();
  file_.commit();
}

void ManifestWriter::keep_unfinished() {
  if (block_ != block_count(size_)) drop_file();
  put_run();
  flush_frame();
  file_.keep();
}

void ManifestWriter::put_tree(const TreeRecord &tree) {
  std::size_t size = 7 * kMaxVarint + tree.root.size() + tree.label.size();
  for (const std::string &pattern : tree.excludes)
    size += kMaxVarint + pattern.size();
  if (size > kMaxPayload) fail("cannot record so many patterns to exclude", E2BIG);

  std::uint64_t flags = 0;
  if (tree.one_file_system) flags |= kOneFileSystem;
  if (tree.pseudo) flags |= kPseudo;
  put_head(RecordKind::kTree, flags);
  put_varint(tree.device);
  put_varint(tree.inode);
  put_varint(tree.file_system);
  put_text(tree.root);
  put_text(tree.label);
  put_varint(tree.excludes.size());
  for (const std::string &pattern : tree.excludes)
    put_text(pattern);
}

// Writes the records of the path's pieces, and the file's record up to the end of the path.
void ManifestWriter::put_path(std::string_view path) {
  const std::string_view previous(now_.base.path);
  const auto differ = std::ranges::mismatch(path, previous);
  auto at = static_cast<std::size_t>(differ.in1 - path.begin());
  for (; path.size() - at > kPathPiece; at += kPathPiece) {
    make_room(kMaxVarint + kPathPiece);
    put_head(RecordKind::kPath, at);
    put_bytes(path.substr(at, kPathPiece));
  }
  make_room(kMaxFileRecord + path.size() - at);
  put_head(RecordKind::kFile, at);
  put_text(path.substr(at));
}

// Writes the current run of blocks, if there is one. A run of data has room in the frame.
void ManifestWriter::put_run() {
  if (run_blocks_ != 0) {
    put_head(RecordKind::kBlocks, run_blocks_);
    put_bytes({run_.data(), run_.size()});
    run_.clear();
    run_blocks_ = 0;
  }
  if (zeros_ != 0) {
    make_room(kMaxVarint);
    put_head(RecordKind::kZeros, zeros_);
    zeros_ = 0;
  }
}

void ManifestWriter::put_head(RecordKind kind, std::uint64_t number) {
  put_varint(number << kKindBits | static_cast<std::uint64_t>(kind));
}

void ManifestWriter::put_varint(std::uint64_t number) {
  for (; number >= 0x80; number >>= 7)
    frame_.push_back(static_cast<char>(number | 0x80));
  frame_.push_back(static_cast<char>(number));
}

void ManifestWriter::put_bytes(std::string_view bytes) {
  frame_.insert(frame_.end(), bytes.begin(), bytes.end());
}

void ManifestWriter::put_text(std::string_view text) {
  put_varint(text.size());
  put_bytes(text);
}

// Begins a frame if the current one has no room for that many bytes.
void ManifestWriter::make_room(std::size_t size) {
  if (size > room()) flush_frame();
}

void ManifestWriter::flush_frame() {
  if (frame_.size() == kFrameHead) return;
  const std::string_view payload(frame_.data() + kFrameHead, frame_.size() - kFrameHead);
  FrameCode code = now_.code;
  code.add(payload);
  store_little(static_cast<std::uint32_t>(payload.size()), frame_.data());
  store_little(code.value(), frame_.data() + 4);
  file_.append({frame_.data(), frame_.size()});
  now_.code = code;
  now_.written = file_.length();
  frame_.resize(kFrameHead);
}

void ManifestWriter::end_file() {
  if (block_ != block_count(size_))
    throw std::logic_error("blocks of a file of the manifest are missing");
  put_run();
}

} // namespace scrub
