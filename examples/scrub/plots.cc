// Draws the plots of the page as pictures inside it.
// SPDX-License-Identifier: Apache-2.0
#include "plots.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>
#include <numeric>
#include <string>
#include <vector>

#include "text.hpp"

namespace scrub {
namespace {

// The picture and, in it, the area of the data.
constexpr double kWidth = 640;
constexpr double kHeight = 230;
constexpr double kLeft = 84;
constexpr double kRight = 610;
constexpr double kTop = 12;
constexpr double kBottom = 176;

constexpr std::size_t kMostSteps = 180; // of the throughput
constexpr double kNanoseconds = 1e9;    // of a second

// Returns 1, 2 or 5 times a power of ten: the distance of the ticks of an axis that ends at end.
double tick_distance(double end, double most_ticks) {
  const double least = end / most_ticks;
  const double power = std::pow(10, std::floor(std::log10(least)));
  for (const double factor : {1.0, 2.0, 5.0}) {
    if (factor * power >= least) return factor * power;
  }
  return 10 * power;
}

// Returns "1.5", "2", "150".
std::string decimal(double number) {
  char text[32];
  std::snprintf(text, sizeof text, "%.*f", number < 9.95 ? 1 : 0, number);
  const std::string_view digits = text;
  return std::string(digits.ends_with(".0") ? digits.substr(0, digits.size() - 2) : digits);
}

// Returns "1.5 ms", "2 s".
std::string time_text(double nanoseconds) {
  if (nanoseconds < 1e6) return decimal(nanoseconds / 1e3) + " \u00b5s";
  if (nanoseconds < 1e9) return decimal(nanoseconds / 1e6) + " ms";
  return decimal(nanoseconds / 1e9) + " s";
}

// Returns "600 MB" for "600.0 MB".
std::string whole(std::string amount) {
  const std::size_t end = amount.find(".0 ");
  return end == std::string::npos ? amount : amount.erase(end, 2);
}

struct Axis {
  double end = 1;      // the axis begins at 0
  double distance = 1; // of the ticks

  Axis(double most, double most_ticks)
      : end(std::max(most, 1e-9)), distance(tick_distance(end, most_ticks)) {}

