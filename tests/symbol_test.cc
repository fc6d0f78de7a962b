// test-wraps: vorn_mallocsubproc vorn_freesub __cxa_demangle
// Tests the symbol table.
// SPDX-License-Identifier: Apache-2.0
#include "symbol/vorn_symbol.hpp"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <dlfcn.h>
#include <elf.h>
#include <filesystem>
#include <memory>
#include <pthread.h>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "evlog.h"
#include "support/allocation.hpp"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"
#include "vorn_symbol.h"

using namespace vorn::symbol;
using namespace std::string_literals;

// The thread sanitizer does not know the loader's lock, which is held during a walk of the objects.
extern "C" const char *__tsan_default_suppressions() { return "race:vorn::symbol::Image::take\n"; }

extern "C" {

char *__real___cxa_demangle(const char *, char *, std::size_t *, int *);
char *__wrap___cxa_demangle(const char *name, char *buffer, std::size_t *length, int *status) {
  if (!fails_now()) return __real___cxa_demangle(name, buffer, length, status);
  *status = -1;
  return nullptr;
}

__attribute__((noinline)) void symbol_probe() { asm volatile("nop; nop; nop; nop"); }
}

namespace probes {
__attribute__((noinline)) int add(int a, const char *text) {
  asm volatile("" : "+r"(a));
  return a + *text;
}
} // namespace probes

namespace {

const auto probe = reinterpret_cast<std::uintptr_t>(symbol_probe);

// Returns "name+0xoffset", or "" if the address is unknown.
std::string text_at(std::uintptr_t address) {
  char text[4096];
  return vorn_symbol_addr_to_string(address, text, sizeof text) == 0 ? text : "";
}

std::string fixture_path(const char *name) { return std::string(VORN_FIXTURE_DIR) + "/" + name; }

class Library {
public:
  explicit Library(const std::string &path) : handle_(dlopen(path.c_str(), RTLD_NOW), dlclose) {}
  std::uintptr_t operator[](const char *name) const {
    return reinterpret_cast<std::uintptr_t>(dlsym(handle_.get(), name));
  }
  std::uintptr_t static_function() const {
    const auto get = reinterpret_cast<int (*(*)())(int)>((*this)["fixture_static"]);
    return reinterpret_cast<std::uintptr_t>(get());
  }
  void close() { handle_.reset(); }

private:
  std::unique_ptr<void, int (*)(void *)> handle_;
};

// Every case ends without a table, and without memory in use.
class SymbolTable : public testing::Test {
protected:
  ~SymbolTable() override {
    until_failure = LONG_MAX;
    vorn_symbol_fini();
    EXPECT_EQ(live_blocks, 0);
  }
};

} // namespace

TEST_F(SymbolTable, FindsFunctionsOfTheProgramAndOfItsLibraries) {
  ASSERT_EQ(vorn_symbol_init(), 0);
  EXPECT_EQ(text_at(reinterpret_cast<std::uintptr_t>(probes::add)),
            "probes::add(int, char const*)+0x0");
  EXPECT_EQ(text_at(Library("libc.so.6")["wordexp"]), "wordexp+0x0");
  Symbol symbol{};
  ASSERT_TRUE(Reader().lookup(probe + 3, &symbol));
  EXPECT_EQ(symbol.start, probe);
  EXPECT_EQ(symbol.object, std::filesystem::read_symlink("/proc/self/exe"));
}

TEST_F(SymbolTable, TextIsCutToTheBuffer) {
  ASSERT_EQ(vorn_symbol_init(), 0);
  const std::string whole = "symbol_probe+0x2";
  for (std::size_t size = 1; size <= whole.size() + 2; ++size) {
    std::vector<char> exact(size, 'x');
    EXPECT_EQ(vorn_symbol_addr_to_string(probe + 2, exact.data(), size), 0);
    EXPECT_EQ(exact.data(), whole.substr(0, size - 1));
  }
  EXPECT_EQ(vorn_symbol_addr_to_string(probe, nullptr, 0), -1);
  char text[64];
  EXPECT_EQ(vorn_symbol_addr_to_string(UINTPTR_MAX, text, sizeof text), -1);
  EXPECT_STREQ(text, "unknown+0xffffffffffffffff");
}

