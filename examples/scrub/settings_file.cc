#include "settings_file.hpp"
#include <fstream>
#include <cstdlib>
namespace scrub { void read_settings(const std::string &path, CommandLine &line) { std::ifstream f(path); std::string s; auto &t = line.options.settings; while (std::getline(f, s)) { auto v = std::strtoull(s.c_str() + s.find('=') + 1, nullptr, 10); if (s.starts_with("READ_SIZE")) t.read_size_limit = v; if (s.starts_with("THREADS")) t.threads = v; if (s.starts_with("RATE")) t.rate_limit = v; } } }