  // Makes the axis end at a tick.
  Axis &whole() {
    end = std::ceil(end / distance - 1e-9) * distance;
    return *this;
  }
  std::size_t ticks() const { return static_cast<std::size_t>(end / distance + 1e-9) + 1; }
};

double place_x(double share) { return kLeft + share * (kRight - kLeft); }
double place_y(double share) { return kBottom - share * (kBottom - kTop); }

Html picture(std::string_view name, std::string_view description, const Html &content) {
  Html html;
  html << "<svg class=\"plot\" role=\"img\" viewBox=\"0 0 ";
  html.at(kWidth) << " ";
  html.at(kHeight) << "\" aria-label=\"";
  html.text(name) << ". ";
  html.text(description) << "\">\n" << content << "</svg>\n";
  return html;
}

Html line(Literal style, double x1, double y1, double x2, double y2) {
  Html html;
  html << "<line class=\"" << style << "\" x1=\"";
  html.at(x1) << "\" y1=\"";
  html.at(y1) << "\" x2=\"";
  html.at(x2) << "\" y2=\"";
  html.at(y2) << "\"/>\n";
  return html;
}

Html label(Literal style, double x, double y, std::string_view text) {
  Html html;
  html << "<text class=\"" << style << "\" x=\"";
  html.at(x) << "\" y=\"";
  html.at(y) << "\">";
  html.text(text) << "</text>\n";
  return html;
}

using Text = std::function<std::string(double)>;

Html vertical_axis(const Axis &axis, const Text &text) {
  Html html;
  for (std::size_t i = 0; i < axis.ticks(); ++i) {
    const double value = static_cast<double>(i) * axis.distance;
    const double y = place_y(value / axis.end);
    html << line("grid", kLeft, y, kRight, y) << label("end", kLeft - 8, y + 4, text(value));
  }
  return html;
}

Html horizontal_tick(double x, std::string_view text) {
  Html html;
  html << line("tick", x, kBottom, x, kBottom + 5) << label("middle", x, kBottom + 20, text);
  return html;
}

Html horizontal_title(std::string_view text) {
  return label("middle title", (kLeft + kRight) / 2, kHeight - 8, text);
}

// A step of the throughput: the mean of an interval.
struct Step {
  double begin; // seconds
  double end;
  double rate; // bytes a second
};

std::vector<Step> steps_of(const Series::Figures &series) {
  const auto elapsed = static_cast<double>(series.elapsed) / kNanoseconds;
  const std::size_t merged = (series.points.size() + kMostSteps - 1) / kMostSteps;
  const double length =
      static_cast<double>(merged) * static_cast<double>(series.interval) / kNanoseconds;
  std::vector<Step> steps;
  double begin = 0;
  double bytes = 0;
  std::size_t points = 0;
  for (std::size_t i = 0; i < series.points.size(); ++i) {
    bytes += static_cast<double>(series.points[i]);
    const bool last = i + 1 == series.points.size();
    if (++points < merged && !last) continue;
    // The mean of a short rest would be a peak of chance, so that the last step takes it in.
    const double end = last ? std::max(elapsed, begin + 1e-9) : begin + length;
    if (last && !steps.empty() && end - begin < length / 2) {
      Step &step = steps.back();
      step.rate = (step.rate * (step.end - step.begin) + bytes) / (end - step.begin);
      step.end = end;
    } else {
      steps.push_back({begin, end, bytes / (end - begin)});
    }
    begin = end;
    bytes = 0;
    points = 0;
  }
  return steps;
}

struct TimeUnit {
  const char *name;
  double seconds;
};

TimeUnit time_unit(double seconds) {
  if (seconds < 0.5) return {"ms", 0.001};
  if (seconds < 600) return {"s", 1};
  if (seconds < 4 * 3600) return {"min", 60};
  return {"h", 3600};
}

Html outline(const std::vector<Step> &steps, const Axis &seconds, const Axis &rates) {
  Html html;
  for (const Step &step : steps) {
    const double y = place_y(step.rate / rates.end);
    html << "L";
    html.at(place_x(step.begin / seconds.end)) << " ";
    html.at(y) << "L";
    html.at(place_x(step.end / seconds.end)) << " ";
    html.at(y);
  }
  return html;
}

Html nothing_read() {
  Html html;
  html << "<p>Nothing was read.</p>\n";
  return html;
}

// Returns the time below which the share of the reads stayed, as far as the buckets tell.
double bound_of(const Series::Figures &series, double share) {
  const double wanted = share * static_cast<double>(series.reads);
  double sum = 0;
  for (std::size_t i = 0; i + 1 < series.latency.size(); ++i) {
    sum += static_cast<double>(series.latency[i]);
    if (sum >= wanted)
      return std::min(std::ldexp(1e3, static_cast<int>(i)), static_cast<double>(series.longest));
  }
  return static_cast<double>(series.longest);
}

Html bar(double left, double right, double share, std::string_view name) {
  const double height = std::max(share * (kBottom - kTop), 1.5); // visible also for one read
  Html html;
  html << "<rect class=\"bar\" x=\"";
  html.at(left) << "\" y=\"";
  html.at(kBottom - height) << "\" width=\"";
  html.at(right - left) << "\" height=\"";
  html.at(height) << "\"><title>";
  html.text(name) << "</title></rect>\n";
  return html;
}

// Returns the lower end of a bucket in nanoseconds.
double bucket_begin(std::size_t bucket) {
  return bucket == 0 ? 0 : std::ldexp(1e3, static_cast<int>(bucket) - 1);
}

Html figure(const Html &picture, std::string_view caption) {
  Html html;
  html << "<figure>\n" << picture << "<figcaption>";
  html.text(caption) << "</figcaption>\n</figure>\n";
  return html;
}

} // namespace

Html throughput_plot(const Series::Figures &series, std::string_view of) {
  if (series.reads == 0) return nothing_read();
  const std::vector<Step> steps = steps_of(series);
  const double elapsed = steps.back().end;
  const double peak =
      std::max_element(steps.begin(), steps.end(), [](const Step &a, const Step &b) {
        return a.rate < b.rate;
      })->rate;
  const TimeUnit unit = time_unit(elapsed);
  const Axis seconds(elapsed, 8);
  const Axis units(elapsed / unit.seconds, 8);
  const Axis rates = Axis(peak, 5).whole();

  Html content;
  content << vertical_axis(rates, [](double rate) { return whole(bytes_text(rate)) + "/s"; });
  for (std::size_t i = 0; i < units.ticks(); ++i) {
    const double value = static_cast<double>(i) * units.distance;
    content << horizontal_tick(place_x(value / units.end), decimal(value));
  }
  content << horizontal_title(std::string("time since the start, ") + unit.name);
  const Html top = outline(steps, seconds, rates);
  content << "<path class=\"area\" d=\"M";
  content.at(kLeft) << " ";
  content.at(kBottom) << top << "L";
  content.at(kRight) << " ";
  content.at(kBottom) << "Z\"/>\n<path class=\"line\" d=\"M";
  content.at(kLeft) << " ";
  content.at(place_y(steps.front().rate / rates.end)) << top << "\"/>\n";

  const double mean = static_cast<double>(series.bytes) / elapsed;
  const std::string caption = "Mean " + bytes_text(mean) + "/s, peak " + bytes_text(peak) +
                              "/s in steps of " +
                              time_text((steps[0].end - steps[0].begin) * kNanoseconds) + ".";
  return figure(picture("Throughput of " + std::string(of) + " over time", caption, content),
                caption);
}

Html latency_plot(const Series::Figures &series, std::string_view of) {
  if (series.reads == 0) return nothing_read();
  std::size_t first = 0;
  while (series.latency[first] == 0)
    ++first;
  std::size_t last = Series::kBuckets - 1;
  while (series.latency[last] == 0)
    --last;
  const std::size_t buckets = last - first + 1;
  const double width = (kRight - kLeft) / static_cast<double>(std::max<std::size_t>(buckets, 8));
  const std::size_t labelled = buckets > 8 ? buckets / 8 + 1 : 1; // each so many ticks
  const std::uint64_t most = *std::max_element(series.latency.begin(), series.latency.end());
  const Axis counts = Axis(static_cast<double>(std::max<std::uint64_t>(most, 5)), 5).whole();

  Html content;
  content << vertical_axis(counts, [](double count) {
    return grouped(static_cast<std::uint64_t>(std::llround(count)));
  });
  for (std::size_t i = first; i <= last; ++i) {
    const double left = kLeft + static_cast<double>(i - first) * width;
    const std::string begin = time_text(bucket_begin(i));
    if ((i - first) % labelled == 0) content << horizontal_tick(left, begin);
    if (series.latency[i] == 0) continue;
    const std::string name =
        counted(series.latency[i], "read") + " of " + begin +
        (i + 1 == Series::kBuckets ? " or more" : " to " + time_text(bucket_begin(i + 1)));
    content << bar(left + 1, left + width - 1, static_cast<double>(series.latency[i]) / counts.end,
                   name);
  }
  if (last + 1 < Series::kBuckets && buckets % labelled == 0)
    content << horizontal_tick(kLeft + static_cast<double>(buckets) * width,
                               time_text(bucket_begin(last + 1)));
  content << horizontal_title("time of a read; the bars count the reads");

  const std::string caption = counted(series.reads, "read") + ": half within " +
                              time_text(bound_of(series, 0.5)) + ", 99 % within " +
                              time_text(bound_of(series, 0.99)) + ", the longest " +
                              time_text(static_cast<double>(series.longest)) + ".";
  return figure(picture("Latency of the reads of " + std::string(of), caption, content), caption);
}

Html usage_plot(std::span<const std::uint8_t> percents, std::string_view name) {
  constexpr double kEnd = 160;
  constexpr double kFloor = 27;
  Html html;
  if (percents.size() < 2) return html;
  html << "<svg class=\"usage\" role=\"img\" viewBox=\"0 0 160 28\" aria-label=\"";
  html.text(name) << "\"><path class=\"line\" d=\"";
  for (std::size_t i = 0; i < percents.size(); ++i) {
    html << (i == 0 ? Literal("M") : Literal("L"));
    html.at(kEnd * static_cast<double>(i) / static_cast<double>(percents.size() - 1)) << " ";
    html.at(kFloor - std::min<double>(percents[i], 100) / 100 * (kFloor - 1));
  }
  html << "\"/></svg>";
  return html;
}

} // namespace scrub
