#pragma once
#include "options.hpp"
namespace scrub { void read_settings(const std::string &path, CommandLine &line); }