TEST_F(SymbolTable, FunctionsOfEveryKind) {
  const Library full(fixture_path("symbol_fixture.so"));
  const Library stripped(fixture_path("symbol_fixture_stripped.so"));
  ASSERT_EQ(vorn_symbol_init(), 0);
  EXPECT_EQ(text_at(full["fixture_versioned"]), "fixture_versioned+0x0");
  EXPECT_EQ(text_at(full.static_function()),
            "fixture::(anonymous namespace)::in_this_file_only(int)+0x0");
  EXPECT_EQ(text_at(stripped.static_function()), "");
  for (const Library *library : {&full, &stripped}) {
    const std::uintptr_t sized = (*library)["fixture_sized"];
    EXPECT_EQ(text_at(sized + 15), "fixture_sized+0xf"); // of three names
    EXPECT_EQ(text_at(sized + 16), "");                  // a gap
    EXPECT_EQ(text_at(sized + 32), library == &full ? "fixture_label+0x0" : "");
    EXPECT_EQ(text_at((*library)["f"]), "f+0x0");
    EXPECT_EQ(text_at((*library)["_ZN7fixture6Widget4turnEiPKc"]),
              "fixture::Widget::turn(int, char const*)+0x0");
  }
}

TEST_F(SymbolTable, NeedsNoMoreStackThanASmallThreadHas) {
  const Library library(fixture_path("symbol_fixture.so"));
  const auto init = [](void *) -> void * {
    EXPECT_EQ(vorn_symbol_init(), 0);
    return nullptr;
  };
  pthread_attr_t small;
  pthread_attr_init(&small);
  pthread_attr_setstacksize(&small, 128 * 1024);
  pthread_t thread;
  ASSERT_EQ(pthread_create(&thread, &small, init, nullptr), 0);
  pthread_join(thread, nullptr);
  const std::uintptr_t nested = library["fixture_sized"] + 64;
  EXPECT_EQ(text_at(nested), "f(int" + std::string(251, '*') + ")+0x0");
  EXPECT_EQ(text_at(nested + 16), "_Z1f" + std::string(252, 'P') + "i+0x0");
  EXPECT_EQ(text_at(nested + 32), "_Z1f" + std::string(1000, 'P') + "i+0x0");
}

TEST_F(SymbolTable, ObjectsComeAndGoWithARefreshButNotForAReader) {
  ASSERT_EQ(vorn_symbol_init(), 0);
  const Reader before;
  Library library(fixture_path("symbol_fixture.so"));
  const std::uintptr_t address = library["fixture_sized"];
  EXPECT_EQ(text_at(address), "");
  ASSERT_EQ(vorn_symbol_init(), 0);
  EXPECT_EQ(text_at(address), "fixture_sized+0x0");
  Symbol symbol{};
  {
    const Reader between;
    ASSERT_TRUE(between.lookup(address, &symbol));
    library.close();
    ASSERT_EQ(vorn_symbol_init(), 0);
    EXPECT_EQ(text_at(address), "");
    EXPECT_EQ(text_at(probe), "symbol_probe+0x0");
    vorn_symbol_fini();
    EXPECT_STREQ(symbol.name, "fixture_sized");
    EXPECT_TRUE(between.lookup(address, &symbol));
    EXPECT_NE(live_blocks, 0);
  }
  EXPECT_FALSE(before.lookup(address, &symbol));
  EXPECT_TRUE(before.lookup(probe, &symbol));
  EXPECT_FALSE(Reader().lookup(probe, &symbol));
}

TEST_F(SymbolTable, WithoutMemoryTheOldTableStays) {
  const Library library(fixture_path("symbol_fixture.so"));
  ASSERT_EQ(vorn_symbol_init(), 0);
  for (const bool fresh : {false, true}) {
    int failures = 0;
    for (long step = 0;; step += 1 + step / 8, ++failures) {
      if (fresh) vorn_symbol_fini();
      until_failure = step;
      const int result = vorn_symbol_init();
      until_failure = LONG_MAX;
      if (result == 0) break;
      EXPECT_EQ(text_at(probe), fresh ? "" : "symbol_probe+0x0");
    }
    EXPECT_GT(failures, 10);
  }
  EXPECT_EQ(capture::take().back().text, "Symbol table init failed, no memory.");
}

// A copy of the fixture whose file changes while it is loaded.
class ChangedFile : public SymbolTable {
protected:
  ChangedFile() { replace(content_); }

  // Does not write to the file of a loaded object, but replaces the file.
  void replace(const std::string &content) {
    scratch::write_file(path_ + ".new", content);
    std::filesystem::rename(path_ + ".new", path_);
  }

  std::string flipped(std::size_t at) const {
    std::string content = content_;
    content.at(at) = static_cast<char>(content[at] ^ 0x40);
    return content;
  }

  // Gives this function an address that is unrelated to the object's.
  std::string with_absolute(std::string_view name) const {
    std::string content = content_;
    const auto *file = reinterpret_cast<const Elf64_Ehdr *>(content.data());
    const auto *sections = reinterpret_cast<const Elf64_Shdr *>(content.data() + file->e_shoff);
    const Elf64_Shdr *table = sections;
    while (table->sh_type != SHT_SYMTAB)
      ++table;
    const char *names = content.data() + sections[table->sh_link].sh_offset;
    auto *symbol = reinterpret_cast<Elf64_Sym *>(content.data() + table->sh_offset);
    while (names + symbol->st_name != name)
      ++symbol;
    symbol->st_shndx = SHN_ABS;
    return content;
  }

