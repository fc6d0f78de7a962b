// Reads version 2 of the manifest frame by frame, and refuses records that the writer does not
// write.
// SPDX-License-Identifier: Apache-2.0
#include "manifest_v2.hpp"

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>

namespace scrub {
namespace {

constexpr char kNotAsWritten[] = "this frame is not as it was written, or one before it is lost";
constexpr char kBadFile[] = "this is no proper record of a file";

std::array<char, kBlockBytes> zero_bytes() {
  std::array<char, kBlockBytes> bytes{};
  store_block(zero_block(), bytes.data());
  return bytes;
}

// Checks the components from the one that the first changed byte belongs to.
bool is_tree_path_from(std::string_view path, std::size_t changed) {
  if (changed == 0) return is_tree_path(path);
  const std::size_t slash = path.rfind('/', changed - 1);
  return is_tree_path(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

} // namespace

bool RecordBytes::varint(std::uint64_t &value) {
  value = 0;
  for (std::size_t i = 0; i < std::min(kMaxVarint, rest_.size()); ++i) {
    const auto byte = static_cast<unsigned char>(rest_[i]);
    value |= static_cast<std::uint64_t>(byte & 0x7F) << 7 * i;
    if (byte >= 0x80) continue;
    // A last byte of 0 is superfluous. The tenth has room for one bit.
    if ((byte == 0 && i > 0) || (i == kMaxVarint - 1 && byte > 1)) return false;
    rest_.remove_prefix(i + 1);
    return true;
  }
  return false;
}

bool RecordBytes::difference(std::uint64_t base, std::uint64_t &value) {
  std::uint64_t number = 0;
  if (!varint(number)) return false;
  value = base + unzigzag(number);
  return true;
}

bool RecordBytes::bytes(std::size_t size, std::string_view &text) {
  if (size > rest_.size()) return false;
  text = rest_.substr(0, size);
  rest_.remove_prefix(size);
  return true;
}

bool RecordBytes::text(std::string_view &text) {
  std::uint64_t size = 0;
  return varint(size) && bytes(size, text) && text.find('\0') == std::string_view::npos;
}

ManifestV2::ManifestV2(ManifestInput &input) : input_(input) {
  if (!input_.hold(kManifestHeader.size()).starts_with(kManifestHeader))
    refuse("this program cannot read this kind of manifest");
  code_.add(kManifestHeader);
  input_.take(kManifestHeader.size());
  read_tree();
}

void ManifestV2::read_tree() {
  const Head head = next_head();
  if (head.kind != RecordKind::kTree) refuse("the record of the tree should be here");
  if (!parse_tree(head.number)) refuse("this is no proper record of a tree");
}

bool ManifestV2::parse_tree(std::uint64_t flags) {
  std::string_view root;
  std::string_view label;
  std::uint64_t excludes = 0;
  if ((flags & ~kTreeFlags) != 0 || !frame_.varint(tree_.device) || !frame_.varint(tree_.inode) ||
      !frame_.varint(tree_.file_system) || !frame_.text(root) || !frame_.text(label) ||
      !frame_.varint(excludes))
    return false;
  tree_.known = true;
  tree_.root = root;
  tree_.label = label;
  tree_.one_file_system = (flags & kOneFileSystem) != 0;
  tree_.pseudo = (flags & kPseudo) != 0;
  for (std::string_view pattern; excludes != 0; --excludes) {
    if (!frame_.text(pattern)) return false;
    tree_.excludes.emplace_back(pattern);
  }
  return true;
}

bool ManifestV2::next_file(FileRecord &file) {
  skip_blocks();
  Head head = next_head();
  if (head.kind == RecordKind::kEnd) {
    read_end(head.number);
    return false;
  }
  read_path(head);
  if (!parse_attributes(file)) refuse(kBadFile);

  file.path = path_;
  base_.path.swap(path_);
  base_.written = static_cast<std::uint64_t>(file.written.tv_sec);
  base_.inode = file.inode;
  if (file.has_changed_time()) base_.changed = static_cast<std::uint64_t>(file.changed.tv_sec);
  first_run_ = true;
  begin_blocks(file.size);
  return true;
}

// Reads the path in path_, from the records of its pieces and the beginning of the file's record.
void ManifestV2::read_path(Head &head) {
  const std::uint64_t start = head.number;
  path_.clear();
  while (true) {
    std::string_view text;
    const bool is_file = head.kind == RecordKind::kFile;
    if (!is_file && head.kind != RecordKind::kPath)
      refuse("a record of a file, or the last record, should be here");
    if (is_file ? !frame_.text(text) || text.empty() || text.size() > kPathPiece
                : !frame_.bytes(kPathPiece, text))
      refuse(kBadFile);
    if (!add_to_path(start, head, text)) refuse(kBadFile);
    if (is_file) break;
    head = next_head();
  }

  if (!is_tree_path_from(path_, start))
    refuse("this is not the path of a file below the directory");
  const std::string_view previous(base_.path);
  if (totals_.files != 0 &&
      !path_before(previous.substr(start), std::string_view(path_).substr(start)))
    refuse("this file is out of order");
}

// Returns false if the writer would not cut the path here.
bool ManifestV2::add_to_path(std::size_t start, Head head, std::string_view text) {
  if (path_.empty()) {
    const std::string_view previous(base_.path);
    if (start > previous.size() || (start < previous.size() && previous[start] == text[0]))
      return false;
    path_ = previous.substr(0, start);
  } else if (head.number != path_.size()) {
    return false;
  }
  if (path_.size() + text.size() > kMaxPath) return false;
  path_ += text;
  return true;
}

bool ManifestV2::parse_attributes(FileRecord &file) {
  std::uint64_t written = 0;
  std::uint64_t nanoseconds = 0;
  std::uint64_t changed = 0;
  std::uint64_t changed_nanoseconds = 0;
  if (!frame_.varint(file.size) || !frame_.difference(base_.written, written) ||
      !frame_.varint(nanoseconds) || !frame_.difference(base_.changed, changed) ||
      !frame_.difference(nanoseconds, changed_nanoseconds) ||
      !frame_.difference(base_.inode, file.inode))
    return false;
  // Inodes of a damaged file system may have more nanoseconds than a second has.
  if (file.size > INT64_MAX || nanoseconds > UINT32_MAX) return false;
  file.written = {static_cast<time_t>(written), static_cast<long>(nanoseconds)};

  const bool known = changed_nanoseconds != UINT64_MAX;
  if (known ? changed_nanoseconds > UINT32_MAX : changed != base_.changed) return false;
  file.changed = {known ? static_cast<time_t>(changed) : 0, static_cast<long>(changed_nanoseconds)};
  return true;
}

void ManifestV2::read_end(std::uint64_t number) {
  Totals stated;
  if (number != 0 || !frame_.varint(stated.files) || !frame_.varint(stated.blocks) ||
      !frame_.varint(stated.bytes))
    refuse("this is no proper last record");
  if (stated != totals_) refuse("the totals do not fit the records before");
  if (!frame_.at_end() || !input_.hold(1).empty()) refuse("there is more after the last record");
}

bool ManifestV2::next_block(Checksums &block) {
  if (!has_blocks_left()) return false;
  if (run_ == 0) begin_run();
  if (zeros_) {
    block = zero_block();
  } else {
    const std::uint32_t sectors = sector_count(block_length(size_, next_block_));
    load_block(frame_.data(), sectors, block);
    frame_.skip(block_bytes(sectors));
  }
  --run_;
  ++next_block_;
  ++totals_.blocks;
  return true;
}

std::uint64_t ManifestV2::next_zeros() {
  if (!has_blocks_left()) return 0;
  if (run_ == 0) begin_run();
  if (!zeros_) return 0;
  const std::uint64_t count = run_;
  run_ = 0;
  next_block_ += count;
  totals_.blocks += count;
  return count;
}

void ManifestV2::skip_blocks() {
  while (has_blocks_left()) {
    if (run_ == 0) begin_run();
    if (next_zeros() != 0) continue;
    const std::uint64_t last = next_block_ + run_ - 1;
    frame_.skip((run_ - 1) * kBlockBytes + block_bytes(sector_count(block_length(size_, last))));
    next_block_ += run_;
    totals_.blocks += run_;
    run_ = 0;
  }
}

// Reads the head of the file's next run of blocks.
void ManifestV2::begin_run() {
  const Head head = next_head();
  if (head.kind != RecordKind::kBlocks && head.kind != RecordKind::kZeros)
    refuse("block " + std::to_string(next_block_) + " of the file before should be here");

  const bool zeros = head.kind == RecordKind::kZeros;
  const std::uint64_t most = (zeros ? size_ / kBlockSize : block_count(size_)) - next_block_;
  if (head.number == 0 || head.number > most)
    refuse("the file before does not have that many blocks");
  // The writer merges runs of the same kind, except that runs of data end with their frame.
  const bool frame_begins = at_ == frame_offset_;
  if (!first_run_ && zeros == zeros_ && (zeros || !frame_begins))
    refuse("this run of blocks belongs to the one before");

  if (!zeros) begin_data_run(head.number);
  run_ = head.number;
  zeros_ = zeros;
  first_run_ = false;
}

void ManifestV2::begin_data_run(std::uint64_t count) {
  static const std::array<char, kBlockBytes> zeros = zero_bytes();
  const std::size_t last_length = block_length(size_, next_block_ + count - 1);
  const std::size_t last_bytes = block_bytes(sector_count(last_length));
  if (count > kMaxPayload / kBlockBytes + 1 ||
      (count - 1) * kBlockBytes + last_bytes > frame_.size())
    refuse("this run of blocks does not fit into its frame");

  const std::uint64_t whole = last_length == kBlockSize ? count : count - 1;
  for (std::size_t i = 0; i < whole; ++i) {
    if (std::memcmp(frame_.data() + i * kBlockBytes, zeros.data(), kBlockBytes) == 0)
      refuse("a block of zeros is among others");
  }
}

ManifestV2::Head ManifestV2::next_head() {
  if (frame_.at_end()) read_frame();
  at_ = frame_offset_ + static_cast<std::uint64_t>(frame_.data() - payload_);
  std::uint64_t head = 0;
  if (!frame_.varint(head)) refuse("this is no proper record");
  constexpr std::uint64_t kMask = (1u << kKindBits) - 1;
  return {static_cast<RecordKind>(head & kMask), head >> kKindBits};
}

void ManifestV2::read_frame() {
  at_ = input_.offset();
  std::string_view held = input_.hold(kFrameHead + kMaxPayload);
  if (held.empty()) refuse("the manifest is cut: its last record should be here");
  if (held.size() < kFrameHead) refuse("the manifest is cut within this frame");
  const auto length = load_little<std::uint32_t>(held.data());
  const auto code = load_little<std::uint32_t>(held.data() + 4);
  if (length == 0 || length > kMaxPayload) refuse(kNotAsWritten);
  if (held.size() < kFrameHead + length) refuse("the manifest is cut within this frame");

  held = held.substr(kFrameHead, length);
  FrameCode next = code_;
  next.add(held);
  if (next.value() != code) refuse(kNotAsWritten);
  code_ = next;
  frame_ = RecordBytes(held);
  payload_ = held.data();
  frame_offset_ = at_ + kFrameHead;
  input_.take(kFrameHead + length);
}

void ManifestV2::refuse(const std::string &why) const {
  throw ManifestError(input_.name() + ", byte " + std::to_string(at_) + ": " + why);
}

} // namespace scrub
