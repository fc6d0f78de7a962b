// bench-links: vornsim inih iniparser glib-2.0
// Compares the reading of configuration files with other libraries. GKeyFile and iniparser keep
// what they read, as the registry does. inih passes it to a callback, which here either looks for
// one item, as the one-shot read does, or keeps all items in a hash table.
// SPDX-License-Identifier: Apache-2.0
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <unordered_map>
#include <vector>

#include <ini.h>
#include <iniparser/iniparser.h>

#include "support/bench.hpp"
#include "vorn_cfg.h"

// GLib's headers are not in the compiler's include path.
extern "C" {
struct GKeyFile;
GKeyFile *g_key_file_new(void);
void g_key_file_free(GKeyFile *);
int g_key_file_load_from_file(GKeyFile *, const char *path, int flags, void **error);
char *g_key_file_get_value(GKeyFile *, const char *group, const char *key, void **error);
void g_free(void *);
}

namespace {

std::string section_of(std::size_t number) { return "SECTION_" + std::to_string(number); }
std::string item_of(std::size_t number) { return "ITEM_NUMBER_" + std::to_string(number); }

// A file in memory.
class File {
public:
  File(std::size_t sections, std::size_t items) : fd_(memfd_create("bench", MFD_CLOEXEC)) {
    std::string text;
    for (std::size_t s = 0; s < sections; ++s) {
      text += "[" + section_of(s) + "]\n";
      for (std::size_t i = 0; i < items; ++i)
        text += item_of(i) + " = value " + std::to_string(s * items + i) + "\n";
    }
    size = text.size();
    path = "/proc/self/fd/" + std::to_string(fd_);
    if (write(fd_, text.data(), size) != static_cast<ssize_t>(size)) std::abort();
  }
  File(const File &) = delete;
  File &operator=(const File &) = delete;
  ~File() { close(fd_); }

  std::string path;
  std::size_t size;

private:
  int fd_;
};

GKeyFile *load_key_file(const char *path) {
  GKeyFile *file = g_key_file_new();
  if (g_key_file_load_from_file(file, path, 0, nullptr) == 0) std::abort();
  return file;
}

using Table = std::unordered_map<std::string, std::unordered_map<std::string, std::string>>;

int keep_item(void *user, const char *section, const char *name, const char *value) {
  (*static_cast<Table *>(user))[section].insert_or_assign(name, value);
  return 1;
}

int find_item(void *user, const char *section, const char *name, const char *value) {
  if (std::strcmp(name, "NONE") == 0 && std::strcmp(section, "NONE") == 0)
    std::strcpy(static_cast<char *>(user), value);
  return 1;
}

void measure_parses(const bench::Table &table, const char *what, const File &file,
                    bool with_iniparser) {
  const char *path = file.path.c_str();
  table.row({std::string("look for an item in ") + what, file.size},
            {bench::ours([=] {
               vorn_cfg_item_s out;
               if (vorn_cfg_getItemFromFile(path, "NONE", "NONE", &out) == 0) std::abort();
             }),
             bench::peer("inih", [=] {
               char value[256];
               if (ini_parse(path, find_item, value) != 0) std::abort();
             })});
  std::vector<bench::Contender> contenders = {
      bench::ours([=] {
        if (vorn_cfg_init(path) != 0) std::abort();
        vorn_cfg_destroy_ex(path);
      }),
      bench::peer("inih",
                  [=] {
                    Table kept;
                    if (ini_parse(path, keep_item, &kept) != 0) std::abort();
                  }),
      bench::peer("GKeyFile", [=] { g_key_file_free(load_key_file(path)); })};
  if (with_iniparser) {
    contenders.push_back(
        bench::peer("iniparser", [=] { iniparser_freedict(iniparser_load(path)); }));
  }
  table.row({std::string("keep and drop ") + what, file.size}, contenders);
}

struct Turn {
  std::size_t count;
  std::size_t at = 0;

  std::size_t next() { return at = at + 1 == count ? 0 : at + 1; }
};

// A file whose items are looked up in turn, in a random order.
class Lookups {
public:
  Lookups(std::size_t sections, std::size_t items)
      : file_(sections, items), turn_{sections * items} {
    for (std::size_t i = 0; i < sections * items; ++i) {
      const std::size_t at = i * 7919 % (sections * items);
      section_.push_back(section_of(at / items));
      item_.push_back(item_of(at % items));
      key_.push_back(section_.back() + ":" + item_.back());
    }
    if (vorn_cfg_init(path_) != 0) std::abort();
    key_file_ = load_key_file(path_);
  }
  Lookups(const Lookups &) = delete;
  Lookups &operator=(const Lookups &) = delete;
  ~Lookups() {
    g_key_file_free(key_file_);
    vorn_cfg_destroy();
    if (dictionary_ != nullptr) iniparser_freedict(dictionary_);
  }

  std::vector<bench::Contender> contenders() {
    return {bench::ours([this, turn = turn_]() mutable {
              char value[256];
              const std::size_t at = turn.next();
              if (vorn_cfg_getItemValue_ex(path_, section_[at].c_str(), item_[at].c_str(), value,
                                           sizeof value) != 0)
                std::abort();
            }),
            bench::peer("GKeyFile", [this, turn = turn_]() mutable {
              char value[256];
              const std::size_t at = turn.next();
              char *found =
                  g_key_file_get_value(key_file_, section_[at].c_str(), item_[at].c_str(), nullptr);
              if (found == nullptr) std::abort();
              std::strcpy(value, found);
              g_free(found);
              bench::keep(value);
            })};
  }

  // Its loading takes minutes for 100,000 items.
  bench::Contender iniparser() {
    dictionary_ = iniparser_load(path_);
    return bench::peer("iniparser", [this, turn = turn_]() mutable {
      char value[256];
      const char *found = iniparser_getstring(dictionary_, key_[turn.next()].c_str(), nullptr);
      if (found == nullptr) std::abort();
      std::strcpy(value, found);
      bench::keep(value);
    });
  }

private:
  File file_;
  const char *path_ = file_.path.c_str();
  Turn turn_;
  std::vector<std::string> section_;
  std::vector<std::string> item_;
  std::vector<std::string> key_;
  GKeyFile *key_file_;
  dictionary *dictionary_ = nullptr;
};

void measure_lookups(const bench::Table &table, const char *what, std::size_t sections,
                     std::size_t items) {
  Lookups lookups{sections, items};
  std::vector<bench::Contender> contenders = lookups.contenders();
  contenders.push_back(lookups.iniparser());
  table.row(what, contenders);
}

void measure_curve(const bench::Table &table) {
  const bench::Curve curve{
      table, {"cfg", "Configuration files: look up an item", "items in one section", "lookup"}};
  for (std::size_t items = 10; items <= 100000; items *= 10)
    curve.point(items, 1, Lookups{1, items}.contenders());
}

} // namespace

int main(int argc, char **argv) {
  const bench::Table table{argc, argv, "Configuration files"};
  if (bench::wants_curves()) {
    measure_curve(table);
    return 0;
  }
  measure_parses(table, "1 KB", File(2, 16), true);
  measure_parses(table, "1 MB, 600 sections", File(600, 56), false);
  measure_parses(table, "1 MB, 1 section", File(1, 28000), false);
  measure_lookups(table, "look up, 1000 items in 1 section", 1, 1000);
  measure_lookups(table, "look up, 1000 items in 50 sections", 50, 20);
}
