// Tells the verdicts on the files of a tree.
// SPDX-License-Identifier: Apache-2.0
#include "verification.hpp"

#include <cerrno>
#include <fcntl.h>
#include <memory>

#include "digest.hpp"
#include "interrupt.hpp"

namespace scrub {

void Verification::skip(const String &path, int error) {
  report_.finding({.verdict = Verdict::kSkipped, .path = path, .why = reason(error)});
}

void Verification::unreadable(const FileRecord &record, const String &why) {
  report_.finding({.verdict = Verdict::kUnreadable,
                   .path = record.path,
                   .recorded_size = record.size,
                   .why = why});
}

void Verification::changed(const FileRecord &record, const char *why) {
  if (!changed_.insert(record.path).second) return;
  report_.finding({.verdict = Verdict::kChanged,
                   .path = record.path,
                   .recorded_size = record.size,
                   .why = why});
}

// Forgets files of which no second read is left, before the next file is taken.
void Verification::forget_changed() {
  const Suspects *first = second_->first();
  changed_.erase(changed_.begin(),
                 first != nullptr ? changed_.lower_bound(first->file.path) : changed_.end());
}

void Verification::fail(const Entry &entry, int error) {
  if (error == EINTR && interrupted()) return;
  report_.progress().drop_bytes(bytes_of(entry));
  if (is_gone(error)) return changed(entry.record, reason(error));
  unreadable(entry.record, reason(error));
}

// The verdict on blocks that were read twice.
void Verification::judge(const Suspects &suspects) {
  for (const Suspect &block : suspects.blocks) {
    switch (block.again) {
    case Again::kUnread:
      return;
    case Again::kWritten:
      return changed(suspects.file, "written after the run had read it");
    case Again::kRight:
      ranges_.add(Verdict::kPassing, suspects.file, block);
      break;
    case Again::kWrong:
      ranges_.add(Verdict::kDamaged, suspects.file, block);
      damaged_.add(suspects.file.path);
    }
  }
  const std::uint64_t most = options_.max_errors;
  if (most != 0 && report_.damaged_files() + ranges_.begins_damage() >= most) limited_ = true;
}

void Verification::resolve_moves() {
  MoveActions actions;
  actions.read = [this](const String &path, int &error) { return digest_of(path, error); };
  actions.moved = [this](const Moved &file) {
    report_.finding({.verdict = Verdict::kMoved, .path = file.path, .from = file.from});
  };
  actions.damaged = [this](const Moved &file) {
    damaged_.add(file.from);
    report_.finding({.verdict = Verdict::kDamaged,
                     .path = file.path,
                     .from = file.from,
                     .whole_file = true,
                     .begins_file = true});
  };
  actions.unreadable = [this](const Moved &file, int error) {
    report_.finding({.verdict = Verdict::kUnreadable,
                     .path = file.path,
                     .from = file.from,
                     .why = reason(error)});
  };
  actions.missing = [this](const String &path, std::uint64_t size, std::uint64_t) {
    report_.finding({.verdict = Verdict::kMissing, .path = path, .recorded_size = size});
  };
  actions.added = [this](const String &path, std::uint64_t size, int error) {
    if (error != 0 && error != EINTR) return skip(path, error);
    report_.finding({.verdict = Verdict::kNew, .path = path, .size = size});
  };
  moves_.resolve(actions);
}

std::optional<std::uint64_t> Verification::digest_of(const String &path, int &error) {
  const auto file = std::make_shared<DataFile>();
  Fd fd = tree_.open(path, O_RDONLY);
  error = fd ? file->adopt(std::move(fd), options_.cached) : errno;
  if (error != 0) return {};
  Digest digest;
  std::uint64_t bytes = 0;
  error = engine_->read(file, 0, block_count(file->attributes().size),
                        [&](const Engine::Blocks &blocks) {
                          for (const Checksums &block : blocks.checksums)
                            digest.add(block);
                          for (std::uint64_t i = 0; i < blocks.zeros; ++i)
                            digest.add(zero_block());
                          bytes += blocks.bytes;
                        });
  if (error == 0 && (bytes < file->attributes().size || file->has_changed())) error = ESTALE;
  if (error != 0) return {};
  return digest.value();
}

} // namespace scrub
