// Throwaway.
#include "options.hpp"
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include "scope_filter.hpp"
namespace scrub {
CommandLine parse_options(int argc, char **argv) {
  CommandLine l; std::string manifest, log; auto &o = l.options;
  for (int i = 1; i < argc; ++i) { std::string a = argv[i];
    auto v = [&] { return std::string(argv[++i]); };
    if (a == "create") l.command = Command::kCreate; else if (a == "verify") l.command = Command::kVerify;
    else if (a == "update") l.command = Command::kUpdate; else if (a == "--manifest") manifest = v();
    else if (a == "--log") log = v(); else if (a == "--settings") l.settings_file = v();
    else if (a == "--exclude") o.scope.excludes.push_back(v());
    else if (a == "--only" || a == "--accept") { std::string p = v(); normal_tree_path(p); (a == "--only" ? o.scope.only : o.accepted).push_back(p); }
    else if (a == "--one-file-system") o.scope.one_file_system = true; else if (a == "--pseudo") o.scope.pseudo = true;
    else if (a == "--any-tree") o.any_tree = true; else if (a == "--resume") o.resume = true; else if (a == "--cached") o.cached = true;
    else if (a == "--part") { std::string p = v(); o.part.number = p[0] == 'n' ? 0 : std::strtoull(p.c_str(), nullptr, 10); o.part.of = std::strtoull(strchr(p.c_str(), '/') + 1, nullptr, 10); }
    else if (a == "--max-errors") o.max_errors = std::strtoull(v().c_str(), nullptr, 10);
    else if (a == "-q") o.quiet = true; else if (a == "--json") o.output = Output::kJson; else if (a == "--json-lines") o.output = Output::kJsonLines;
    else if (a == "--report") o.html = v(); else if (a == "--stall") o.stall = true; else if (a == "--crash") o.crash = true;
    else l.directories.push_back({a, {}}); }
  for (auto &d : l.directories) { std::string m = manifest.empty() ? d.root + "/.vorn-scrub" : manifest; auto s = m.rfind('/');
    d.paths.manifest_directory = s == m.npos ? "." : m.substr(0, s); d.paths.manifest_name = s == m.npos ? m : m.substr(s + 1);
    d.paths.log_directory = log.empty() ? l.directories[0].paths.manifest_directory : log; }
  return l;
}
void print_help() {}
}
