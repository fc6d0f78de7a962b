// Reads and writes checkpoints.
// SPDX-License-Identifier: Apache-2.0
#include "checkpoint.hpp"

#include <charconv>
#include <new>
#include <stdexcept>
#include <vector>

#include "text.hpp"

namespace scrub {
namespace {

constexpr char kTitle[] = "vorn-scrub-checkpoint 1";
constexpr std::size_t kLines = 5;

std::vector<std::string> lines_of(const Checkpoint &checkpoint) {
  std::string counts;
  for (const std::uint64_t count : checkpoint.counts)
    counts += std::to_string(count) + " ";
  return {kTitle, std::to_string(checkpoint.manifest), checkpoint.scope,
          std::to_string(checkpoint.position.block) + " " +
              escape(checkpoint.position.path).c_str(),
          counts};
}

// Takes a number and the blank after it.
bool take(std::string_view &text, std::uint64_t &number) {
  const auto [end, error] = std::from_chars(text.begin(), text.end(), number);
  if (error != std::errc() || end == text.end() || *end != ' ') return false;
  text.remove_prefix(static_cast<std::size_t>(end - text.begin()) + 1);
  return true;
}

bool parse(const std::vector<std::string> &lines, Checkpoint &checkpoint) {
  if (lines.size() != kLines || lines[0] != kTitle) return false;
  std::uint64_t manifest = 0;
  std::string number = lines[1] + " ";
  std::string_view rest = number;
  if (!take(rest, manifest)) return false;
  checkpoint.manifest = static_cast<std::uint32_t>(manifest);
  checkpoint.scope = lines[2];
  rest = lines[3];
  if (!take(rest, checkpoint.position.block) || !unescape(rest, checkpoint.position.path))
    return false;
  rest = lines[4];
  for (std::uint64_t &count : checkpoint.counts) {
    if (!take(rest, count)) return false;
  }
  return rest.empty();
}

} // namespace

std::string scope_text(const Options &options, const Part &part) {
  std::string text = "part " + std::to_string(part.number) + "/" + std::to_string(part.of);
  if (options.scope.one_file_system) text += " one-file-system";
  if (options.scope.pseudo) text += " pseudo";
  for (const std::string &pattern : options.scope.excludes)
    text += std::string(" exclude ") + escape(pattern).c_str();
  for (const std::string &path : options.scope.only)
    text += std::string(" only ") + escape(path).c_str();
  return text;
}

CheckpointFile::CheckpointFile(const OwnPaths &paths)
    : file_(paths.manifest_directory + "/" + paths.checkpoint_name()) {}

std::optional<Checkpoint> CheckpointFile::read() const {
  const std::vector<std::string> lines = file_.read();
  if (lines.empty()) return {};
  Checkpoint checkpoint;
  if (!parse(lines, checkpoint))
    throw std::runtime_error(file_.path() + " is no checkpoint of this version");
  return checkpoint;
}

// A checkpoint that cannot be written is told at the end of the run.
void CheckpointFile::write_soon(const Checkpoint &checkpoint) {
  if (work_ && !work_->done()) return;
  work_.emplace([this, lines = lines_of(checkpoint)] {
    try {
      file_.write(lines);
    } catch (const std::bad_alloc &) {
      return; // the checkpoint before it stays
    }
  });
  work_->start();
}

int CheckpointFile::write(const Checkpoint &checkpoint) {
  work_.reset();
  return file_.write(lines_of(checkpoint));
}

int CheckpointFile::remove(const Checkpoint &ended) {
  work_.reset();
  try {
    const std::optional<Checkpoint> left = read();
    if (left && left->manifest == ended.manifest && left->scope != ended.scope) return 0;
  } catch (const std::runtime_error &) {
    // It cannot be used.
  }
  return file_.remove();
}

} // namespace scrub
