// Draws the plots of the page as pictures inside it.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_PLOTS_HPP
#define SCRUB_PLOTS_HPP

#include <cstdint>
#include <span>
#include <string_view>

#include "html.hpp"
#include "series.hpp"

namespace scrub {

// Draw nothing but a sentence if there was no read. of names what was read: it is part of the
// pictures' accessible names.
Html throughput_plot(const Series::Figures &series, std::string_view of);
Html latency_plot(const Series::Figures &series, std::string_view of);

// Draws percents over time in one line, for a cell of a table.
Html usage_plot(std::span<const std::uint8_t> percents, std::string_view name);

} // namespace scrub

#endif