  const std::string content_ = scratch::read_file(fixture_path("symbol_fixture.so"));
  const scratch::Directory directory_;
  const std::string path_ = directory_ / "changed.so";
};

TEST_F(ChangedFile, IsLeftOutUnlessItIsTheLoadedOne) {
  const struct {
    std::string now; // "" deletes it
    std::string text;
  } rows[] = {
      {content_, "fixture_sized+0x0"},
      {with_absolute("fixture_sized"), "fixture_weak_alias+0x0"},
      {flipped(content_.find("\3\0\0\0GNU\0"s) + 8), ""}, // the build id
      {flipped(0), ""},                                   // not an ELF file
      {"", ""},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(&row - rows);
    replace(content_);
    const Library library(path_);
    replace(row.now);
    if (row.now.empty()) std::filesystem::remove(path_);
    vorn_symbol_fini(); // the object of the last row may have had the same address
    capture::take();
    ASSERT_EQ(vorn_symbol_init(), 0);
    EXPECT_EQ(text_at(library["fixture_sized"]), row.text);
    EXPECT_EQ(text_at(probe), "symbol_probe+0x0");
    if (!row.text.empty()) {
      EXPECT_NO_MESSAGE();
    } else {
      EXPECT_ONE_MESSAGE(EVLOG_INFO, "vorn_symbol.c", "vorn_symbol_init",
                         "Symbols of " + path_ + " are not known.");
    }
  }
}

// Damages the section headers and the symbols after the code.
TEST_F(ChangedFile, DoesNoHarmWhenDamaged) {
  const Library library(path_);
  const std::uintptr_t code = library["fixture_sized"];
  Elf64_Ehdr header;
  std::memcpy(&header, content_.data(), sizeof header);
  const std::size_t sections = header.e_shnum * sizeof(Elf64_Shdr);
  std::mt19937 random(11);
  for (int round = 0; round < 40; ++round) {
    std::string damaged = content_;
    for (int byte = 0; byte < 1 + round % 12; ++byte)
      damaged[header.e_shoff + random() % sections] = static_cast<char>(random());
    if (round % 3 == 0) damaged[offsetof(Elf64_Ehdr, e_shoff) + random() % 8] ^= 0x11;
    if (round % 5 == 0) damaged.resize(random() % damaged.size());
    replace(damaged);
    vorn_symbol_fini();
    ASSERT_EQ(vorn_symbol_init(), 0);
    for (std::uintptr_t at = code - 2048; at < code + 2048; at += 8) {
      Symbol symbol{"none", 0, ""};
      Reader().lookup(at, &symbol);
      EXPECT_LE(symbol.start, at);
      EXPECT_NE(std::strlen(symbol.name), 0u);
    }
  }
}

namespace {

std::atomic<int> wrong{0};
std::atomic<int> answered_in_handler{0};

// Both lookups find the probe or nothing.
void ask() {
  const Reader reader;
  Symbol symbol{"symbol_probe", 0, "/"};
  reader.lookup(probe + 1, &symbol);
  const bool whole = std::strcmp(symbol.name, "symbol_probe") == 0 && symbol.object[0] == '/';
  char text[64];
  const char *want = vorn_symbol_addr_to_string(probe + 1, text, sizeof text) == 0
                         ? "symbol_probe+0x1"
                         : "unknown+0x";
  if (!whole || std::strncmp(text, want, std::strlen(want)) != 0) ++wrong;
}

void change_table() {
  const Library library(fixture_path("symbol_fixture.so"));
  EXPECT_EQ(vorn_symbol_init(), 0);
  vorn_symbol_fini();
}

} // namespace

// In threads, first without a signal handler that interrupts a change: a changing thread that also
// makes lookups hides from the sanitizer what the count of readers does not order.
TEST_F(SymbolTable, LookupsWhileTheTableChanges) {
  signal(SIGUSR1, [](int) {
    ask();
    ++answered_in_handler;
  });
  for (const int handled : {0, 50}) {
    std::atomic<bool> done{false};
    std::vector<std::jthread> readers;
    for (int i = 0; i < 3; ++i) {
      readers.emplace_back([&done, handled, changer = pthread_self()] {
        while (!done) {
          ask();
          if (handled != 0) pthread_kill(changer, SIGUSR1);
          std::this_thread::sleep_for(std::chrono::microseconds(200)); // lets old tables be freed
        }
      });
    }
    std::thread other([] {
      for (int round = 0; round < 5; ++round)
        change_table();
    });
    for (int round = 0; round < 5 || answered_in_handler < handled; ++round)
      change_table();
    other.join();
    done = true;
    readers.clear();
  }
  EXPECT_EQ(wrong, 0);
}
