#include "settings.hpp"
namespace scrub { std::string settings_text(const Settings &) { return "x"; } }
